#include "LiveModel.h"

#include "base/Clock.h"
#include "model/DismissedNotices.h"
#include "surface/PopoverModel.h"
#include "surface/words/DeviceWords.h"
#include "surface/words/PhoneAccessWords.h"
#include "surface/words/SettingsWords.h"

#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QVariantMap settingsOf(const PopoverModel& popover)
{
    return popover.page().value(u"settings"_s).toMap();
}

QStringList deviceIds(const PopoverModel& popover)
{
    QStringList ids;
    for (const QVariant& row : settingsOf(popover).value(u"devices"_s).toMap().value(u"rows"_s).toList())
        ids << row.toMap().value(u"id"_s).toString();
    return ids;
}

} // namespace

/// The Settings page against the real service: Forget asks first, sends the
/// DELETE, and the device leaves the page once the status says so; a refused
/// change keeps the last state and shows the service's message; the built
/// program draws the page live, in a test copy's words.
class TestSettingsPage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void forgetAsksThenTheDeviceLeavesThePage();
    void aRefusedChangeKeepsTheLastState();
    void theLiveRenderDrawsTheSettingsPage();

private:
    AppModel& model() { return m_live->model(); }

    std::unique_ptr<LiveModel> m_live;
    std::unique_ptr<DismissedNotices> m_dismissed;
    std::unique_ptr<PopoverModel> m_popover;
};

void TestSettingsPage::initTestCase()
{
    m_live = std::make_unique<LiveModel>();
    QVERIFY(m_live->ok());
    m_live->service.qa("POST", u"/qa/local"_s,
        QJsonObject{{"tailscale", QJsonObject{{"serveOn", true}, {"url", "https://ada-mac.tail1234.ts.net/"}}}});
    m_live->seed(R"([
        ["/qa/devices", {"id": "d1", "name": "Pixel 8"}],
        ["/qa/devices", {"id": "g1", "name": "Lens", "client": "lens", "via": "d1"}]
    ])");
    QVERIFY(m_live->startModel());
    m_dismissed = std::make_unique<DismissedNotices>();
    m_popover = std::make_unique<PopoverModel>(model(), *m_dismissed, Clock::system());
}

void TestSettingsPage::cleanupTestCase()
{
    m_popover.reset();
    m_live.reset();
}

void TestSettingsPage::forgetAsksThenTheDeviceLeavesThePage()
{
    QTRY_COMPARE_WITH_TIMEOUT(deviceIds(*m_popover), (QStringList{u"d1"_s, u"g1"_s}), 5000);
    m_popover->forgetDevice(u"g1"_s);
    m_popover->refresh();
    const DeviceWords::Forget words = DeviceWords::forget({u"g1"_s, u"Lens"_s, std::nullopt, true});
    const QVariantMap dialog = m_popover->page().value(u"dialog"_s).toMap();
    QCOMPARE(dialog.value(u"title"_s).toString(), words.title);
    QCOMPARE(dialog.value(u"line"_s).toString(), words.line);
    QCOMPARE(dialog.value(u"primary"_s).toString(), words.forget);
    // Asking sends nothing: the glasses are still paired.
    QTest::qWait(300);
    QCOMPARE(m_live->service.qa("GET", u"/local/devices"_s).toArray().size(), 2);

    m_popover->confirmDialog(false);
    QTRY_COMPARE_WITH_TIMEOUT(deviceIds(*m_popover), QStringList{u"d1"_s}, 5000);
    QVERIFY(!model().dialog());
    QCOMPARE(m_live->service.qa("GET", u"/local/devices"_s).toArray().size(), 1);
}

void TestSettingsPage::aRefusedChangeKeepsTheLastState()
{
    m_live->service.qa("POST", u"/qa/faults"_s,
        QJsonObject{{"route", "POST /local/settings"}, {"status", 409},
            {"body", R"({"error":{"code":"busy","message":"Not now."}})"}});
    m_popover->setBrowseOutsideProjects(true);
    QTRY_VERIFY_WITH_TIMEOUT(m_live->service.faultsSpent(), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(model().noteText().endsWith(u"Not now."_s), 5000);
    m_popover->refresh();
    QVERIFY(!settingsOf(*m_popover).value(u"files"_s).toMap().value(u"on"_s).toBool());
}

void TestSettingsPage::theLiveRenderDrawsTheSettingsPage()
{
    const QStringList lines = m_live->liveRender(nullptr, u"settings"_s);
    const QString all = lines.join(u'\n');
    // A test copy leaves Tailscale to the real install: no choice of route, no sign-out.
    for (const QString& line :
        {PhoneAccessWords::heading().toUpper(), u"https://ada-mac.tail1234.ts.net"_s, PhoneAccessWords::testCopyLine(),
            DeviceWords::heading().toUpper(), u"Pixel 8"_s, SettingsWords::files({}).title, SettingsWords::uninstall()})
        QVERIFY2(lines.contains(line), qPrintable(line + u" in:\n"_s + all));
    QVERIFY2(!lines.contains(u"Lens"_s), qPrintable(all));
    QVERIFY2(!lines.contains(u"SESSIONS"_s), qPrintable(all));
}

QTEST_MAIN(TestSettingsPage)
#include "TestSettingsPage.moc"
