#include "entry/Preferences.h"
#include "model/AppModel.h"
#include "setup/LoginItem.h"

#include "ManualClock.h"
#include "Offline.h"
#include "ScratchFolder.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <cstdio>
#include <memory>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Everything written to standard output while `work` runs.
QString standardOutputOf(const std::function<void()>& work, const QString& scratchFile)
{
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    FILE* sink = std::fopen(QFile::encodeName(scratchFile).constData(), "w");
    ::dup2(::fileno(sink), STDOUT_FILENO);
    work();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    std::fclose(sink);
    QFile file(scratchFile);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

/// Open at Login through the model, on this system's own item (the autostart
/// entry) in a scratch home: a test copy never touches the person's item.
class TestLoginItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void theStartRestoresOnlyWhatThePersonWants_data();
    void theStartRestoresOnlyWhatThePersonWants();
    void aTestCopysStartLeavesTheItemAlone();
    void theSwitchGoesThroughTheModel_data();
    void theSwitchGoesThroughTheModel();
    void aRefusedChangeIsLoggedAndNeverShown();

private:
    Environment copy(bool testCopy) const;
    QString entry() const { return m_scratch->path() + u"/config/autostart/tidewatch.desktop"_s; }
    void placeEntry(bool present) const;

    std::unique_ptr<ScratchFolder> m_scratch;
    ManualClock m_clock;
};

void TestLoginItem::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    // The system's item follows the process's XDG_CONFIG_HOME; the flags follow the copy's.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_scratch->path() + u"/config"_s));
}

Environment TestLoginItem::copy(bool testCopy) const
{
    if (testCopy)
        return nowhere(*m_scratch);
    return Environment({{u"XDG_CONFIG_HOME"_s, m_scratch->path() + u"/config"_s}}, m_scratch->path());
}

void TestLoginItem::placeEntry(bool present) const
{
    if (present)
        m_scratch->write(u"config/autostart/tidewatch.desktop"_s, "[Desktop Entry]\nName=the person's own\n", 0644);
}

void TestLoginItem::theStartRestoresOnlyWhatThePersonWants_data()
{
    QTest::addColumn<bool>("testCopy");
    QTest::addColumn<bool>("wanted");
    QTest::addColumn<bool>("present");
    QTest::addColumn<bool>("registered");
    QTest::addColumn<bool>("enabled");

    QTest::newRow("wanted and lost: registered again") << false << true << false << true << true;
    QTest::newRow("never wanted: left off") << false << false << false << false << false;
    QTest::newRow("wanted and there: left as it is") << false << true << true << true << true;
    QTest::newRow("there though unwanted: found, not removed") << false << false << true << true << true;
    QTest::newRow("a test copy never registers, even when wanted") << true << true << false << false << false;
    QTest::newRow("a test copy never counts the person's item as its own") << true << true << true << true << false;
}

void TestLoginItem::theStartRestoresOnlyWhatThePersonWants()
{
    QFETCH(bool, testCopy);
    QFETCH(bool, wanted);
    QFETCH(bool, present);
    const Environment environment = copy(testCopy);
    Preferences(environment).setFlag(Preferences::loginItemWanted, wanted);
    placeEntry(present);

    const bool enabled = LoginItem::reconcile(environment);
    QTEST(QFile::exists(entry()), "registered");
    QTEST(enabled, "enabled");
    if (present) {
        QFile kept(entry());
        QVERIFY(kept.open(QIODevice::ReadOnly));
        QVERIFY2(kept.readAll().contains("the person's own"), "the entry that was there is left as it was");
    }
}

void TestLoginItem::aTestCopysStartLeavesTheItemAlone()
{
    const Environment environment = copy(true);
    Preferences(environment).setFlag(Preferences::loginItemWanted, true);
    AppModel model(environment, m_clock);
    QSignalSpy changes(&model, &AppModel::loginItemEnabledChanged);
    model.start();
    QVERIFY(!QFile::exists(entry()));
    QVERIFY(!QFile::exists(QFileInfo(entry()).path()));
    QVERIFY(!model.loginItemEnabled());
    QCOMPARE(changes.count(), 0);
}

void TestLoginItem::theSwitchGoesThroughTheModel_data()
{
    QTest::addColumn<bool>("testCopy");
    QTest::addColumn<bool>("before");
    QTest::addColumn<bool>("on");
    QTest::addColumn<bool>("after");
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<bool>("wanted");

    QTest::newRow("on: the entry is written and the wish kept") << false << false << true << true << true << true;
    QTest::newRow("off: the entry goes, and the wish with it") << false << true << false << false << false << false;
    QTest::newRow("on again changes nothing but stays on") << false << true << true << true << true << true;
    QTest::newRow("on in a test copy touches nothing") << true << false << true << false << false << false;
    QTest::newRow("off in a test copy leaves the person's entry and its own wish")
        << true << true << false << true << false << true;
}

void TestLoginItem::theSwitchGoesThroughTheModel()
{
    QFETCH(bool, testCopy);
    QFETCH(bool, before);
    QFETCH(bool, on);
    const Environment environment = copy(testCopy);
    Preferences(environment).setFlag(Preferences::loginItemWanted, before);
    placeEntry(before);
    AppModel model(environment, m_clock);
    QSignalSpy notes(&model, &AppModel::noteChanged);

    model.setLoginItem(on);
    QTEST(QFile::exists(entry()), "after");
    QTEST(model.loginItemEnabled(), "enabled");
    QTEST(Preferences(environment).flag(Preferences::loginItemWanted), "wanted");
    QCOMPARE(notes.count(), 0);
    if (QFile::exists(entry()) && !before) {
        QFile written(entry());
        QVERIFY(written.open(QIODevice::ReadOnly));
        QVERIFY2(written.readAll().contains("Exec=\"" + QFile::encodeName(QCoreApplication::applicationFilePath())),
            "the entry opens this program");
    }
}

void TestLoginItem::aRefusedChangeIsLoggedAndNeverShown()
{
    const Environment environment = copy(false);
    // A file where the autostart folder should be: the system can't register.
    m_scratch->write(u"config/autostart"_s, "not a folder");
    AppModel model(environment, m_clock);
    QSignalSpy notes(&model, &AppModel::noteChanged);

    const QString said = standardOutputOf([&model] { model.setLoginItem(true); }, m_scratch->file(u"out.txt"_s));
    QCOMPARE(
        said, u"Tidewatch: login item change failed: couldn’t create %1/config/autostart\n"_s.arg(m_scratch->path()));
    QVERIFY(!model.loginItemEnabled());
    QVERIFY2(Preferences(environment).flag(Preferences::loginItemWanted), "the wish stands, for the next start");
    QCOMPARE(notes.count(), 0);
}

QTEST_GUILESS_MAIN(TestLoginItem)
#include "TestLoginItem.moc"
