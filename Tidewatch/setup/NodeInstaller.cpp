#include "setup/NodeInstaller.h"

#include "base/Shell.h"
#include "entry/Preferences.h"
#include "platform/Platform.h"
#include "setup/Fetch.h"
#include "setup/NodeVersion.h"
#include "setup/OutsideTools.h"
#include "text/Machine.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <sys/stat.h>

namespace NodeInstaller {

namespace {

constexpr qint64 kSlice = qint64{1024} * 1024;
constexpr double kListLimit = 30;
constexpr double kDownloadLimit = 1800;
constexpr double kUnpackLimit = 300;
constexpr double kStartLimit = 15;

QUrl distFile(const QUrl& site, const QString& relative)
{
    QString base = site.toString();
    if (!base.endsWith(QLatin1Char('/')))
        base += QLatin1Char('/');
    return {base + QStringLiteral("dist/") + relative};
}

QString uniqueName()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

} // namespace

QUrl configuredSite(const Environment& environment)
{
    const QString configured = Preferences(environment).text(QStringLiteral("nodeDistributionSite"));
    return {configured.isEmpty() ? QStringLiteral("https://nodejs.org") : configured};
}

Outcome<Release> pickRelease(const QByteArray& index, const QUrl& site)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(index, &error);
    if (error.error != QJsonParseError::NoError)
        return Outcome<Release>::failure(error.errorString());
    auto unexpected = Outcome<Release>::failure(QStringLiteral("the Node.js site sent an unexpected release list."));
    if (!document.isArray())
        return unexpected;
    const platform::NodeArchive archive = platform::nodeArchive();
    for (const QJsonValue element : document.array()) {
        if (!element.isObject())
            return unexpected;
        const QJsonObject entry = element.toObject();
        const QJsonValue version = entry.value(QLatin1StringView("version"));
        const QJsonValue lts = entry.value(QLatin1StringView("lts"));
        const QJsonValue files = entry.value(QLatin1StringView("files"));
        // A release that isn't LTS has false there: the test is on the type.
        if (!version.isString() || !lts.isString() || !files.isArray())
            continue;
        if (!files.toArray().contains(archive.indexKey))
            continue;
        const std::optional<NodeVersion> parsed = NodeVersion::parse(version.toString());
        if (!parsed || !parsed->meetsFloor())
            continue;
        Release release;
        release.version = version.toString();
        release.ltsName = lts.toString();
        release.file
            = QStringLiteral("node-") + release.version + QLatin1Char('-') + archive.system + QStringLiteral(".tar.gz");
        release.url = distFile(site, release.version + QLatin1Char('/') + release.file);
        return release;
    }
    return Outcome<Release>::failure(
        QStringLiteral("Couldn’t find a Node.js LTS release for %1.").arg(machine::thisMachine()));
}

Outcome<QString> checksumFor(const QByteArray& list, const QString& file)
{
    const QStringList lines = QString::fromUtf8(list).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        const QStringList fields = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (fields.size() == 2 && fields.at(1).trimmed() == file)
            return fields.at(0).toLower();
    }
    return Outcome<QString>::failure(
        QStringLiteral("the Node.js site’s checksum list has no entry for ") + file + QLatin1Char('.'));
}

bool ProgressThrottle::shouldReport(const QDateTime& now, qint64 written, qint64 expected)
{
    if (!m_last.isValid() || m_last.msecsTo(now) > 100 || written == expected) {
        m_last = now;
        return true;
    }
    return false;
}

double fraction(qint64 written, qint64 expected)
{
    if (expected < 1)
        return 0.0;
    return std::clamp(double(written) / double(expected), 0.0, 1.0);
}

QString sha256(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    while (!file.atEnd()) {
        const QByteArray slice = file.read(kSlice);
        if (slice.isEmpty() && file.error() != QFileDevice::NoError)
            return {};
        hash.addData(slice);
    }
    return QString::fromLatin1(hash.result().toHex());
}

Outcome<Release> latestLTS(const QUrl& site)
{
    const Fetch::Reply reply = Fetch::get(distFile(site, QStringLiteral("index.json")), kListLimit);
    if (!reply.error.isEmpty())
        return Outcome<Release>::failure(reply.error);
    if (reply.status != 200)
        return Outcome<Release>::failure(
            QStringLiteral("the Node.js site didn’t answer. Check your internet connection and try again."));
    return pickRelease(reply.body, site);
}

Outcome<QString> expectedSHA256(const QUrl& site, const Release& release)
{
    const Fetch::Reply reply
        = Fetch::get(distFile(site, release.version + QStringLiteral("/SHASUMS256.txt")), kListLimit);
    if (reply.status != 200)
        return Outcome<QString>::failure(QStringLiteral("Couldn’t get Node.js checksums from the Node.js site."));
    return checksumFor(reply.body, release.file);
}

Outcome<QString> install(const QString& nodeFolder, const QUrl& site, const Observer& observer, const QString& tar)
{
    const auto say = [&observer](const QString& line) {
        if (observer.line)
            observer.line(line);
    };
    say(QStringLiteral("resolving the latest LTS…"));
    const Outcome<Release> found = latestLTS(site);
    if (!found.ok())
        return Outcome<QString>::failure(found.sentence());
    const Release& release = found.value();
    Outcome<QString> expected = expectedSHA256(site, release);
    if (!expected.ok())
        return expected;

    if (!QDir().mkpath(nodeFolder) || ::chmod(QFile::encodeName(nodeFolder).constData(), 0700) != 0)
        return Outcome<QString>::failure(QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(nodeFolder));

    const QString archive
        = QDir::tempPath() + QStringLiteral("/tidewatch-") + uniqueName() + QStringLiteral(".download");
    const QString staging = nodeFolder + QStringLiteral("/.staging-") + uniqueName();
    // Every way out of an attempt leaves neither of them behind.
    const auto cleanUp = [&] {
        QFile::remove(archive);
        QDir(staging).removeRecursively();
    };
    const auto fail = [&](const QString& sentence) {
        cleanUp();
        return Outcome<QString>::failure(sentence);
    };

    ProgressThrottle throttle;
    const Fetch::Reply download
        = Fetch::download(release.url, archive, kDownloadLimit, [&](qint64 written, qint64 total) {
              if (observer.progress && throttle.shouldReport(QDateTime::currentDateTimeUtc(), written, total))
                  observer.progress(fraction(written, total));
          });
    if (!download.error.isEmpty())
        return fail(download.error);
    if (download.status != 200)
        return fail(QStringLiteral("the Node.js site answered %1 for the download.").arg(download.status));

    say(QStringLiteral("verifying SHA-256 against SHASUMS256.txt…"));
    if (sha256(archive) != expected.value()) {
        return fail(QStringLiteral("The download didn’t match the Node.js site’s checksum, so Tidewatch threw it away. "
                                   "Try again; if it keeps happening, your network may be altering downloads."));
    }

    say(QStringLiteral("unpacking…"));
    if (!QDir().mkpath(staging))
        return fail(QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(staging));
    const ShellResult unpacked = Shell::run(tar.isEmpty() ? OutsideTools::current().system.tar : tar,
        {QStringLiteral("-xzf"), archive, QStringLiteral("-C"), staging}, std::nullopt, QString(), kUnpackLimit);
    if (unpacked.timedOut || unpacked.status != 0)
        return fail(QStringLiteral("Couldn’t unpack Node.js: ") + unpacked.combined());

    QString folderName = release.file;
    folderName.chop(int(QStringLiteral(".tar.gz").size()));
    const QString target = nodeFolder + QLatin1Char('/') + release.version;
    if (QFileInfo::exists(target) && !QDir(target).removeRecursively())
        return fail(QStringLiteral("Tidewatch couldn’t replace %1.").arg(target));
    if (!QDir().rename(staging + QLatin1Char('/') + folderName, target))
        return fail(QStringLiteral("Tidewatch couldn’t move Node.js into %1.").arg(target));

    const QString binary = target + QStringLiteral("/bin/node");
    const ShellResult started = Shell::run(binary, {QStringLiteral("--version")}, std::nullopt, QString(), kStartLimit);
    if (started.timedOut || started.status != 0 || started.out != release.version)
        return fail(QStringLiteral("Node.js was unpacked but doesn’t start: ") + started.combined());
    cleanUp();
    say(QStringLiteral("done: ") + release.version);
    return binary;
}

} // namespace NodeInstaller
