#include "setup/NodeInstaller.h"

#include "ScratchFolder.h"
#include "StaticSite.h"

#include "platform/Platform.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QTest>

using namespace NodeInstaller;

namespace {

const QString kVersion = QStringLiteral("v22.20.0");

QByteArray indexOf(const QString& entries)
{
    return QStringLiteral("[%1]").arg(entries).toUtf8();
}

QString entry(const QString& version, const QString& lts, const QString& key)
{
    return QStringLiteral(R"({"version":"%1","lts":%2,"files":["headers","%3"]})").arg(version, lts, key);
}

/// A distribution site in a scratch folder: an index, a checksum list and a
/// release archive whose node is a small script that reports a version.
class Site
{
public:
    explicit Site(const QString& reported = kVersion)
    {
        const QString key = platform::nodeArchive().indexKey;
        m_scratch.write(QStringLiteral("dist/index.json"),
            indexOf(entry(QStringLiteral("v23.1.0"), QStringLiteral("false"), key) + QLatin1Char(',')
                + entry(kVersion, QStringLiteral("\"Jod\""), key)));
        const QString folder = QStringLiteral("node-") + kVersion + QLatin1Char('-') + platform::nodeArchive().system;
        m_scratch.write(QStringLiteral("pack/") + folder + QStringLiteral("/bin/node"),
            QStringLiteral("#!/bin/sh\necho %1\n").arg(reported).toUtf8(), 0755);
        m_file = folder + QStringLiteral(".tar.gz");
        const QString archive = m_scratch.file(QStringLiteral("dist/") + kVersion + QLatin1Char('/') + m_file);
        QProcess::execute(QStringLiteral("/usr/bin/tar"),
            {QStringLiteral("-czf"), archive, QStringLiteral("-C"), m_scratch.path() + QStringLiteral("/pack"),
                folder});
        QFile packed(archive);
        packed.open(QIODevice::ReadOnly);
        const QString digest
            = QString::fromLatin1(QCryptographicHash::hash(packed.readAll(), QCryptographicHash::Sha256).toHex());
        m_scratch.write(QStringLiteral("dist/") + kVersion + QStringLiteral("/SHASUMS256.txt"),
            (QStringLiteral("0000  node-other.tar.gz\n") + digest + QStringLiteral("  ") + m_file + '\n').toUtf8());
        m_server = std::make_unique<StaticSite>(m_scratch.path());
    }

    StaticSite& server() { return *m_server; }
    QString archivePath() const { return QStringLiteral("/dist/") + kVersion + QLatin1Char('/') + m_file; }

private:
    ScratchFolder m_scratch;
    QString m_file;
    std::unique_ptr<StaticSite> m_server;
};

QStringList leftovers(const QString& nodeFolder)
{
    QStringList found = QDir(nodeFolder).entryList({QStringLiteral(".staging-*")}, QDir::Dirs | QDir::Hidden);
    found += QDir(QDir::tempPath()).entryList({QStringLiteral("tidewatch-*.download")}, QDir::Files);
    return found;
}

} // namespace

class TestNodeInstaller : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void progress();
    void digestMatchesTheSystemTool();
    void installs();
    void failures_data();
    void failures();

private:
    ScratchFolder m_temporary;
};

void TestNodeInstaller::initTestCase()
{
    // Downloads land in the temporary folder, where other suites running beside this one download too.
    qputenv("TMPDIR", QFile::encodeName(m_temporary.path()));
}

void TestNodeInstaller::progress()
{
    QCOMPARE(fraction(50, -1), 0.0);
    QCOMPARE(fraction(50, 0), 0.0);
    QCOMPARE(fraction(25, 100), 0.25);

    const QDateTime start = QDateTime::fromSecsSinceEpoch(1000, Qt::UTC);
    ProgressThrottle throttle;
    QVERIFY(throttle.shouldReport(start, 1, 100));
    QVERIFY(!throttle.shouldReport(start.addMSecs(50), 2, 100));
    QVERIFY(!throttle.shouldReport(start.addMSecs(100), 3, 100));
    QVERIFY2(throttle.shouldReport(start.addMSecs(101), 4, 100), "a tenth of a second later");
    QVERIFY2(throttle.shouldReport(start.addMSecs(110), 100, 100), "the end is never held back");
}

void TestNodeInstaller::digestMatchesTheSystemTool()
{
    ScratchFolder scratch;
    QByteArray big(3 * 1024 * 1024 + 17, 'x');
    for (int i = 0; i < big.size(); i += 4093)
        big[i] = char(i % 251);
    const QString file = scratch.write(QStringLiteral("big"), big);
    QProcess tool;
    tool.start(QStringLiteral("sha256sum"), {file});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(sha256(file), QString::fromLatin1(tool.readAllStandardOutput().left(64)));
    QCOMPARE(sha256(scratch.path() + QStringLiteral("/missing")), QString());
}

void TestNodeInstaller::installs()
{
    Site site;
    ScratchFolder home;
    const QString nodeFolder = home.path() + QStringLiteral("/support/node");
    QStringList lines;
    QList<double> fractions;
    const Observer observer{[&](double f) { fractions << f; }, [&](const QString& l) { lines << l; }};

    const Outcome<QString> installed = install(nodeFolder, site.server().base(), observer);
    QVERIFY2(installed.ok(), qPrintable(installed.ok() ? QString() : installed.sentence()));
    QCOMPARE(installed.value(), nodeFolder + '/' + kVersion + "/bin/node");
    QCOMPARE(lines,
        (QStringList{"resolving the latest LTS…", "verifying SHA-256 against SHASUMS256.txt…", "unpacking…",
            "done: " + kVersion}));
    QVERIFY(!fractions.isEmpty());
    QCOMPARE(fractions.last(), 1.0);
    QVERIFY(leftovers(nodeFolder).isEmpty());
    QCOMPARE(QFileInfo(nodeFolder).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());

    // The same version again replaces its folder whole.
    home.write(QStringLiteral("support/node/") + kVersion + QStringLiteral("/stale"), "old");
    QVERIFY(install(nodeFolder, site.server().base(), {}).ok());
    QVERIFY(!QFileInfo::exists(nodeFolder + '/' + kVersion + "/stale"));
}

void TestNodeInstaller::failures_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("sentence");
    QTest::addColumn<bool>("downloaded");
    QTest::addColumn<bool>("targetLeft");

    QTest::newRow("no index") << "index"
                              << "the Node.js site didn’t answer. Check your internet connection and try again."
                              << false << false;
    QTest::newRow("no checksum list costs no download")
        << "sums"
        << "Couldn’t get Node.js checksums from the Node.js site." << false << false;
    QTest::newRow("a missing archive") << "archive"
                                       << "the Node.js site answered 404 for the download." << true << false;
    // A tampered archive is the service installer's own case, end to end.
    QTest::newRow("a binary that reports another version")
        << "version"
        << "Node.js was unpacked but doesn’t start: v0.0.1" << true << true;
}

void TestNodeInstaller::failures()
{
    QFETCH(QString, fault);
    QFETCH(QString, sentence);
    QFETCH(bool, downloaded);
    QFETCH(bool, targetLeft);
    Site site(fault == "version" ? QStringLiteral("v0.0.1") : kVersion);
    if (fault == "index")
        site.server().answer(QStringLiteral("/dist/index.json"), 503);
    if (fault == "sums")
        site.server().answer(QStringLiteral("/dist/") + kVersion + QStringLiteral("/SHASUMS256.txt"), 404);
    if (fault == "archive")
        site.server().answer(site.archivePath(), 404);

    ScratchFolder home;
    const QString nodeFolder = home.path() + QStringLiteral("/node");
    const Outcome<QString> result = install(nodeFolder, site.server().base(), {});
    QVERIFY(!result.ok());
    QCOMPARE(result.sentence(), sentence);
    QCOMPARE(site.server().requests().contains(site.archivePath()), downloaded);
    QVERIFY(leftovers(nodeFolder).isEmpty());
    QCOMPARE(QFileInfo::exists(nodeFolder + '/' + kVersion), targetLeft);
}

QTEST_GUILESS_MAIN(TestNodeInstaller)
#include "TestNodeInstaller.moc"
