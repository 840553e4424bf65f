#include "LiveModel.h"
#include "RealPlaces.h"
#include "ScriptProgram.h"

#include "model/DismissedNotices.h"
#include "phone/PopoverPairing.h"
#include "surface/PopoverModel.h"
#include "surface/PopoverPages.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

/// A phone pairs with the code the panel's pair page shows, as a phone app
/// would: over the local network, the certificate pinned from the link. It
/// then answers an approval, and forgetting it in Settings locks it out.
class TestPairing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aPhonePairsFromThePanelAnswersAndIsForgotten();
};

void TestPairing::aPhonePairsFromThePanelAnswersAndIsForgotten()
{
    LiveModel live;
    QVERIFY(live.ok());
    QVERIFY(live.startModel());
    DismissedNotices dismissed;
    PopoverModel popover(live.model(), dismissed, Clock::system());
    popover.quickAction(PopoverPages::kPair);
    const PopoverPairing& pairing = popover.pages()->pairing();
    QTRY_VERIFY2_WITH_TIMEOUT(pairing.phase() == PopoverPairing::Phase::Showing, qPrintable(pairing.detail()), 20000);
    // What the QR code carries is the link on show.
    const QString link = popover.pages()->pair().value(u"link"_s).toString();
    QCOMPARE(link, pairing.pair()->link);

    // A phone that pins another certificate is turned away before it says a word.
    ScriptProgram impostor;
    QVERIFY2(impostor.start(u"test/support/phone-client.mjs"_s, {}), qPrintable(impostor.lastError()));
    QString forged = link;
    forged.replace(QRegularExpression(u"fp=[0-9a-f]+"_s), u"fp="_s + QString(64, u'a'));
    impostor.send({{"do", "pair"}, {"link", forged}, {"name", "Impostor"}});
    QCOMPARE(impostor.nextOf({u"paired"_s, u"error"_s}, 15000).value(u"event"_s).toString(), u"error"_s);

    ScriptProgram phone;
    QVERIFY2(phone.start(u"test/support/phone-client.mjs"_s, {}), qPrintable(phone.lastError()));
    phone.send({{"do", "pair"}, {"link", link}, {"name", "Pixel 9"}});
    const QJsonObject paired = phone.nextOf({u"paired"_s, u"refused"_s, u"error"_s}, 15000);
    QVERIFY2(paired.value(u"event"_s) == u"paired"_s, qPrintable(phone.diagnostics()));
    const QString deviceId = paired.value(u"device"_s).toObject().value(u"id"_s).toString();
    QTRY_VERIFY_WITH_TIMEOUT(pairing.phase() == PopoverPairing::Phase::Paired, 10000);
    QCOMPARE(pairing.detail(), u"Pixel 9"_s);

    // An approval reaches the phone's feed; its answer is the phone's, and the Mac sees it gone.
    phone.send({{"do", "feed"}});
    QVERIFY2(!phone.next(u"open"_s, 10000).isEmpty(), qPrintable(phone.diagnostics()));
    live.seed(R"([["/qa/sessions", {"id": "s1", "title": "Tidy", "state": "needs_you", "lastActivityAt": "@now"}],
                  ["/qa/approvals", {"id": "ap_1", "sessionId": "s1", "kind": "tool", "createdAt": "@now"}]])");
    QVERIFY(QTest::qWaitFor(
        [&] {
            const QJsonObject frame = phone.next(u"frame"_s, 200).value(u"message"_s).toObject();
            return frame.value(u"approval"_s).toObject().value(u"id"_s) == u"ap_1"_s;
        },
        10000));
    QTRY_COMPARE_WITH_TIMEOUT(live.model().snapshot()->approvals.items.size(), 1, 5000);
    phone.send({{"do", "answer"}, {"id", "ap_1"}, {"decision", "allow"}});
    QCOMPARE(phone.next(u"reply"_s, 10000).value(u"status"_s).toInt(), 200);
    QTRY_VERIFY_WITH_TIMEOUT(live.model().snapshot()->approvals.items.isEmpty(), 5000);
    const QJsonArray decisions = live.service.qa("GET", u"/qa/state"_s).toObject().value(u"decisions"_s).toArray();
    QCOMPARE(decisions.last().toObject().value(u"by"_s).toString(), u"phone"_s);

    // Forgotten on the Settings page: its feed closes at once, and its token opens nothing from then on.
    popover.quickAction(PopoverPages::kSettings);
    QTRY_VERIFY_WITH_TIMEOUT(live.model().status() && !live.model().status()->devices.items.isEmpty(), 5000);
    popover.forgetDevice(deviceId);
    popover.confirmDialog(false);
    QVERIFY2(!phone.next(u"closed"_s, 10000).isEmpty(), qPrintable(phone.diagnostics()));
    phone.send({{"do", "call"}, {"method", "GET"}, {"path", "/phone/snapshot"}});
    QCOMPARE(phone.next(u"reply"_s, 10000).value(u"status"_s).toInt(), 401);
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPairing)
#include "TestPairing.moc"
