#include "model/DismissedNotices.h"
#include "surface/words/NoticeWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QCoreApplication>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QDateTime kNow = Fixture::now();
const QString kNone = u"—"_s;

WFAskItem ask(const QString& runId)
{
    WFAskItem item;
    item.runId = runId;
    item.name = u"Nightly tidy"_s;
    item.question = u"Push the branch?"_s;
    item.answers = {u"Push"_s, u"Skip"_s};
    item.defaultAnswer = u"Skip"_s;
    item.until = Fixture::at(90);
    return item;
}

NoticeInputs noticeInputs(const QString& words)
{
    static const QStringList steps{
        u"claude"_s, u"service"_s, u"connect"_s, u"tailscale"_s, u"voice"_s, u"codex"_s, u"phone"_s};
    NoticeInputs inputs;
    for (const QString& word : words.split(u", "_s, Qt::SkipEmptyParts)) {
        const QString rest = word.section(u' ', 1);
        if (word == u"service up"_s)
            inputs.serviceUp = true;
        else if (word == u"error"_s)
            inputs.lastError = u"The background service answered 500."_s;
        else if (word == u"restarting"_s)
            inputs.restarting = true;
        else if (word.startsWith(u"asks "_s)) {
            for (const QString& run : rest.split(u' '))
                inputs.asks << ask(run);
        } else if (word == u"update"_s)
            inputs.serviceUpdate = true;
        else if (word == u"sdk missing"_s)
            inputs.sdk = NoticeInputs::Sdk::Missing;
        else if (word == u"sdk old"_s)
            inputs.sdk = NoticeInputs::Sdk::OutOfDate;
        else if (word == u"fetch failed"_s)
            inputs.sdkFetchFailed = true;
        else if (word == u"fetching"_s)
            inputs.fetchingSDK = true;
        else if (word.startsWith(u"setup "_s))
            inputs.setupGap = SetupStep(steps.indexOf(rest));
        else if (word == u"codex too old"_s)
            inputs.codexTooOld = true;
        else if (word == u"voice asked"_s)
            inputs.voiceAsked = true;
        else if (word.startsWith(u"key "_s))
            inputs.keyExpiry = Fixture::at(rest.toDouble() * 86400);
        else
            qFatal("no such notice input: %s", qPrintable(word));
    }
    return inputs;
}

QString notice(const QString& words)
{
    const QList<Notice> notices = buildNotices(noticeInputs(words), kNow);
    if (notices.isEmpty())
        return kNone;
    const Notice& first = notices.first();
    QString button = first.action.value_or(QString());
    if (!first.choices.isEmpty())
        button = first.choices.join(u" or "_s) + u", "_s + noticeFigure(first, kNow).value_or(kNone);
    QStringList said{
        first.title, first.line.value_or(kNone), button + (first.busy ? u", busy"_s : QString()), first.key};
    if (const std::optional<QString> help = noticeHelp(first))
        said << *help;
    return said.join(u" | "_s);
}

QString downCard(const QString& words)
{
    static const QStringList steps{
        u"gettingNode"_s, u"copying"_s, u"fetchingSDK"_s, u"writing"_s, u"starting"_s, u"waiting"_s};
    ServiceDownInputs inputs{
        std::nullopt, words.contains(u"installed"_s), std::nullopt, words.contains(u"restarting"_s)};
    if (words.contains(u"node gone"_s))
        inputs.serviceNodeGone = u"/opt/node/bin/node"_s;
    const QStringList repairing = words.section(u"repairing "_s, 1).split(u' ', Qt::SkipEmptyParts);
    if (!repairing.isEmpty()) {
        inputs.repairing = ServiceInstaller::Progress{ServiceInstaller::Progress::Step(steps.indexOf(repairing.at(0))),
            repairing.size() > 1 ? std::optional<double>(repairing.at(1).toDouble()) : std::nullopt};
    }
    const ServiceDownCard card = serviceDownCard(inputs);
    QStringList said{card.title, card.line,
        card.action + (card.act == ServiceDownCard::Act::Restart ? u", restarts"_s : QString())
            + (card.busy ? u", busy"_s : QString())};
    if (card.progress)
        said << *card.progress;
    return said.join(u" | "_s);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"order"_s)
        return Fixture::ids(buildNotices(noticeInputs(in.at(0)), kNow)).join(u' ');
    if (section == u"notice"_s)
        return notice(in.at(0));
    if (section == u"down"_s)
        return downCard(in.at(0));
    return u"no words for the section "_s + section;
}

} // namespace

class TestNoticeWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dismissalFollowsTheKey();
    void theUndoOfferEndsByItself();
};

void TestNoticeWords::dismissalFollowsTheKey()
{
    DismissedNotices dismissed;
    dismissed.dismiss(buildNotices(noticeInputs(u"setup connect"_s), kNow).first());
    QVERIFY(dismissed.visibleOf(buildNotices(noticeInputs(u"setup connect"_s), kNow)).isEmpty());
    // The next step is a new occurrence of the same notice.
    QCOMPARE(Fixture::ids(dismissed.visibleOf(buildNotices(noticeInputs(u"setup tailscale"_s), kNow))),
        QStringList{u"setup"_s});
}

void TestNoticeWords::theUndoOfferEndsByItself()
{
    // Undo itself is the popover model's case; here the offer ends and the dismissal stays.
    DismissedNotices dismissed;
    const QList<Notice> notices = buildNotices(noticeInputs(u"update, setup phone"_s), kNow);
    dismissed.dismiss(notices.first());
    QVERIFY(dismissed.undo());
    QTRY_VERIFY_WITH_TIMEOUT(!dismissed.undo(), DismissedNotices::undoMilliseconds + 2000);
    QCOMPARE(Fixture::ids(dismissed.visibleOf(notices)), QStringList{u"setup"_s});
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    GoldenTest words({u"notice-words.txt"_s}, render);
    TestNoticeWords dismissals;
    return QTest::qExec(&words, argc, argv) | QTest::qExec(&dismissals, argc, argv);
}
#include "TestNoticeWords.moc"
