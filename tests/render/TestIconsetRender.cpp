#include "surface/IconsetRender.h"

#include "ScratchFolder.h"

#include <QDir>
#include <QImage>
#include <QTest>

using namespace Qt::StringLiterals;

class TestIconsetRender : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writesEverySizeAnIconsetHolds();
    void aFolderThatCantBeMadeFails();

private:
    ScratchFolder m_scratch;
};

void TestIconsetRender::writesEverySizeAnIconsetHolds()
{
    const QString folder = m_scratch.file(QStringLiteral("new/Tidewatch.iconset"));
    QCOMPARE(renderIconset(folder), 0);
    const QStringList expected{"icon_128x128.png", "icon_128x128@2x.png", "icon_16x16.png", "icon_16x16@2x.png",
        "icon_256x256.png", "icon_256x256@2x.png", "icon_32x32.png", "icon_32x32@2x.png", "icon_512x512.png",
        "icon_512x512@2x.png"};
    QCOMPARE(QDir(folder).entryList(QDir::Files, QDir::Name), expected);
    for (const IconsetEntry& entry : iconsetEntries()) {
        const QImage image(QDir(folder).filePath(entry.fileName));
        QCOMPARE(image.size(), QSize(entry.pixels, entry.pixels));
        // The @2x file holds twice the pixels of its name.
        const int named = entry.fileName.section(u'_', 1).section(u'x', 0, 0).toInt();
        QCOMPARE(entry.pixels, entry.fileName.contains(u'@') ? named * 2 : named);
    }
    // Not a blank: the card is opaque where the planet's lit side is light.
    const QImage largest(QDir(folder).filePath(u"icon_512x512@2x.png"_s));
    QCOMPARE(qAlpha(largest.pixel(512, 870)), 255);
    QCOMPARE(qAlpha(largest.pixel(0, 0)), 0);
    QVERIFY(qGray(largest.pixel(430, 430)) > qGray(largest.pixel(512, 870)) + 60);
    // Rendering again over the same files is fine.
    QCOMPARE(renderIconset(folder), 0);
}

void TestIconsetRender::aFolderThatCantBeMadeFails()
{
    // A file stands where a parent folder should be.
    const QString blocker = m_scratch.write(QStringLiteral("blocker"), "not a folder");
    QCOMPARE(renderIconset(blocker + QStringLiteral("/Tidewatch.iconset")), 1);
    QCOMPARE(renderIconset(QString()), 1);
}

QTEST_GUILESS_MAIN(TestIconsetRender)
#include "TestIconsetRender.moc"
