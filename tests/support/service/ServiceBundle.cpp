#include "ServiceBundle.h"

#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

namespace {

const QString kSource = QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon");

bool copyFolder(const QString& from, const QString& to)
{
    return !ServiceInstaller::copyServiceFolder(from, to).has_value();
}

// The installed folders of the packages the service runs on, their own
// dependencies included, as the lock file resolves them; the SDK is left out.
QStringList runtimePackages()
{
    QFile lock(kSource + QStringLiteral("/package-lock.json"));
    lock.open(QIODevice::ReadOnly);
    const QJsonObject packages = QJsonDocument::fromJson(lock.readAll())["packages"].toObject();
    const auto dependencies
        = [&packages](const QString& folder) { return packages[folder]["dependencies"].toObject().keys(); };
    QStringList wanted;
    QStringList queue;
    for (const QString& name : dependencies(QString())) {
        if (name != ClaudeSDK::kPackage)
            queue << QStringLiteral("node_modules/") + name;
    }
    while (!queue.isEmpty()) {
        const QString folder = queue.takeFirst();
        if (wanted.contains(folder) || !packages.contains(folder))
            continue;
        wanted << folder;
        for (const QString& name : dependencies(folder)) {
            // As Node.js looks: beside the package first, then up the tree.
            QString at = folder;
            for (;;) {
                const QString candidate
                    = (at.isEmpty() ? QString() : at + QLatin1Char('/')) + QStringLiteral("node_modules/") + name;
                if (packages.contains(candidate) || at.isEmpty()) {
                    queue << candidate;
                    break;
                }
                const qsizetype up = at.lastIndexOf(QStringLiteral("/node_modules/"));
                at = up < 0 ? QString() : at.left(up);
            }
        }
    }
    return wanted;
}

} // namespace

QString makeServiceBundle(const ScratchFolder& scratch, const QString& relative)
{
    const QString bundle = scratch.file(relative + QStringLiteral("/"));
    QDir().mkpath(bundle);
    // The sources and the packages the service runs on (the SDK is fetched by the installer).
    QStringList folders{QStringLiteral("src"), QStringLiteral("bin")};
    for (const QString& package : runtimePackages())
        folders << package;
    for (const QString& folder : folders)
        copyFolder(kSource + QLatin1Char('/') + folder, bundle + QLatin1Char('/') + folder);
    for (const QString& file : {QStringLiteral("package.json"), QStringLiteral("package-lock.json"),
             QStringLiteral("sdk-version"), QStringLiteral(".tidewatch-build")})
        QFile::copy(kSource + QLatin1Char('/') + file, bundle + QLatin1Char('/') + file);
    return QDir::cleanPath(bundle);
}

QString installProgramCopy(const ScratchFolder& scratch, const QString& relative)
{
    const QString program = scratch.file(relative + QStringLiteral("/bin/Tidewatch"));
    QFile::copy(QStringLiteral(TIDEWATCH_BINARY), program);
    QFile(program).setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // The terminal relay ships beside the program.
    const QString relay = QFileInfo(program).dir().filePath(QStringLiteral("tidewatch-term"));
    QFile::copy(QFileInfo(QStringLiteral(TIDEWATCH_BINARY)).dir().filePath(QStringLiteral("tidewatch-term")), relay);
    QFile(relay).setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    makeServiceBundle(scratch, relative + QStringLiteral("/share/tidewatch/daemon"));
    return program;
}

bool runWhileServing(const std::function<void()>& work, int limitMs)
{
    QThread* thread = QThread::create(work);
    QEventLoop loop;
    QObject::connect(thread, &QThread::finished, &loop, &QEventLoop::quit);
    QElapsedTimer clock;
    clock.start();
    thread->start();
    // Stopping early would leave the work waiting on a site nobody serves.
    loop.exec();
    thread->wait();
    delete thread;
    return clock.elapsed() <= limitMs;
}
