#include "ClaudeScenario.h"
#include "LiveModel.h"
#include "RealPlaces.h"

#include "model/DismissedNotices.h"
#include "surface/PopoverModel.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

/// The row of that session on the panel's page; empty when it isn't drawn.
QVariantMap rowOf(PopoverModel& popover, const QString& id)
{
    popover.refresh();
    for (const QVariant& row : popover.page().value(u"sessions"_s).toList()) {
        if (row.toMap().value(u"id"_s) == id)
            return row.toMap();
    }
    return {};
}

QStringList titles(const QVariantMap& row)
{
    QStringList titles;
    for (const QVariant& action : row.value(u"actions"_s).toList())
        titles << action.toMap().value(u"title"_s).toString();
    return titles;
}

/// Clicks the row's button of that title, as the panel does.
bool click(PopoverModel& popover, const QString& id, const QString& title)
{
    for (const QVariant& action : rowOf(popover, id).value(u"actions"_s).toList()) {
        if (action.toMap().value(u"title"_s) == title) {
            popover.rowAction(id, action.toMap().value(u"act"_s).toInt());
            return true;
        }
    }
    return false;
}

} // namespace

/// Real Claude Code typed into a shell with the service's integration, so it
/// runs in a shared terminal, held by a usage limit: the row's buttons carry
/// it on through the service, and the row follows what really happens.
class TestResumeCard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theButtonsCarryARealSessionOn();
};

void TestResumeCard::theButtonsCarryARealSessionOn()
{
    const QString relay = QCoreApplication::applicationDirPath() + u"/tidewatch-term"_s;
    QVERIFY2(QFileInfo(relay).isExecutable(), "the relay isn't built beside the tests");
    LiveModel live(false);
    ServiceProcess& service = live.service;
    ClaudeScenario claude(live.scratch.file(u"claude/"_s), service.supportFolder(), ClaudeScenario::Mode::Shared);
    QVERIFY2(claude.start(), qPrintable(claude.lastError()));
    if (!claude.missing().isEmpty())
        QSKIP(qPrintable(claude.missing()));

    // Installed as the app installs it: the relay in the support folder, the hooks and the shell block by the service.
    QVERIFY(QDir().mkpath(service.supportFolder() + u"/bin"_s));
    QVERIFY(QFile::copy(relay, service.supportFolder() + u"/bin/tidewatch-term"_s));
    service.setVariable(u"CLAUDE_CONFIG_DIR"_s, claude.ready().value(u"claudeDir"_s).toString());
    service.setVariable(u"SHELL"_s, u"/bin/bash"_s);
    QVERIFY(live.restartService());
    service.qa("POST", u"/local/integration/install"_s, QJsonObject{});
    QVERIFY(live.startModel());
    DismissedNotices dismissed;
    PopoverModel popover(live.model(), dismissed, Clock::system());

    const qint64 reset = QDateTime::currentSecsSinceEpoch() + 3600;
    const auto limit = [&claude](qint64 resetsAt) {
        claude.send(resetsAt > 0 ? QJsonObject{{u"do"_s, u"limit"_s}, {u"resetsAt"_s, resetsAt}}
                                 : QJsonObject{{u"do"_s, u"limit"_s}});
        return !claude.next(u"limit"_s, 5000).isEmpty();
    };
    const auto continues = [&claude] {
        claude.send({{u"do"_s, u"continues"_s}});
        return claude.next(u"continues"_s, 5000).value(u"count"_s).toInt(-1);
    };
    QString id;
    // What the service and the terminal showed when a wait ran out.
    const auto explain = [&] {
        const QJsonValue sessions = service.qa("GET", u"/v1/snapshot"_s).toObject().value(u"sessions"_s);
        claude.send({{u"do"_s, u"waitFor"_s}, {u"pattern"_s, u"^$"_s}, {u"timeoutMs"_s, 0}});
        qWarning().noquote() << QJsonDocument(sessions.toArray()).toJson()
                             << "\nThe row:" << QJsonDocument(QJsonObject::fromVariantMap(rowOf(popover, id))).toJson()
                             << "\nThe terminal:\n"
                             << claude.next(u"screen"_s, 5000).value(u"screen"_s).toString();
        return false;
    };
    QVERIFY(limit(reset));
    claude.send({{u"do"_s, u"run"_s}, {u"prompt"_s, u"say hello"_s}});
    QVERIFY2(!claude.next(u"started"_s, 45000).isEmpty(), qPrintable(claude.diagnostics()));

    // Held by the limit in a shared terminal; Claude Code itself means to carry on at the reset.
    QVERIFY2(QTest::qWaitFor(
                 [&] {
                     const QList<Session> sessions = live.model().snapshot().value_or(Snapshot{}).sessions.items;
                     if (sessions.isEmpty())
                         return false;
                     id = sessions.first().id;
                     return titles(rowOf(popover, id)) == QStringList{u"Continue now"_s};
                 },
                 30000)
            || explain(),
        "see the warnings above");
    QVERIFY(live.session(id)->term);
    QVERIFY2(rowOf(popover, id).value(u"line"_s).toString().endsWith(u", then carries on"_s),
        qPrintable(rowOf(popover, id).value(u"line"_s).toString()));

    // "Continue now" types the continue prompt; the limit refuses it again.
    QVERIFY(click(popover, id, u"Continue now"_s));
    QTRY_COMPARE_WITH_TIMEOUT(continues(), 1, 20000);

    // Refused again, Claude Code plans to carry on once more (an Esc before that would stop the turn instead).
    claude.send({{u"do"_s, u"waitFor"_s}, {u"pattern"_s, u"reached again"_s}});
    QVERIFY2(claude.next(u"screen"_s, 30000).value(u"matched"_s).toBool(), qPrintable(claude.diagnostics()));
    QVERIFY2(QTest::qWaitFor([&] { return titles(rowOf(popover, id)) == QStringList{u"Continue now"_s}; }, 20000)
            || explain(),
        "see the warnings above");
    // The person stops that plan in the terminal (its prompt takes keys a moment after it is drawn): Tidewatch
    // offers its own.
    QTest::qWait(1000);
    claude.send({{u"do"_s, u"keys"_s}, {u"keys"_s, QJsonArray{u"Escape"_s}}});
    QVERIFY2(
        QTest::qWaitFor([&] { return titles(rowOf(popover, id)) == QStringList{u"Continue automatically"_s}; }, 20000)
            || explain(),
        "see the warnings above");
    QVERIFY(click(popover, id, u"Continue automatically"_s));
    QTRY_COMPARE_WITH_TIMEOUT(titles(rowOf(popover, id)), (QStringList{u"Don’t"_s, u"Continue now"_s}), 10000);

    // The limit lifts, by the service's clock: the session carries on by itself, once, and the row follows.
    QVERIFY(limit(0));
    const qint64 past = (reset + 1) * 1000 - QDateTime::currentMSecsSinceEpoch();
    service.qa("POST", u"/qa/power"_s, QJsonObject{{u"offsetMs"_s, double(past)}});
    QTRY_COMPARE_WITH_TIMEOUT(continues(), 2, 30000);
    QTRY_VERIFY_WITH_TIMEOUT(!live.session(id)->blocked && live.session(id)->state == u"idle"_s, 30000);
    QVERIFY(titles(rowOf(popover, id)).isEmpty());
    QTest::qWait(1000);
    QCOMPARE(continues(), 2);
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestResumeCard)
#include "TestResumeCard.moc"
