#include "surface/MenuPanel.h"

#include "FreePorts.h"
#include "ScratchFolder.h"
#include "model/AppModel.h"

#include <QSignalSpy>
#include <QTest>

class TestMenuPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void placement_data();
    void placement();
    void openingAndClosingSetThePace();
};

void TestMenuPanel::placement_data()
{
    QTest::addColumn<QRect>("anchor");
    QTest::addColumn<QRect>("available");
    QTest::addColumn<int>("content");
    QTest::addColumn<QRect>("expected");

    const QRect screen(0, 24, 1440, 876);
    QTest::newRow("hangs 5 under the item, centred on it")
        << QRect(700, 0, 24, 24) << screen << 500 << QRect(532, 29, 360, 500);
    QTest::newRow("near the right edge it stays 8 inside")
        << QRect(1420, 0, 20, 24) << screen << 500 << QRect(1072, 29, 360, 500);
    QTest::newRow("near the left edge too") << QRect(0, 0, 20, 24) << screen << 500 << QRect(8, 29, 360, 500);
    QTest::newRow("taller than the screen: the screen's height less 10")
        << QRect(700, 0, 24, 24) << screen << 5000 << QRect(532, 29, 360, 861);
    QTest::newRow("a short screen still gives 320")
        << QRect(700, 0, 24, 24) << QRect(0, 24, 1440, 200) << 5000 << QRect(532, 29, 360, 320);
    QTest::newRow("a nearly empty page keeps 60") << QRect(700, 0, 24, 24) << screen << 10 << QRect(532, 29, 360, 60);
    QTest::newRow("an item below the menu bar's area")
        << QRect(100, 840, 24, 24) << screen << 500 << QRect(8, 869, 360, 320);
}

void TestMenuPanel::placement()
{
    QFETCH(QRect, anchor);
    QFETCH(QRect, available);
    QFETCH(int, content);
    QTEST(MenuPanel::placement(anchor, available, content), "expected");
}

void TestMenuPanel::openingAndClosingSetThePace()
{
    ScratchFolder scratch;
    const QList<int> ports = freePorts(2);
    const Environment environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support"))},
                                      {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
                                      {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))}},
        scratch.path());
    AppModel model(environment, Clock::system());
    MenuPanel panel(model, Clock::system());
    QSignalSpy opened(&panel, &MenuPanel::openChanged);

    panel.toggle(QRect(100, 0, 24, 24));
    QVERIFY(panel.isOpen());
    QVERIFY(model.popoverVisible());
    panel.toggle(QRect(100, 0, 24, 24));
    QVERIFY(!panel.isOpen());
    QVERIFY(!model.popoverVisible());
    QCOMPARE(opened.size(), 2);
    // The model asking for the panel again brings it back.
    Q_EMIT model.panelWanted();
    QVERIFY(panel.isOpen());
}

QTEST_MAIN(TestMenuPanel)
#include "TestMenuPanel.moc"
