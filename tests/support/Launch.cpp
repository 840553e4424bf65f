#include "Launch.h"

#include <QProcess>

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

LaunchResult launch(const QStringList& arguments, const QProcessEnvironment& environment, int limitMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(TIDEWATCH_BINARY), arguments);
    if (!process.waitForFinished(limitMs)) {
        process.kill();
        process.waitForFinished();
        return {-1, QString::fromUtf8(process.readAll())};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAll())};
}
