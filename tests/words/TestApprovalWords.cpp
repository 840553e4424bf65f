#include "link/Approval.h"
#include "link/Session.h"
#include "surface/words/ApprovalWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

const QString kNone = u"—"_s;

QString render(const QString& section, const QStringList& in)
{
    const auto approval = [&] { return Fixture::record<Approval>(in.at(0).toUtf8()); };
    const bool asks = section == u"ask"_s;
    const std::optional<Session> session
        = asks || section == u"terminal"_s ? Fixture::maybe<Session>(in.value(asks ? 1 : 0).toUtf8()) : std::nullopt;
    if (section == u"card"_s) {
        const CommandWell well = ApprovalWords::commandWell(approval());
        return ApprovalWords::toolName(approval()) + u" | "_s + well.prompt + u' ' + well.text;
    }
    if (section == u"buttons"_s) {
        QStringList said;
        for (const ApprovalButton& button : ApprovalWords::buttons(approval()))
            said << button.title + (button.help.isEmpty() ? QString() : u" ("_s + button.help + u')');
        return said.join(u" + "_s);
    }
    if (section == u"ask"_s)
        return ApprovalWords::askSummary(approval(), session ? &*session : nullptr);
    if (section == u"expiry"_s) {
        Approval a;
        if (!in.at(0).isEmpty())
            a.expiresAt = Fixture::at(in.at(0).toDouble());
        const std::optional<ExpiryWords> words = ApprovalWords::expiry(a, Fixture::now());
        if (!words)
            return kNone;
        const bool amber = words->ink == Ink::Amber;
        return words->text + u" | "_s + words->badge + (amber ? u" | amber"_s : u" | muted"_s)
            + (amber == words->emphasised ? QString() : u" but not emphasised alike"_s);
    }
    if (section == u"folded"_s) {
        Approval a;
        if (!in.at(0).isEmpty())
            a.kind = in.at(0);
        return ApprovalWords::foldedWords(a, in.at(1));
    }
    if (section == u"waiting"_s) {
        const qsizetype count = in.at(0).toLongLong();
        return ApprovalWords::waitingHeading(count) + u" | "_s + ApprovalWords::moreWaiting(count).value_or(kNone);
    }
    if (section == u"terminal"_s) {
        const TerminalAnswerWords words
            = ApprovalWords::terminalAnswer(session ? &*session : nullptr, in.value(1) == u"paired"_s);
        return words.text + u" | "_s + words.action;
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"approval-words.txt"_s}, render);
}
