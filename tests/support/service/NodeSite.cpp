#include "NodeSite.h"

#include "ServiceProcess.h"

#include "platform/Platform.h"
#include "setup/NodeInstaller.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>

namespace {

QString run(const QString& program, const QStringList& arguments, const QString& directory = {})
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (!directory.isEmpty())
        process.setWorkingDirectory(directory);
    process.start(program, arguments);
    if (!process.waitForFinished(300000) || process.exitCode() != 0)
        return QStringLiteral("%1 failed: %2").arg(program, QString::fromUtf8(process.readAll()));
    return {};
}

// The npm package the machine's own npm runs from; it carries its
// dependencies inside, as the one in a Node.js release does.
QString npmPackage()
{
    const QString npm = QStandardPaths::findExecutable(QStringLiteral("npm"));
    if (npm.isEmpty())
        return {};
    const QString cli = QFileInfo(npm).canonicalFilePath();
    const QString root = QFileInfo(cli).dir().absoluteFilePath(QStringLiteral(".."));
    QFile manifest(root + QStringLiteral("/package.json"));
    if (!manifest.open(QIODevice::ReadOnly))
        return {};
    const QJsonObject object = QJsonDocument::fromJson(manifest.readAll()).object();
    return object.value(QLatin1StringView("name")).toString() == QLatin1StringView("npm") ? QDir::cleanPath(root)
                                                                                          : QString();
}

} // namespace

NodeSite::NodeSite(const ScratchFolder& scratch)
    : m_root(scratch.file(QStringLiteral("node-site")))
{
    QProcess version;
    version.start(ServiceProcess::nodeProgram(), {QStringLiteral("--version")});
    version.waitForFinished(15000);
    m_version = QString::fromUtf8(version.readAllStandardOutput()).trimmed();
    const platform::NodeArchive archive = platform::nodeArchive();
    const QString folder = QStringLiteral("node-") + m_version + QLatin1Char('-') + archive.system;
    m_file = folder + QStringLiteral(".tar.gz");

    const QString npm = npmPackage();
    if (npm.isEmpty()) {
        m_problem = QStringLiteral("no npm package found beside the machine's npm");
        return;
    }
    // Made once per build: packing 100 MB takes a few seconds.
    const QString cache
        = QFileInfo(QStringLiteral(TIDEWATCH_BINARY)).dir().absoluteFilePath(QStringLiteral("../test-cache/node-site"));
    const QString cached = cache + QLatin1Char('/') + m_file;
    if (!QFileInfo::exists(cached)) {
        const QString pack = cache + QStringLiteral("/pack-") + QString::number(QCoreApplication::applicationPid());
        QDir(pack).removeRecursively();
        const QString top = pack + QLatin1Char('/') + folder;
        QDir().mkpath(top + QStringLiteral("/bin"));
        QDir().mkpath(top + QStringLiteral("/lib/node_modules"));
        QFile::copy(ServiceProcess::nodeProgram(), top + QStringLiteral("/bin/node"));
        QFile(top + QStringLiteral("/bin/node"))
            .setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
                | QFile::ReadOther | QFile::ExeOther);
        m_problem = run(
            QStringLiteral("/bin/cp"), {QStringLiteral("-R"), npm, top + QStringLiteral("/lib/node_modules/npm")});
        if (m_problem.isEmpty()) {
            QFile::link(QStringLiteral("../lib/node_modules/npm/bin/npm-cli.js"), top + QStringLiteral("/bin/npm"));
            // Suites may pack at the same time; each writes its own file and the rename is atomic.
            const QString partial
                = cached + QStringLiteral(".partial-") + QString::number(QCoreApplication::applicationPid());
            m_problem = run(QStringLiteral("/usr/bin/tar"),
                {QStringLiteral("--use-compress-program=gzip -1"), QStringLiteral("-cf"), partial, QStringLiteral("-C"),
                    pack, folder});
            if (m_problem.isEmpty())
                if (!QFile::rename(partial, cached))
                    QFile::remove(partial); // another suite was first
        }
        QDir(pack).removeRecursively();
        if (!m_problem.isEmpty())
            return;
    }

    scratch.write(QStringLiteral("node-site/dist/index.json"),
        QStringLiteral(R"([{"version":"v99.0.0","lts":false,"files":["%2"]},)"
                       R"({"version":"%1","lts":"Jod","files":["headers","%2","osx-arm64-tar"]}])")
            .arg(m_version, archive.indexKey)
            .toUtf8());
    scratch.write(QStringLiteral("node-site/dist/") + m_version + QStringLiteral("/SHASUMS256.txt"),
        (QStringLiteral("0000000000000000000000000000000000000000000000000000000000000000  node-") + m_version
            + QStringLiteral(".pkg\n") + NodeInstaller::sha256(cached) + QStringLiteral("  ") + m_file
            + QLatin1Char('\n'))
            .toUtf8());
    QFile::link(cached, releaseFolder() + QLatin1Char('/') + m_file);
    m_server = std::make_unique<StaticSite>(m_root);
}

QString NodeSite::releaseFolder() const
{
    return m_root + QStringLiteral("/dist/") + m_version;
}

QString NodeSite::archivePath() const
{
    return QStringLiteral("/dist/") + m_version + QLatin1Char('/') + m_file;
}

void NodeSite::answer404ForArchive()
{
    m_server->answer(archivePath(), 404);
}

void NodeSite::tamperWithArchive()
{
    const QString path = releaseFolder() + QLatin1Char('/') + m_file;
    QFile::remove(path);
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write("not the archive the checksum list names");
}
