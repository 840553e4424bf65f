#include "setup/ServiceJob.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringList>
#include <QXmlStreamReader>

#include <algorithm>

namespace ServiceJob {

namespace {

QString xmlEscaped(QString text)
{
    return text.replace(QLatin1Char('&'), QStringLiteral("&amp;"))
        .replace(QLatin1Char('<'), QStringLiteral("&lt;"))
        .replace(QLatin1Char('>'), QStringLiteral("&gt;"));
}

// One word for systemd: in double quotes with \ and " escaped and % doubled
// so no specifier expands. On a command line $ is doubled too, so no variable
// expands; in an Environment= assignment $ means nothing and stays as it is.
enum class WordUse { Command, Assignment };
QString systemdWord(QString text, WordUse use = WordUse::Command)
{
    text.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
        .replace(QLatin1Char('"'), QStringLiteral("\\\""))
        .replace(QLatin1Char('%'), QStringLiteral("%%"));
    if (use == WordUse::Command)
        text.replace(QLatin1Char('$'), QStringLiteral("$$"));
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// A path setting takes the rest of the line as it stands: no quotes, only
// specifiers to escape.
QString systemdPath(QString path)
{
    return path.replace(QLatin1Char('%'), QStringLiteral("%%"));
}

QString systemdUnwrapped(QString word)
{
    if (word.startsWith(QLatin1Char('"')) && word.endsWith(QLatin1Char('"')) && word.size() >= 2)
        word = word.mid(1, word.size() - 2);
    QString plain;
    for (qsizetype i = 0; i < word.size(); ++i) {
        const QChar c = word.at(i);
        if (c == QLatin1Char('\\') && i + 1 < word.size()) {
            plain += word.at(++i);
        } else if ((c == QLatin1Char('%') || c == QLatin1Char('$')) && i + 1 < word.size() && word.at(i + 1) == c) {
            plain += c;
            ++i;
        } else {
            plain += c;
        }
    }
    return plain;
}

QStringList sortedKeys(const QHash<QString, QString>& variables)
{
    QStringList keys = variables.keys();
    keys.sort();
    return keys;
}

std::optional<QString> stamp(const QString& daemonFolder)
{
    QFile file(daemonFolder + QStringLiteral("/.tidewatch-build"));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return QString::fromUtf8(file.readAll()).trimmed();
}

std::optional<int> integer(const QString& text)
{
    bool ok = false;
    const int value = text.trimmed().toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

} // namespace

QString servicePath(const QString& nodePath, const QString& home)
{
    const QStringList folders{QFileInfo(nodePath).path(), home + QStringLiteral("/.local/bin"),
        QStringLiteral("/opt/homebrew/bin"), QStringLiteral("/usr/local/bin"), QStringLiteral("/usr/bin"),
        QStringLiteral("/bin"), QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")};
    QStringList unique;
    for (const QString& folder : folders) {
        if (!unique.contains(folder))
            unique << folder;
    }
    return unique.join(QLatin1Char(':'));
}

QHash<QString, QString> serviceVariables(const Environment& environment, const QString& nodePath)
{
    QHash<QString, QString> variables{{QStringLiteral("PATH"), servicePath(nodePath, environment.home())},
        {QStringLiteral("HOME"), environment.home()}, {QStringLiteral("LANG"), QStringLiteral("en_US.UTF-8")}};
    variables.insert(environment.serviceEnvironment());
    return variables;
}

Spec specFor(const Environment& environment, const QString& nodePath)
{
    return {environment.serviceLabel(), nodePath, environment.daemonFolder(), environment.daemonLog(),
        serviceVariables(environment, nodePath)};
}

QString launchAgentPlist(const Spec& spec)
{
    const auto string = [](const QString& value) {
        return QStringLiteral("<string>") + xmlEscaped(value) + QStringLiteral("</string>");
    };
    QStringList lines{
        QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"),
        QStringLiteral("<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                       "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">"),
        QStringLiteral("<plist version=\"1.0\">"),
        QStringLiteral("<dict>"),
        QStringLiteral("\t<key>EnvironmentVariables</key>"),
        QStringLiteral("\t<dict>"),
    };
    for (const QString& key : sortedKeys(spec.variables))
        lines << QStringLiteral("\t\t<key>") + xmlEscaped(key) + QStringLiteral("</key>")
              << QStringLiteral("\t\t") + string(spec.variables.value(key));
    lines << QStringLiteral("\t</dict>") << QStringLiteral("\t<key>KeepAlive</key>") << QStringLiteral("\t<true/>")
          << QStringLiteral("\t<key>Label</key>") << QStringLiteral("\t") + string(spec.label)
          << QStringLiteral("\t<key>ProcessType</key>") << QStringLiteral("\t<string>Interactive</string>")
          << QStringLiteral("\t<key>ProgramArguments</key>") << QStringLiteral("\t<array>")
          << QStringLiteral("\t\t") + string(spec.nodePath)
          << QStringLiteral("\t\t") + string(spec.daemonFolder + QStringLiteral("/src/main"))
          << QStringLiteral("\t</array>") << QStringLiteral("\t<key>RunAtLoad</key>") << QStringLiteral("\t<true/>")
          << QStringLiteral("\t<key>StandardErrorPath</key>") << QStringLiteral("\t") + string(spec.logFile)
          << QStringLiteral("\t<key>StandardOutPath</key>") << QStringLiteral("\t") + string(spec.logFile)
          << QStringLiteral("\t<key>ThrottleInterval</key>") << QStringLiteral("\t<integer>10</integer>")
          << QStringLiteral("\t<key>WorkingDirectory</key>") << QStringLiteral("\t") + string(spec.daemonFolder)
          << QStringLiteral("</dict>") << QStringLiteral("</plist>");
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

QString systemdUnit(const Spec& spec)
{
    QStringList lines{
        QStringLiteral("[Unit]"),
        QStringLiteral("Description=Tidewatch background service"),
        QStringLiteral("After=network.target"),
        QString(),
        QStringLiteral("[Service]"),
        QStringLiteral("Type=simple"),
        QStringLiteral("ExecStart=") + systemdWord(spec.nodePath) + QLatin1Char(' ')
            + systemdWord(spec.daemonFolder + QStringLiteral("/src/main")),
        QStringLiteral("WorkingDirectory=") + systemdPath(spec.daemonFolder),
    };
    for (const QString& key : sortedKeys(spec.variables)) {
        lines << QStringLiteral("Environment=")
                + systemdWord(key + QLatin1Char('=') + spec.variables.value(key), WordUse::Assignment);
    }
    const QString log = systemdPath(spec.logFile);
    lines << QStringLiteral("StandardOutput=append:") + log << QStringLiteral("StandardError=append:") + log
          << QStringLiteral("Restart=always") << QStringLiteral("RestartSec=10") << QString()
          << QStringLiteral("[Install]") << QStringLiteral("WantedBy=default.target");
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

std::optional<QString> nodePathOf(const QString& jobText)
{
    if (jobText.contains(QLatin1StringView("<plist"))) {
        QXmlStreamReader reader(jobText);
        bool inArguments = false;
        QString lastKey;
        while (!reader.atEnd()) {
            reader.readNext();
            if (reader.isStartElement() && reader.name() == QLatin1StringView("key"))
                lastKey = reader.readElementText();
            else if (reader.isStartElement() && reader.name() == QLatin1StringView("array"))
                inArguments = lastKey == QLatin1StringView("ProgramArguments");
            else if (inArguments && reader.isStartElement() && reader.name() == QLatin1StringView("string"))
                return reader.readElementText();
        }
        return std::nullopt;
    }
    static const QRegularExpression execStart(
        QStringLiteral("^ExecStart=(\"(?:[^\"\\\\]|\\\\.)*\"|\\S+)"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = execStart.match(jobText);
    if (!match.hasMatch())
        return std::nullopt;
    return systemdUnwrapped(match.captured(1));
}

bool updateAvailable(const std::optional<QString>& bundledDaemon, const QString& installedDaemon)
{
    if (!QFileInfo::exists(installedDaemon + QStringLiteral("/src/main.js"))
        && !QFileInfo::exists(installedDaemon + QStringLiteral("/src/main")))
        return false;
    if (!bundledDaemon)
        return false;
    const std::optional<QString> shipped = stamp(*bundledDaemon);
    if (!shipped)
        return false;
    return stamp(installedDaemon) != shipped;
}

std::optional<int> pidFromLsof(const QString& output)
{
    return integer(output.section(QLatin1Char('\n'), 0, 0));
}

std::optional<int> pidFromLaunchctl(const QString& output)
{
    for (const QString& line : output.split(QLatin1Char('\n'))) {
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(QLatin1StringView("pid = ")))
            return integer(trimmed.mid(6));
    }
    return std::nullopt;
}

std::optional<int> pidFromSystemctl(const QString& output)
{
    for (const QString& line : output.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1StringView("MainPID="))) {
            const std::optional<int> pid = integer(line.mid(8));
            return pid && *pid > 0 ? pid : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace ServiceJob
