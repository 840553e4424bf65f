#include "workflows/WorkflowWords.h"

#include "Fixture.h"

#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

using Fixture::now;

class TestWorkflowWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void clip_data();
    void clip();
    void countdown_data();
    void countdown();
};

void TestWorkflowWords::clip_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("max");
    QTest::addColumn<QString>("clipped");

    QTest::newRow("short enough") << "Ship it" << 40 << "Ship it";
    QTest::newRow("exactly the length") << "abcde" << 5 << "abcde";
    QTest::newRow("line ends of every kind become one space")
        << u"a\nb\rc\r\nd\u000Be\u000Cf\u0085g\u2028h\u2029i"_s << 40 << "a b c d e f g h i";
    QTest::newRow("empty lines are dropped, outer spaces trimmed") << "\n\n  one\n\n\ntwo  \n" << 40 << "one two";
    QTest::newRow("cut at the last space") << "The quick brown fox jumps" << 12 << "The quick…";
    QTest::newRow("never a comma before the ellipsis") << "Build it, then test it, then ship" << 10 << "Build it…";
    QTest::newRow("stops and colons go too") << "Done. Next: more words" << 12 << "Done. Next…";
    QTest::newRow("the cut falls on the last space, then the stop goes") << "Done. Next: more words" << 11 << "Done…";
    QTest::newRow("no space: a hard cut") << "Supercalifragilistic" << 5 << "Super…";
    QTest::newRow("an emoji is one character and is never split")
        << u"ab\U0001F680cd\U0001F680ef"_s << 4 << u"ab\U0001F680c…"_s;
    QTest::newRow("nothing left but the ellipsis") << ", ,abc" << 2 << "…";
}

void TestWorkflowWords::clip()
{
    QFETCH(QString, text);
    QFETCH(int, max);
    QTEST(WorkflowWords::clip(text, max), "clipped");
}

void TestWorkflowWords::countdown_data()
{
    QTest::addColumn<double>("left");
    QTest::addColumn<QString>("defaultAnswer");
    QTest::addColumn<QString>("words");

    QTest::newRow("nine minutes") << 540.0 << u"Skip"_s << u"Skip in 9m"_s;
    QTest::newRow("minutes round up") << 480.5 << u"Skip"_s << u"Skip in 9m"_s;
    QTest::newRow("two minutes exactly is minutes") << 120.0 << u"Skip"_s << u"Skip in 2m"_s;
    QTest::newRow("the last two minutes in seconds") << 119.9 << u"Skip"_s << u"Skip in 120s"_s;
    QTest::newRow("seconds round up") << 89.2 << u"Skip"_s << u"Skip in 90s"_s;
    QTest::newRow("past is 0") << -30.0 << u"Approve"_s << u"Approve in 0s"_s;
    QTest::newRow("no default, no countdown") << 540.0 << u" "_s << u""_s;
}

void TestWorkflowWords::countdown()
{
    QFETCH(double, left);
    QFETCH(QString, defaultAnswer);
    WFAskItem ask;
    ask.defaultAnswer = defaultAnswer;
    ask.until = Fixture::at(left);
    QTEST(WorkflowWords::countdown(ask, now()).value_or(QString()), "words");
}

QTEST_GUILESS_MAIN(TestWorkflowWords)
#include "TestWorkflowWords.moc"
