#include "Launch.h"

#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTimer>

QProcessEnvironment launchEnvironment(const ScratchFolder& scratch, const QHash<QString, QString>& extra)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& key : environment.keys()) {
        if (key.startsWith(QLatin1StringView("TIDEWATCH_")))
            environment.remove(key);
    }
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), scratch.file(QStringLiteral("runtime/")));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), scratch.file(QStringLiteral("config/")));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), scratch.file(QStringLiteral("data/")));
    environment.insert(QStringLiteral("XDG_STATE_HOME"), scratch.file(QStringLiteral("state/")));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    for (auto it = extra.begin(); it != extra.end(); ++it)
        environment.insert(it.key(), it.value());
    return environment;
}

LaunchResult launch(
    const QStringList& arguments, const QProcessEnvironment& environment, int limitMs, const QString& program)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    // The event loop goes on meanwhile, so loopback sites in the test still answer.
    QEventLoop loop;
    QObject::connect(&process, &QProcess::finished, &loop, &QEventLoop::quit);
    QObject::connect(&process, &QProcess::errorOccurred, &loop, &QEventLoop::quit);
    QTimer::singleShot(limitMs, &loop, &QEventLoop::quit);
    process.start(program.isEmpty() ? QStringLiteral(TIDEWATCH_BINARY) : program, arguments);
    loop.exec();
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        return {-1, QString::fromUtf8(process.readAll())};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAll())};
}

QStringList textLines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}
