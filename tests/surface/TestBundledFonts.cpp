#include "ScratchFolder.h"

#include "surface/BundledFonts.h"

#include <QFile>
#include <QTest>

/// The bundle's own typefaces reach the panel: a font file in the folder
/// becomes a family this process can set text in, and what isn't a font
/// (a truncated download, a note) is passed over without a word.
class TestBundledFonts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fontsInTheFolderAreAdded();
    void noFolderAddsNothing();
};

void TestBundledFonts::fontsInTheFolderAreAdded()
{
    // The same face the Linux build takes from its font package.
    const QString face = QStringLiteral("/usr/share/fonts/truetype/manrope/Manrope-SemiBold.ttf");
    if (!QFile::exists(face))
        QSKIP("fonts-manrope isn't installed");
    ScratchFolder scratch;
    QVERIFY(QFile::copy(face, scratch.file(QStringLiteral("fonts/Manrope_600SemiBold.ttf"))));
    QFile source(face);
    QVERIFY(source.open(QIODevice::ReadOnly));
    scratch.write(QStringLiteral("fonts/Cut_Short.ttf"), source.read(512));
    scratch.write(QStringLiteral("fonts/LICENSE.txt"), "OFL-1.1");

    const QStringList families = BundledFonts::load(scratch.file(QStringLiteral("fonts")));
    // The face names its family and, for older systems, its weight as a family of its own.
    QVERIFY2(families.contains(QStringLiteral("Manrope")), qPrintable(families.join(u',')));
    for (const QString& family : families)
        QVERIFY2(family.startsWith(QStringLiteral("Manrope")), qPrintable(family));
}

void TestBundledFonts::noFolderAddsNothing()
{
    QCOMPARE(BundledFonts::load(QString()), QStringList());
    // A build without its own fonts (this one, on Linux) has no folder to name.
    QCOMPARE(BundledFonts::folder(), QString());
}

QTEST_MAIN(TestBundledFonts)
#include "TestBundledFonts.moc"
