#include "entry/StreamSelfTest.h"

#include "entry/StreamingProcess.h"

#include <QElapsedTimer>

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
    const QString script = QStringLiteral(
        "echo one; printf 'two\\rthree\\r\\n'; printf '\\033[1;32mfour\\033[0m\\n'; (sleep 6) & "
        "printf '   \\n\\033]0;title\\007\\n'; printf 'five-no-newline'; exit 3");
    const QStringList expected{QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("three"),
                               QStringLiteral("four"), QStringLiteral("five-no-newline")};

    struct Box {
        std::mutex lock;
        std::condition_variable done;
        QStringList lines;
        std::optional<int> code;
    } box;

    QElapsedTimer clock;
    clock.start();
    {
        StreamingProcess process;
        process.start(
            QStringLiteral("/bin/bash"), {QStringLiteral("-c"), script}, std::nullopt,
            [&box](const QString& line) {
                std::lock_guard guard(box.lock);
                box.lines << line;
            },
            [&box](int status) {
                std::lock_guard guard(box.lock);
                box.code = status;
                box.done.notify_all();
            });
        std::unique_lock lock(box.lock);
        box.done.wait_for(lock, std::chrono::seconds(15), [&box] { return box.code.has_value(); });
    }

    std::lock_guard guard(box.lock);
    for (const QString& line : box.lines)
        print(QStringLiteral("line: ") + line);
    const double seconds = clock.elapsed() / 1000.0;
    const bool ok = box.lines == expected && box.code == 3 && seconds >= 2 && seconds < 5.5;
    print(QStringLiteral("%1: %2 lines, exit %3, %4 s (the lingering background child was let go after 2 s)")
              .arg(ok ? QStringLiteral("OK") : QStringLiteral("FAILED"))
              .arg(box.lines.size())
              .arg(box.code ? QString::number(*box.code) : QStringLiteral("none"))
              .arg(seconds, 0, 'f', 1));
    return ok ? 0 : 1;
}
