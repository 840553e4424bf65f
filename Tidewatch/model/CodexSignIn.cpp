#include "model/CodexSignIn.h"

#include "base/AtomicFile.h"
#include "base/Shell.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace CodexSignIn {

namespace {

QString say(const QString& line)
{
    return u"printf '%s\\n' "_s + shellQuoted(line) + u'\n';
}

} // namespace

std::optional<QString> refusedPath(const QString& path)
{
    if (path.isEmpty() || path.size() > kMaxPath || !QDir::isAbsolutePath(path))
        return u"Codex’s path isn’t one Tidewatch can put in a terminal."_s;
    for (const QChar c : path) {
        if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format)
            return u"Codex’s path isn’t one Tidewatch can put in a terminal."_s;
    }
    const QFileInfo file(path);
    if (!file.isFile() || !file.isExecutable())
        return u"There’s no Codex to run at %1."_s.arg(path);
    return std::nullopt;
}

QString shellQuoted(const QString& word)
{
    QString quoted = word;
    quoted.replace(u'\'', u"'\\''"_s);
    return u'\'' + quoted + u'\'';
}

QByteArray script(const std::optional<QString>& codexPath)
{
    QString text = u"#!/bin/sh\n"_s;
    if (codexPath) {
        // Codex runs on the Node.js installed beside it, which a new window's PATH may not know.
        text += u"PATH="_s + shellQuoted(QFileInfo(*codexPath).absolutePath()) + u":\"$PATH\"\nexport PATH\n"_s;
    }
    text += say(u"Tidewatch: sign in to Codex below. Your browser opens for it."_s);
    text += say(u"Approve Codex there, then come back to Tidewatch: it shows Codex signed in."_s);
    text += u"echo\n"_s;
    text += (codexPath ? shellQuoted(*codexPath) : u"codex"_s) + u" login\n"_s;
    text += u"if [ $? -eq 0 ]; then\n    "_s + say(u"Codex is signed in. You can close this window."_s);
    text += u"else\n    "_s
        + say(u"Codex didn’t finish signing in. Close this window and choose Sign in in Tidewatch to try again."_s);
    text += u"fi\n"_s;
    text += u"read -r _ 2>/dev/null\n"_s;
    return text.toUtf8();
}

QString scriptFolder(const Environment& environment)
{
    return environment.supportFolder() + u"/terminal"_s;
}

QString scriptPath(const Environment& environment, platform::TerminalKind kind)
{
    return scriptFolder(environment)
        + (kind == platform::TerminalKind::CommandFile ? u"/codex-login.command"_s : u"/codex-login.sh"_s);
}

QStringList terminalArguments(platform::TerminalKind kind, const QString& scriptPath)
{
    if (kind == platform::TerminalKind::CommandFile)
        return {scriptPath};
    return {u"-e"_s, scriptPath};
}

std::optional<QString> open(
    const Environment& environment, const platform::SystemTools& tools, const std::optional<QString>& codexPath)
{
    if (codexPath) {
        if (std::optional<QString> refused = refusedPath(*codexPath))
            return refused;
    }
    if (std::optional<QString> failed = environment.ensureSupportFolder())
        return failed;
    const QString folder = scriptFolder(environment);
    if (!QDir().mkpath(folder)
        || !QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner))
        return u"Couldn’t make the folder %1 for Codex’s sign-in."_s.arg(folder);
    const QString path = scriptPath(environment, tools.terminalKind);
    if (const std::optional<QString> failed = writeFileAtomically(path, script(codexPath), 0700))
        return u"Couldn’t write Codex’s sign-in script: "_s + *failed;
    if (const std::optional<QString> failed
        = Shell::launch(tools.terminal, terminalArguments(tools.terminalKind, path)))
        return u"Couldn’t open a terminal window (%1): %2%3"_s.arg(tools.terminal, *failed,
            tools.terminalKind == platform::TerminalKind::Emulator ? u". Set TERMINAL to your terminal program."_s
                                                                   : u"."_s);
    return std::nullopt;
}

} // namespace CodexSignIn
