#include "app/StreamSelfTest.h"

#include "base/StreamingProcess.h"

#include <QElapsedTimer>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace {

void print(const QString& line)
{
    std::fputs(line.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

int runStreamSelfTest()
{
    // LF, a progress CR, CR LF, colour, a line of blanks, a title alone on its
    // line, a last line without newline, and a background sleep that holds
    // the pipe for 6 s after the shell's end.
    const QString script
        = QStringLiteral("echo one; printf 'two\\rthree\\r\\n'; printf '\\033[1;32mfour\\033[0m\\n'; (sleep 6) & "
                         "printf ' \\t \\n\\033]0;title\\007\\n'; printf 'five-no-newline'; exit 3");
    const QStringList expectedLines{QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("three"),
        QStringLiteral("four"), QStringLiteral("five-no-newline")};
    constexpr int expectedCode = 3;

    struct Box {
        QStringList lines;
        int code = 1;
        bool ended = false;
        std::mutex lock;
        std::condition_variable done;
    } box;

    QElapsedTimer clock;
    clock.start();
    bool ended = false;
    {
        StreamingProcess process;
        process.start(
            QStringLiteral("/bin/bash"), {QStringLiteral("-c"), script}, std::nullopt,
            [&box](const QString& line) {
                std::lock_guard guard(box.lock);
                box.lines << line;
                print(QStringLiteral("line: ") + line);
            },
            [&box](int status) {
                std::lock_guard guard(box.lock);
                box.code = status;
                box.ended = true;
                box.done.notify_all();
            });
        std::unique_lock lock(box.lock);
        ended = box.done.wait_for(lock, std::chrono::seconds(15), [&box] { return box.ended; });
    }
    const double seconds = double(clock.elapsed()) / 1000.0;

    std::lock_guard guard(box.lock);
    // At least the 2 s grace, and well short of the background sleep's 6.
    const bool timely = seconds >= 1.9 && seconds < 5.5;
    const bool ok = ended && box.lines == expectedLines && box.code == expectedCode && timely;
    const QString code = ended ? QString::number(box.code) : QStringLiteral("none");
    if (ok) {
        print(QStringLiteral("OK: %1 lines as expected, exit %2, %3 s (the background child was let go after 2 s)")
                  .arg(box.lines.size())
                  .arg(code)
                  .arg(seconds, 0, 'f', 1));
    } else {
        print(QStringLiteral("FAILED: lines [%1] (want [%2]), exit %3 (want %4), %5 s (want 2 to 5.5)")
                  .arg(box.lines.join(QLatin1Char('|')), expectedLines.join(QLatin1Char('|')), code)
                  .arg(expectedCode)
                  .arg(seconds, 0, 'f', 1));
    }
    return ok ? 0 : 1;
}
