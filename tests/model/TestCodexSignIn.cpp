#include "model/CodexSignIn.h"

#include "base/Shell.h"

#include "GoldenTest.h"
#include "ScratchFolder.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kNone = u"—"_s;
const QString kFakes = QStringLiteral(TIDEWATCH_SOURCE_DIR) + u"/tests/fakes"_s;

const ScratchFolder& scratch()
{
    static const ScratchFolder folder;
    return folder;
}

Environment copy()
{
    return Environment({{u"TIDEWATCH_SUPPORT"_s, scratch().file(u"support"_s)}}, scratch().path());
}

QString read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

QString placesOut(QString text)
{
    return text.replace(scratch().path(), u"<scratch>"_s).replace(QStringLiteral(TIDEWATCH_TEST_DATA), u"<data>"_s);
}

/// The fake codex in a folder of the given name, where its calls are recorded.
QString fakeCodexIn(const QString& folder)
{
    const QString place = scratch().file(folder);
    QDir().mkpath(place);
    QFile::remove(place + u"/codex"_s);
    QFile::copy(kFakes + u"/codex.sh"_s, place + u"/codex"_s);
    QFile::setPermissions(place + u"/codex"_s, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return place + u"/codex"_s;
}

QString refused(const QString& input)
{
    QString path = input;
    if (input == u"fake"_s)
        path = kFakes + u"/codex.sh"_s;
    else if (input == u"newline"_s)
        path = kFakes + u"/codex.sh\n"_s;
    else if (input == u"long"_s)
        path = u'/' + QString(CodexSignIn::kMaxPath, u'a');
    path.replace(u"<data>"_s, QStringLiteral(TIDEWATCH_TEST_DATA));
    return placesOut(CodexSignIn::refusedPath(path).value_or(kNone));
}

QString quoted(const QString& word)
{
    const QString inQuotes = CodexSignIn::shellQuoted(word);
    const ShellResult shell = Shell::run(u"/bin/sh"_s, {u"-c"_s, u"printf '%s' "_s + inQuotes});
    return inQuotes + u" | "_s + shell.out;
}

/// Runs the script as a window would, and says what it showed and what codex was asked.
QString script(const QStringList& in)
{
    const QString record = scratch().file(u"codex-calls"_s);
    QFile::remove(record);
    Shell::Environment environment = Shell::environment();
    environment.insert(u"FAKE_CODEX_RECORD"_s, record);
    environment.insert(u"FAKE_CODEX_STATUS"_s, in.at(1));
    std::optional<QString> path;
    if (in.at(0) == u"PATH"_s)
        environment.insert(u"PATH"_s, QFileInfo(fakeCodexIn(u"on-path"_s)).absolutePath() + u":/usr/bin:/bin"_s);
    else
        path = fakeCodexIn(in.at(0));
    const QString file = scratch().write(u"script.sh"_s, CodexSignIn::script(path), 0700);
    const ShellResult shown = Shell::run(u"/bin/sh"_s, {file}, environment);
    return shown.out.split(u'\n', Qt::SkipEmptyParts).join(u" / "_s) + u" | "_s + read(record);
}

QString terminal(const QString& kind)
{
    const platform::TerminalKind which
        = kind == u"command file"_s ? platform::TerminalKind::CommandFile : platform::TerminalKind::Emulator;
    return placesOut(CodexSignIn::terminalArguments(which, CodexSignIn::scriptPath(copy(), which)).join(u" / "_s));
}

QString mode(const QString& path)
{
    return QString::number(fileMode(path), 8);
}

QString open(const QString& input)
{
    const QString record = scratch().file(u"window"_s);
    const QString calls = scratch().file(u"codex-calls"_s);
    for (const QString& old : {record + u".args"_s, record + u".done"_s, calls})
        QFile::remove(old);
    qputenv("FAKE_TERMINAL_RECORD", record.toUtf8());
    qputenv("FAKE_CODEX_RECORD", calls.toUtf8());
    platform::SystemTools tools;
    tools.terminalKind = platform::TerminalKind::Emulator;
    tools.terminal = input == u"fake"_s ? kFakes + u"/terminal.sh"_s : input;
    const Environment environment = copy();
    if (const std::optional<QString> failed = CodexSignIn::open(environment, tools, fakeCodexIn(u"bin"_s)))
        return placesOut(*failed);
    // The window runs on by itself; its record is complete once .done is there.
    if (!QTest::qWaitFor([&record] { return QFile::exists(record + u".done"_s); }, 20000))
        return u"the terminal never ran the script"_s;
    return placesOut(read(record + u".args"_s).split(u'\n').join(u" / "_s)) + u" | "_s
        + mode(CodexSignIn::scriptPath(environment, tools.terminalKind)) + u", "_s
        + mode(CodexSignIn::scriptFolder(environment)) + u" | "_s + read(calls);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"refused"_s)
        return refused(in.join(u';'));
    if (section == u"quoted"_s)
        return quoted(in.join(u';'));
    if (section == u"script"_s)
        return script(in);
    if (section == u"terminal"_s)
        return terminal(in.at(0));
    if (section == u"open"_s)
        return open(in.at(0));
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"codex-sign-in.txt"_s}, render);
}
