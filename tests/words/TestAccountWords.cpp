#include "link/Account.h"
#include "link/Codex.h"
#include "surface/words/AccountWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

const QString kNone = u"—"_s;

QString render(const QString& section, const QStringList& in)
{
    const QString flags = in.value(1);
    if (section == u"card"_s || section == u"button"_s) {
        const Account account = Fixture::record<Account>(in.at(0).toUtf8());
        const QLocale locale(flags == u"de_DE"_s ? flags : u"en_US"_s);
        const std::optional<AccountContent> card = AccountWords::content(account, Fixture::now(), locale,
            flags.contains(u"signing in"_s), flags.contains(u"beside"_s), flags.contains(u"setup"_s));
        if (!card)
            return kNone;
        if (section == u"card"_s) {
            return QStringList{
                card->title, card->detail.value_or(kNone), card->amber ? u"amber"_s : u"plain"_s, card->help}
                .join(u" | "_s);
        }
        if (!card->action)
            return kNone;
        static const QStringList acts{u"opens "_s, u"signs in"_s, u"brings Setup forward"_s};
        return *card->action + u", "_s + acts.at(int(*card->act))
            + (card->act == AccountContent::Act::Open ? card->url.toString() : QString())
            + (card->busy ? u", spinning"_s : QString());
    }
    if (section == u"key"_s)
        return AccountWords::key(Fixture::record<Account>(in.at(0).toUtf8()));
    if (section == u"codexAccount"_s) {
        const Codex codex = Fixture::record<Codex>(R"({"available":true,"account":)" + in.at(0).toUtf8() + "}");
        return AccountWords::codexAccountWords(codex).value_or(kNone);
    }
    const Codex codex = Fixture::record<Codex>(in.at(0).toUtf8());
    if (section == u"codex"_s) {
        const std::optional<CodexCardWords> card = AccountWords::codexCard(codex);
        return card ? card->title + (card->raisesDot ? u", dot | "_s : u", no dot | "_s) + card->detail : kNone;
    }
    if (section == u"codexCard"_s) {
        const std::optional<CodexAccountCardWords> card = AccountWords::codexAccountCard(codex, true);
        // Where Claude Code leads, Codex never shows a card of its own.
        if (AccountWords::codexAccountCard(codex, false))
            return u"a card beside Claude Code"_s;
        return card ? QStringList{card->line, card->action, card->key, card->help}.join(u" | "_s) : kNone;
    }
    if (section == u"codexLine"_s) {
        const std::optional<CodexLine> line = AccountWords::codexLine(codex, flags == u"beside"_s);
        if (!line)
            return kNone;
        return (line->label.isEmpty() ? QString() : line->label + u": "_s) + line->text
            + (line->ink == Ink::Amber ? u" (amber) | "_s : u" (secondary) | "_s) + line->spoken;
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"account-words.txt"_s}, render);
}
