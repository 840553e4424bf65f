#include "link/Account.h"
#include "link/Approval.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "surface/words/ModelChip.h"
#include "surface/words/RowAction.h"
#include "surface/words/SessionList.h"
#include "surface/words/SessionTitle.h"
#include "surface/words/StateLine.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QJsonArray>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::json;
using Fixture::now;

const QString kNone = u"—"_s;
const QLocale kUs(u"en_US"_s);

QString part(const QStringList& parts, int index)
{
    return index < parts.size() ? parts.at(index) : QString();
}

template <class T> std::optional<T> maybe(const QStringList& parts, int index)
{
    return Fixture::maybe<T>(part(parts, index).toUtf8());
}

QString jsonString(const QString& text)
{
    return json("[" + text.toUtf8() + "]").toArray().at(0).toString();
}

QString toneWord(LineTone tone)
{
    static const QStringList words{u"working"_s, u"attention"_s, u"error"_s, u"plain"_s, u"quiet"_s};
    return words.at(int(tone));
}

QString blockedLine(const std::optional<BlockedWords>& words)
{
    if (!words)
        return kNone;
    return words->text + (words->attention ? u" | attention"_s : u" | plain"_s);
}

QString render(const QString& section, const QStringList& in)
{
    const auto session = [&] { return Fixture::record<Session>(in.at(0).toUtf8()); };
    if (section == u"order"_s)
        return Fixture::ids(SessionWords::ordered(FlexList<Session>::fromJson(json(in.at(0).toUtf8())).items))
            .join(u' ');
    if (section == u"title"_s)
        return SessionWords::title(session()) + u" | "_s
            + SessionWords::place(session(), u"/Users/ann"_s).value_or(kNone);
    if (section == u"modelChip"_s) {
        const QString model = jsonString(in.at(0));
        return SessionWords::modelChip(model) + u" | "_s + SessionWords::modelFamily(model).value_or(kNone);
    }
    if (section == u"chip"_s) {
        const Session s = session();
        const std::optional<Provider> provider = maybe<Provider>(in, 1);
        const QList<Provider> providers = provider ? QList<Provider>{*provider} : QList<Provider>();
        return SessionWords::chip(s, SessionWords::providerOf(s, providers)) + u" | "_s
            + SessionWords::modeTag(s.permissionMode).value_or(kNone);
    }
    if (section == u"stamp"_s) {
        Session s;
        s.id = in.at(0);
        if (in.size() > 1)
            s.lastActivityAt = Fixture::at(-in.at(1).toDouble());
        const SessionStamp stamp = SessionWords::stamp(s, now());
        return QStringList{stamp.hex, stamp.age, stamp.help}.join(u" | "_s);
    }
    if (section == u"plainLine"_s)
        return SessionWords::plainLine(jsonString(in.at(0))).value_or(kNone);
    if (section == u"stateLine"_s) {
        const std::optional<Approval> approval = maybe<Approval>(in, 1);
        const StateLine line
            = SessionWords::stateLine(session(), approval ? &*approval : nullptr, nullptr, nullptr, now(), kUs);
        QString said = line.text + u" | "_s + toneWord(line.tone);
        if (line.thinking)
            said += u", pulsing"_s;
        if (line.blocked)
            said += u", blocked at "_s + QString::number(line.opacity());
        return said;
    }
    if (section == u"blocked"_s) {
        const Session s = Fixture::record<Session>(R"({"id":"s","state":"idle","blocked":)" + in.at(0).toUtf8() + "}");
        const std::optional<Account> account = maybe<Account>(in, 1);
        return blockedLine(SessionWords::blockedWords(s, nullptr, account ? &*account : nullptr, now(), kUs));
    }
    if (section == u"locale"_s) {
        Session s = Fixture::record<Session>(R"({"id":"s","state":"idle","blocked":{"kind":"limit"}})");
        s.blocked->resetsAt = Fixture::at(in.at(2).toDouble());
        const QDateTime inZone = now().toTimeZone(QTimeZone(in.at(1).toUtf8()));
        return SessionWords::blockedWords(s, nullptr, nullptr, inZone, QLocale(in.at(0)))->text;
    }
    const auto blocked = [&] { return *Session::Blocked::fromJson(json(in.at(0).toUtf8())); };
    if (section == u"limitName"_s) {
        const std::optional<Account> account = maybe<Account>(in, 1);
        return SessionWords::limitName(blocked(), account ? &*account : nullptr);
    }
    if (section == u"provider"_s) {
        const std::optional<Provider> provider = maybe<Provider>(in, 1);
        return blockedLine(SessionWords::providerWords(blocked(), provider ? &*provider : nullptr, now(), kUs));
    }
    if (section == u"actions"_s) {
        const std::optional<Provider> provider = maybe<Provider>(in, 1);
        QStringList said;
        for (const RowAction& action : SessionWords::actions(
                 session(), provider ? &*provider : nullptr, nullptr, now(), kUs, part(in, 2) == u"continuing"_s))
            said << action.title + u" ("_s + action.help + u')';
        return said.isEmpty() ? kNone : said.join(u" + "_s);
    }
    if (section == u"row"_s) {
        const Session s = session();
        return SessionWords::openTitle(s) + (SessionWords::opensTerminal(s) ? u", opens | "_s : u", stays | "_s)
            + SessionWords::help(s).trimmed() + u" | "_s + SessionWords::spokenLabel(s, nullptr, u"/Users/ann/"_s);
    }
    if (section == u"counts"_s) {
        QStringList said;
        for (const CountMark& mark : SessionWords::countMarks(in.at(0).toLongLong(), in.at(1).toLongLong())) {
            const bool rightInk = mark.ink == (mark.needs ? Ink::Amber : Ink::Green);
            said << mark.text + (mark.ink == Ink::Amber ? u" (amber)"_s : u" (green)"_s) + (rightInk ? u""_s : u"!"_s);
        }
        return said.isEmpty() ? kNone : said.join(u", "_s);
    }
    if (section == u"seat"_s) {
        const bool approval = part(in, 1) == u"approval"_s;
        QStringList said;
        if (SessionWords::isWorking(session(), approval))
            said << u"working"_s;
        if (SessionWords::needsYou(session(), approval))
            said << u"needs you"_s;
        return said.join(u", "_s);
    }
    if (section == u"empty"_s) {
        const QString& with = in.at(0);
        const bool available = with.contains(u"codex available"_s);
        return SessionWords::emptyList(
            AgentsInUse{with.startsWith(u"claude"_s), available, available, with.contains(u"codex on"_s)});
    }
    if (section == u"more"_s)
        return SessionWords::moreRows(in.at(0).toLongLong(), part(in, 1) == u"paired"_s).value_or(kNone);
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"session-words.txt"_s}, render);
}
