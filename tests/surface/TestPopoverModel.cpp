#include "surface/PopoverModel.h"

#include "ScratchFolder.h"
#include "model/AppModel.h"
#include "surface/PopoverRender.h"

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

QTEST_MAIN(TestPopoverModel)
#include "TestPopoverModel.moc"
