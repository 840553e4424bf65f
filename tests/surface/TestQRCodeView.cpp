#include "base/Shell.h"
#include "surface/QRCodeView.h"

#include "ScratchFolder.h"

#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;

/// The pair page's QR code, read back by a real reader.
class TestQRCodeView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsBackAsItsText_data();
    void readsBackAsItsText();
    void darkOnLightWithAQuietZone();
    void tooLongATextDrawsNothing();
};

void TestQRCodeView::readsBackAsItsText_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("a pair link over the tailnet")
        << u"https://tidewatch.example/pair#v=1&u=https%3A%2F%2Fada-mbp.tail1234.ts.net&c=B3X7N5&n=Ada%E2%80%99s%20MacBook%20Pro"_s;
    QTest::newRow("a pair link with the local network's route")
        << u"https://tidewatch.example/pair#v=1&u=&c=K9P2QA&n=ada-desk&fp=c0de91f7&lan=192.168.1.24&lp=47323"_s;
    QTest::newRow("text beyond ASCII goes as UTF-8") << u"Ada’s MacBook Pro"_s;
}

void TestQRCodeView::readsBackAsItsText()
{
    QFETCH(QString, text);
    const QString reader = QStandardPaths::findExecutable(u"zbarimg"_s);
    if (reader.isEmpty())
        QSKIP("zbarimg isn’t installed (Debian’s zbar-tools), so the code can’t be read back.");
    const QImage code = QRCodeView::encode(text);
    QVERIFY(!code.isNull());
    ScratchFolder scratch;
    const QString file = scratch.file(u"code.png"_s);
    QVERIFY(code.scaled(code.size() * 6, Qt::IgnoreAspectRatio, Qt::FastTransformation).save(file));
    const ShellResult read = Shell::run(reader, {u"--raw"_s, u"-q"_s, u"-Sbinary"_s, file});
    QVERIFY2(read.status == 0, qPrintable(read.combined()));
    QCOMPARE(read.out, text);
}

void TestQRCodeView::darkOnLightWithAQuietZone()
{
    const QImage code = QRCodeView::encode(u"https://tidewatch.example/pair#c=B3X7N5"_s);
    QCOMPARE(code.width(), code.height());
    // Four modules of light ground, then the finder pattern's dark corner.
    QCOMPARE(code.pixel(0, 0), 0xFFF5F2EBu);
    QCOMPARE(code.pixel(3, 3), 0xFFF5F2EBu);
    QCOMPARE(code.pixel(4, 4), 0xFF14110Eu);
}

void TestQRCodeView::tooLongATextDrawsNothing()
{
    QVERIFY(QRCodeView::encode(QString(3000, u'a')).isNull());
    QVERIFY(QRCodeView::encode(QString()).isNull());
}

QTEST_MAIN(TestQRCodeView)
#include "TestQRCodeView.moc"
