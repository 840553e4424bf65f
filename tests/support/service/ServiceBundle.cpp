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

} // namespace

QString makeServiceBundle(const ScratchFolder& scratch, const QString& relative)
{
    const QString bundle = scratch.file(relative + QStringLiteral("/"));
    QDir().mkpath(bundle);
    // The sources and the packages the service runs on (the SDK is fetched by the installer).
    QStringList folders{QStringLiteral("src"), QStringLiteral("bin")};
    QFile manifest(kSource + QStringLiteral("/package.json"));
    manifest.open(QIODevice::ReadOnly);
    const QJsonObject dependencies = QJsonDocument::fromJson(manifest.readAll())["dependencies"].toObject();
    for (const QString& package : dependencies.keys()) {
        if (package != ClaudeSDK::kPackage)
            folders << QStringLiteral("node_modules/") + package;
    }
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
