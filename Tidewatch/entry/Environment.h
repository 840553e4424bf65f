#pragma once

#include <QHash>
#include <QString>

#include <optional>

/// Where this program lives and whether it is a test copy, decided once from
/// the process environment. A test copy is a second copy run beside the real
/// install; it may manage a service only when it is isolated (folders and
/// ports of its own, proven), and says why not through refusalSentence().
class Environment
{
public:
    using Variables = QHash<QString, QString>;

    static constexpr int defaultApiPort = 47321;
    static constexpr int defaultLocalPort = 47322;

    /// The process-wide environment, computed at first use and read-only
    /// after, so any thread may read it.
    static const Environment& current();

    /// An environment from given variables and home, for tests and tools.
    /// Real folders come from the platform's rules for that home.
    Environment(Variables variables, QString home);

    const QString& home() const { return m_home; }
    /// The value of a variable, empty when absent.
    QString variable(const QString& name) const { return m_variables.value(name); }
    bool hasVariable(const QString& name) const { return m_variables.contains(name); }
    const Variables& variables() const { return m_variables; }

    bool isTestCopy() const { return m_testCopy; }
    bool supportIsOverridden() const { return !variable(QStringLiteral("TIDEWATCH_SUPPORT")).isEmpty(); }
    bool isIsolated() const;
    /// True when location is, contains or lies inside the real support or log
    /// folder, by path (links resolved, case folded) or by file-system identity.
    bool isRealFolder(const QString& location) const;
    /// Why this copy must not manage a background service; none for a real
    /// install and for an isolated test copy.
    std::optional<QString> refusalSentence() const;
    /// The variables a test copy's service is started with; empty in a real copy.
    Variables serviceEnvironment() const;
    /// Creates the support folder (0700, also when it was there); the
    /// failure's sentence, or none.
    std::optional<QString> ensureSupportFolder() const;

    const QString& realSupportFolder() const { return m_realSupport; }
    const QString& supportFolder() const { return m_support; }
    QString adminTokenFile() const { return m_support + QStringLiteral("/admin-token"); }
    QString nodePathNote() const { return m_support + QStringLiteral("/node-path"); }
    QString nodeFolder() const { return m_support + QStringLiteral("/node"); }
    QString appFolder() const { return m_support + QStringLiteral("/app"); }
    QString daemonFolder() const { return appFolder() + QStringLiteral("/daemon"); }
    /// Where the service's job file goes: the system's folder, or in a test
    /// copy a folder inside its own support folder.
    const QString& serviceUnitFolder() const { return m_serviceUnits; }
    const QString& serviceLabel() const { return m_serviceLabel; }
    QString serviceUnitFile() const;
    const QString& realLogFolder() const { return m_realLogs; }
    const QString& logFolder() const { return m_logs; }
    QString daemonLog() const { return m_logs + QStringLiteral("/daemon.log"); }
    QString agentSettingsFile() const { return m_home + QStringLiteral("/.claude.json"); }
    QString userBinariesFolder() const { return m_home + QStringLiteral("/.local/bin"); }
    /// The service shipped with the program, when its resources hold one.
    std::optional<QString> bundledDaemonFolder() const;
    /// The terminal relay shipped beside the program's executable.
    std::optional<QString> bundledRelay() const;
    /// Where the service and the shell integration find the relay.
    QString installedRelay() const { return m_support + QStringLiteral("/bin/tidewatch-term"); }

    int apiPort() const { return m_apiPort; }
    int localPort() const { return m_localPort; }
    QString healthUrl() const;
    QString localBase() const;
    QString debugPage() const { return localBase() + QStringLiteral("/qa"); }
    QString feedUrl() const;

    /// Where the debug capture tour writes, when TIDEWATCH_DEBUG_CAPTURE is
    /// present; an empty value counts, as the working folder.
    std::optional<QString> debugCaptureFolder() const;

    /// "com.harbourlab.tidewatch", or the test suite's domain in a test copy.
    QString preferencesDomain() const;

    /// Parses a port variable: decimal, one optional sign, no blanks, no
    /// overflow. Anything else gives none.
    static std::optional<int> parsePort(const QString& text);

private:
    Variables m_variables;
    QString m_home;
    bool m_testCopy = false;
    QString m_realSupport;
    QString m_realLogs;
    QString m_support;
    QString m_logs;
    QString m_serviceUnits;
    QString m_serviceLabel;
    int m_apiPort = defaultApiPort;
    int m_localPort = defaultLocalPort;
};
