#pragma once

#include "base/Outcome.h"
#include "entry/Environment.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QUrl>

#include <functional>

/// Gets a verified Node.js LTS for the service into the app's own folder:
/// the newest fitting release from the distribution site, its archive checked
/// against the site's SHA-256 list before anything is unpacked, unpacked beside
/// its target and moved into place in one step, and proven to start.
namespace NodeInstaller {

struct Release {
    /// With its leading "v"; also the name of its folder.
    QString version;
    QString ltsName;
    QString file;
    QUrl url;

    bool operator==(const Release&) const = default;
};

/// Where releases come from unless the preferences name another site
/// (key "nodeDistributionSite"), which is how tests use a local one.
QUrl configuredSite(const Environment& environment);

/// The first release of the index (newest first) that is LTS, has this
/// machine's archive and meets the service's floor.
Outcome<Release> pickRelease(const QByteArray& index, const QUrl& site);
/// The digest the checksum list gives for file, lower case.
Outcome<QString> checksumFor(const QByteArray& list, const QString& file);

/// Reports at most ten times a second, and never swallows the last one.
class ProgressThrottle
{
public:
    bool shouldReport(const QDateTime& now, qint64 written, qint64 expected);

private:
    QDateTime m_last;
};
double fraction(qint64 written, qint64 expected);

/// Lower-case hex SHA-256 of a file, read in 1 MiB slices; empty when it can't be read.
QString sha256(const QString& path);

Outcome<Release> latestLTS(const QUrl& site);
Outcome<QString> expectedSHA256(const QUrl& site, const Release& release);

/// Where the steps report: a fraction for a progress bar, and a line for the console.
struct Observer {
    std::function<void(double)> progress;
    std::function<void(const QString&)> line;
};

/// Installs into nodeFolder and gives the new binary's path. Blocks: run it off the main thread.
/// tar: the unpacking program; empty takes the one of OutsideTools.
Outcome<QString> install(
    const QString& nodeFolder, const QUrl& site, const Observer& observer, const QString& tar = QString());

} // namespace NodeInstaller
