#include "awake/BackpackSetup.h"

#include "base/AtomicFile.h"
#include "base/Shell.h"
#include "link/Awake.h"
#include "link/DaemonClient.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace BackpackSetup {

namespace {

constexpr double kScratchLimit = 20;

QStringList ruleLines(const QString& user)
{
    return {
        QStringLiteral("# Tidewatch's Backpack mode: lets ") + user
            + QStringLiteral(" turn macOS sleep off and back on (pmset disablesleep), nothing else."),
        QStringLiteral("# Remove it in Tidewatch (Settings, Stay awake), or with: sudo rm /etc/sudoers.d/tidewatch"),
        user
            + QStringLiteral(
                " ALL=(root) NOPASSWD: /usr/bin/pmset -a disablesleep 0, /usr/bin/pmset -a disablesleep 1"),
    };
}

} // namespace

QString awakeFile(const Environment& environment)
{
    return environment.supportFolder() + QStringLiteral("/awake.json");
}

Saved Saved::fromAwakeFile(const QByteArray& contents)
{
    Saved saved;
    const QJsonValue backpack = QJsonDocument::fromJson(contents).object().value(QLatin1StringView("backpack"));
    if (!backpack.isObject())
        return saved;
    const QJsonObject record = backpack.toObject();
    if (const std::optional<qint64> prev = Lenient::integer(record.value(QLatin1StringView("prev"))))
        saved.prev = prev;
    saved.applied = record.value(QLatin1StringView("applied")).toBool(false);
    return saved;
}

QString path(const Environment& environment)
{
    const QString scratch = environment.variable(QStringLiteral("TIDEWATCH_SUDOERS"));
    return scratch.isEmpty() ? QString::fromLatin1(realPath) : scratch;
}

bool isRealPath(const Environment& environment)
{
    return path(environment) == QLatin1StringView(realPath);
}

bool ruleNeeded(const Environment& environment)
{
    return platform::lidSleepNeedsRoot() || !isRealPath(environment);
}

std::optional<QString> refusal(const Environment& environment)
{
    if (isRealPath(environment)) {
        if (!environment.isTestCopy())
            return std::nullopt;
        return QStringLiteral("This is a test copy (a TIDEWATCH_ variable is set), so it leaves Backpack mode’s "
                              "permission to your real Tidewatch. Set TIDEWATCH_SUDOERS to a scratch path to test it.");
    }
    // Checked on the path as written and as it resolves: /etc is reached through links too.
    const QString written = QDir::cleanPath(path(environment));
    const QString resolved = QFileInfo(QFileInfo(written).path()).canonicalFilePath();
    for (const QString& candidate : {written, resolved + QLatin1Char('/')}) {
        if (candidate.startsWith(QLatin1StringView("/private/etc/"))
            || candidate.startsWith(QLatin1StringView("/etc/")))
            return QStringLiteral("TIDEWATCH_SUDOERS points into /etc: a test never touches sudo’s own folder.");
    }
    return std::nullopt;
}

bool isInstalled(const Environment& environment)
{
    return QFileInfo::exists(path(environment));
}

std::optional<QString> accountProblem(const QString& user)
{
    static const QRegularExpression allowed(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9_.-]{0,63}$"));
    if (allowed.match(user).hasMatch())
        return std::nullopt;
    return QStringLiteral("Backpack mode can’t name your account (") + user + QStringLiteral(") in sudo’s rules.");
}

QString quoted(const QString& value)
{
    QString inner = value;
    inner.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + inner + QLatin1Char('\'');
}

QString installScript(const QString& user, const QString& path, bool chown)
{
    const QString folder = QFileInfo(path).path();
    QStringList rule;
    for (const QString& line : ruleLines(user))
        rule << quoted(line);
    QStringList lines{
        QStringLiteral("set -e"),
        QStringLiteral("umask 077"),
        QStringLiteral("/bin/mkdir -p ") + quoted(folder),
        QStringLiteral("tmp=$(/usr/bin/mktemp ") + quoted(folder + QStringLiteral("/.tidewatch.XXXXXX"))
            + QLatin1Char(')'),
        QStringLiteral("trap '/bin/rm -f \"$tmp\"' EXIT"),
        QStringLiteral("/usr/bin/printf '%s\\n' ") + rule.join(QLatin1Char(' ')) + QStringLiteral(" > \"$tmp\""),
        QStringLiteral("/usr/sbin/visudo -cf \"$tmp\" >/dev/null"),
    };
    if (chown)
        lines << QStringLiteral("/usr/sbin/chown root:wheel \"$tmp\"");
    lines << QStringLiteral("/bin/chmod 0440 \"$tmp\"") << QStringLiteral("/bin/mv -f \"$tmp\" ") + quoted(path);
    return lines.join(QLatin1Char('\n'));
}

QString removeScript(const QString& path, const Saved& saved, const std::optional<QString>& pmset)
{
    QStringList lines{QStringLiteral("set -e")};
    // The permission can't go while it leaves this computer unable to sleep: sleep goes back as Backpack found it.
    if (pmset && saved.applied && saved.prev && (*saved.prev == 0 || *saved.prev == 1))
        lines << quoted(*pmset) + QStringLiteral(" -a disablesleep ") + QString::number(*saved.prev);
    lines << QStringLiteral("/bin/rm -f ") + quoted(path);
    return lines.join(QLatin1Char('\n'));
}

QString appleScript(const QString& script, const QString& prompt)
{
    const auto escape = [](QString text, bool newlines) {
        text.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
        text.replace(QLatin1Char('"'), QStringLiteral("\\\""));
        if (newlines)
            text.replace(QLatin1Char('\n'), QStringLiteral("\\n"));
        return text;
    };
    return QStringLiteral("do shell script \"") + escape(script, true) + QStringLiteral("\" with prompt \"")
        + escape(prompt, false) + QStringLiteral("\" with administrator privileges");
}

QString installPrompt()
{
    return QStringLiteral("Tidewatch needs your password once to set up Backpack mode: a rule that lets it turn "
                          "sleep off and back on, and nothing else.");
}

QString removePrompt()
{
    return QStringLiteral("Tidewatch needs your password to remove Backpack mode’s permission.");
}

std::pair<QString, bool> printScripts(const QString& user)
{
    const QString real = QString::fromLatin1(realPath);
    const QString install = installScript(user, real, true);
    QString text
        = QStringLiteral("# install (as root), for ") + user + QStringLiteral(":\n") + install + QStringLiteral("\n\n");
    text += QStringLiteral("# remove (as root), Backpack having switched SleepDisabled from 0:\n")
        + removeScript(real, Saved{0, true}, QStringLiteral("/usr/bin/pmset")) + QStringLiteral("\n\n");
    text += QStringLiteral("# AppleScript:\n") + appleScript(install, installPrompt());
    return {text, !accountProblem(user)};
}

Outcome runPrivileged(const Environment& environment, const QString& script, const QString& prompt, bool inApp)
{
    if (!isRealPath(environment)) {
        const ShellResult result = Shell::run(
            QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script}, std::nullopt, QString(), kScratchLimit);
        if (!result.timedOut && result.status == 0)
            return std::nullopt;
        const QString said = result.combined();
        return Failure::failed(
            said.isEmpty() ? QStringLiteral("The setup script failed (%1).").arg(result.status) : said);
    }
    const platform::AdminRun run = platform::runAsAdministrator(script, appleScript(script, prompt), inApp);
    switch (run.result) {
    case platform::AdminRun::Result::Done:
        return std::nullopt;
    case platform::AdminRun::Result::Cancelled:
        return Failure::cancelled();
    case platform::AdminRun::Result::Failed:
        break;
    }
    return Failure::failed(run.message.isEmpty() ? QStringLiteral("The setup didn’t finish.") : run.message);
}

Outcome install(const Environment& environment, const QString& user, bool inApp)
{
    if (const std::optional<QString> refused = refusal(environment))
        return Failure::failed(*refused);
    if (isInstalled(environment))
        return std::nullopt;
    if (const std::optional<QString> problem = accountProblem(user))
        return Failure::failed(*problem);
    const QString rulePath = path(environment);
    if (Outcome failure
        = runPrivileged(environment, installScript(user, rulePath, isRealPath(environment)), installPrompt(), inApp))
        return failure;
    if (!isInstalled(environment))
        return Failure::failed(QStringLiteral("The setup finished, but the permission isn’t there. Try again."));
    return std::nullopt;
}

std::optional<QByteArray> awakeFileWithoutBackpack(const QByteArray& contents)
{
    const QJsonDocument document = QJsonDocument::fromJson(contents);
    if (!document.isObject())
        return std::nullopt;
    QJsonObject object = document.object();
    object.remove(QLatin1StringView("backpack"));
    if (object.value(QLatin1StringView("mode")) == QLatin1StringView("backpack")) {
        object.insert(QLatin1StringView("mode"), QStringLiteral("working"));
        object.remove(QLatin1StringView("until"));
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

Outcome remove(const Environment& environment, bool inApp)
{
    if (const std::optional<QString> refused = refusal(environment))
        return Failure::failed(*refused);
    if (!isInstalled(environment))
        return std::nullopt;

    // A service that is there gives up SleepDisabled by itself when Backpack ends.
    const bool serviceAnswers = DaemonClient::healthBlocking(environment, 1.5).has_value();
    if (serviceAnswers) {
        const DaemonResult<QByteArray> reply = DaemonClient::requestBlocking(
            environment, DaemonClient::Method::Get, QStringLiteral("/v1/mac/awake"), std::nullopt, 8);
        const std::optional<Awake> awake = reply.ok()
            ? Awake::fromJson(QJsonDocument::fromJson(reply.value()).object().value(QLatin1StringView("awake")))
            : std::nullopt;
        if (awake && awake->mode == Awake::Mode::Backpack) {
            DaemonClient::requestBlocking(environment, DaemonClient::Method::Post, QStringLiteral("/v1/mac/awake"),
                QJsonObject{{QStringLiteral("mode"), QStringLiteral("working")}}, 10);
        }
    }

    QFile file(awakeFile(environment));
    const QByteArray contents = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    file.close();
    std::optional<QString> pmset;
    if (isRealPath(environment))
        pmset = QStringLiteral("/usr/bin/pmset");
    else if (const QString standIn = environment.variable(QStringLiteral("TIDEWATCH_PMSET")); !standIn.isEmpty())
        pmset = standIn;

    if (Outcome failure = runPrivileged(
            environment, removeScript(path(environment), Saved::fromAwakeFile(contents), pmset), removePrompt(), inApp))
        return failure;
    if (isInstalled(environment))
        return Failure::failed(QStringLiteral("The permission is still there. Try again."));

    // Without the service, its record would come back stale: it is corrected here.
    if (!serviceAnswers) {
        if (const std::optional<QByteArray> edited = awakeFileWithoutBackpack(contents))
            writeFileAtomically(awakeFile(environment), *edited, 0600);
    }
    return std::nullopt;
}

} // namespace BackpackSetup
