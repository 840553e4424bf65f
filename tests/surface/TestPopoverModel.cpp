#include "surface/PopoverModel.h"

#include "ScratchFolder.h"
#include "model/AppModel.h"
#include "surface/PopoverPage.h"
#include "surface/PopoverRender.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <QSignalSpy>
#include <QTest>

namespace {

QStringList noticeTitles(const PopoverModel& popover)
{
    QStringList titles;
    for (const QVariant& notice : popover.page().value(QStringLiteral("notices")).toList())
        titles << notice.toMap().value(QStringLiteral("title")).toString();
    return titles;
}

} // namespace

class TestPopoverModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aDismissedNoticeCanComeBack();
    void thePageChangesOnlyWhenTheModelDoes();
    void noticesAreFedFromTheServicesRecords_data();
    void noticesAreFedFromTheServicesRecords();
};

void TestPopoverModel::aDismissedNoticeCanComeBack()
{
    ScratchFolder scratch;
    AppModel model(Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.path()}}, scratch.path()),
        Clock::system(), {}, true);
    QVERIFY(PopoverRender::showSample(model, QStringLiteral("idle"), Clock::system().now()));
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    const QString pair = QStringLiteral("Pair your phone to get started");
    QVERIFY2(noticeTitles(popover).contains(pair), qPrintable(noticeTitles(popover).join(QLatin1Char('|'))));

    popover.dismissNotice(QStringLiteral("setup"));
    QTRY_VERIFY(!noticeTitles(popover).contains(pair));
    QCOMPARE(popover.page().value(QStringLiteral("undo")).toMap().value(QStringLiteral("text")).toString(),
        QStringLiteral("Dismissed: ") + pair);

    popover.undoDismiss();
    QTRY_VERIFY(noticeTitles(popover).contains(pair));
    QVERIFY(!popover.page().contains(QStringLiteral("undo")));
}

void TestPopoverModel::thePageChangesOnlyWhenTheModelDoes()
{
    ScratchFolder scratch;
    AppModel model(Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.path()}}, scratch.path()),
        Clock::system(), {}, true);
    QVERIFY(PopoverRender::showSample(model, QStringLiteral("service-down"), Clock::system().now()));
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    QSignalSpy changed(&popover, &PopoverModel::pageChanged);
    popover.refresh();
    QCOMPARE(changed.size(), 0);
    QVERIFY(PopoverRender::showSample(model, QStringLiteral("idle"), Clock::system().now()));
    QTRY_COMPARE(changed.size(), 1);
    QCOMPARE(popover.page().value(QStringLiteral("state")).toString(), QStringLiteral("main"));
}

void TestPopoverModel::noticesAreFedFromTheServicesRecords_data()
{
    QTest::addColumn<QByteArray>("snapshot");
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<QStringList>("drawn");

    const QByteArray tooOld = R"({"sessions":[],"claude":{"available":false},"codex":{"available":false,
        "enabled":false,"path":"/usr/local/bin/codex","version":"0.150.2","min":"0.163.0",
        "problem":"Codex 0.150.2 is too old for Tidewatch, which needs 0.163.0 or later."}})";
    QTest::newRow("a Codex too old to use asks for its update, with no button until Setup opens from here")
        << tooOld << QByteArray(R"({"devices":[{"id":"d1"}]})") << QStringList{"setup:"};
    QTest::newRow("a key near its expiry on the Tailscale app's route offers Fix") << QByteArray(
        R"({"sessions":[]})") << QByteArray(R"({"claude":{"path":"/bin/claude"},"devices":[{"id":"d1"}],
                          "tailscale":{"serveOn":true,"keyExpiry":"@key"}})") << QStringList{"voice:", "key:Fix"};
    QTest::newRow("the built-in node renews its own key and never warns")
        << QByteArray(R"({"sessions":[]})") << QByteArray(R"({"claude":{"path":"/bin/claude"},"devices":[{"id":"d1"}],
                          "tailscale":{"keyExpiry":"@key"},"tsnet":{"mode":"builtIn","enabled":true}})")
        << QStringList{"voice:"};
}

void TestPopoverModel::noticesAreFedFromTheServicesRecords()
{
    QFETCH(QByteArray, snapshot);
    QFETCH(QByteArray, status);
    QFETCH(QStringList, drawn);
    const QDateTime now = Clock::system().now();
    status.replace("@key", now.addDays(5).toString(Qt::ISODate).toUtf8());
    ScratchFolder scratch;
    AppModel model(Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.path()}}, scratch.path()),
        Clock::system(), {}, true);
    AppModel::Picture picture;
    picture.health = Health{};
    picture.snapshot = Snapshot::fromJson(QJsonDocument::fromJson(snapshot).object());
    picture.status = LocalStatus::fromJson(QJsonDocument::fromJson(status).object());
    QVERIFY(picture.snapshot && picture.status);
    model.showPicture(picture);
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    QStringList shown;
    for (const QVariant& notice : popover.page().value(QStringLiteral("notices")).toList())
        shown << notice.toMap().value(QStringLiteral("id")).toString() + u':'
                + notice.toMap().value(QStringLiteral("action")).toString();
    QCOMPARE(shown, drawn);

    // The line of a Codex too old is the one its words give for that case.
    const QList<Notice> notices = PopoverPage::currentNotices(model, now);
    if (drawn.first() == QStringLiteral("setup:")) {
        NoticeInputs tooOld;
        tooOld.setupGap = SetupStep::Codex;
        tooOld.codexTooOld = true;
        QCOMPARE(notices.first().line, buildNotices(tooOld, now).first().line);
    }
}

QTEST_MAIN(TestPopoverModel)
#include "TestPopoverModel.moc"
