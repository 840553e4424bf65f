#include "entry/Preferences.h"
#include "model/AppModel.h"
#include "setup/LoginItem.h"

#include "Golden.h"
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
    void theStartAndTheSwitchFollowThePerson_data();
    void theStartAndTheSwitchFollowThePerson();
    void aTestCopysStartLeavesTheItemAlone();
    void aRefusedChangeIsLoggedAndNeverShown();

private:
    Environment copy(bool testCopy) const;
    QString entry() const { return m_scratch->path() + u"/config/autostart/tidewatch.desktop"_s; }

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

void TestLoginItem::theStartAndTheSwitchFollowThePerson_data()
{
    Golden::addRows({u"login-item.txt"_s});
}

void TestLoginItem::theStartAndTheSwitchFollowThePerson()
{
    QFETCH(QString, input);
    const QStringList in = Golden::parts(input);
    const QString& act = in.at(0);
    const bool present = in.at(3) == u"there"_s;
    const Environment environment = copy(in.at(1) == u"test copy"_s);
    Preferences(environment).setFlag(Preferences::loginItemWanted, in.at(2) == u"wanted"_s);
    if (present)
        m_scratch->write(u"config/autostart/tidewatch.desktop"_s, "[Desktop Entry]\nName=the person's own\n", 0644);

    bool enabled = false;
    if (act == u"start"_s) {
        enabled = LoginItem::reconcile(environment);
    } else {
        AppModel model(environment, m_clock);
        QSignalSpy notes(&model, &AppModel::noteChanged);
        model.setLoginItem(act == u"on"_s);
        enabled = model.loginItemEnabled();
        QCOMPARE(notes.count(), 0);
    }
    const bool stillWanted = Preferences(environment).flag(Preferences::loginItemWanted);
    QTEST(QStringList({QFile::exists(entry()) ? u"registered"_s : u"none"_s, enabled ? u"enabled"_s : u"off"_s,
                          stillWanted ? u"still wanted"_s : u"unwanted"_s})
              .join(u", "_s),
        "expected");
    QFile kept(entry());
    if (kept.open(QIODevice::ReadOnly) && (act == u"start"_s || !present)) {
        // The start leaves the person's own entry as it was; one written here opens this program.
        QVERIFY(
            kept.readAll().contains(present ? QByteArray("the person's own")
                                            : "Exec=\"" + QFile::encodeName(QCoreApplication::applicationFilePath())));
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
