#include "FakeManager.h"

#include "ServiceProcess.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <csignal>

namespace {

QString shellWord(QString word)
{
    return QLatin1Char('\'') + word.replace(QLatin1Char('\''), QStringLiteral("'\\''")) + QLatin1Char('\'');
}

} // namespace

FakeManager::FakeManager(const ScratchFolder& scratch)
    : m_scratch(scratch)
    , m_folder(scratch.file(QStringLiteral("service-manager")))
{
    QDir().mkpath(stateFolder());
    const QString script = QStringLiteral(TIDEWATCH_SOURCE_DIR "/tests/fakes/service-manager.mjs");
    for (const QString& tool : {QStringLiteral("systemctl"), QStringLiteral("launchctl")}) {
        scratch.write(QStringLiteral("service-manager/bin/") + tool,
            QStringLiteral("#!/bin/sh\nFAKE_MANAGER_STATE=%1 exec %2 %3 %4 \"$@\"\n")
                .arg(shellWord(stateFolder()), shellWord(ServiceProcess::nodeProgram()), shellWord(script), tool)
                .toUtf8(),
            0700);
    }
}

FakeManager::~FakeManager()
{
    // What a test started must not outlive it: each job's supervisor ends its program.
    const QDir run(stateFolder() + QStringLiteral("/run"));
    QList<qint64> supervisors;
    for (const QString& name : run.entryList({QStringLiteral("*.json")}, QDir::Files)) {
        QFile file(run.filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const qint64 pid
            = QJsonDocument::fromJson(file.readAll()).object().value(QLatin1StringView("supervisor")).toInteger();
        if (pid > 0 && ::kill(pid_t(pid), SIGTERM) == 0)
            supervisors << pid;
    }
    for (int wait = 0; wait < 200 && !supervisors.isEmpty(); ++wait) {
        supervisors.removeIf([](qint64 pid) { return ::kill(pid_t(pid), 0) != 0; });
        QThread::msleep(50);
    }
}

OutsideTools FakeManager::tools(platform::ServiceManagerKind kind) const
{
    OutsideTools tools;
    tools.system = platform::systemTools();
    tools.system.manager = kind;
    tools.system.systemctl = systemctl();
    tools.system.launchctl = launchctl();
    tools.system.xattr.clear();
    tools.nodeFolders = {};
    return tools;
}

void FakeManager::dropBus() const
{
    m_scratch.write(QStringLiteral("service-manager/state/no-bus"), {});
}

void FakeManager::refuse(int count) const
{
    m_scratch.write(QStringLiteral("service-manager/state/refusals"), QByteArray::number(count));
}

QStringList FakeManager::calls() const
{
    QFile file(stateFolder() + QStringLiteral("/calls.log"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}
