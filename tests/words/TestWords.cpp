#include "awake/AwakeWords.h"
#include "link/Account.h"
#include "link/Approval.h"
#include "link/AutomationsSnapshot.h"
#include "link/AutomationsStatus.h"
#include "link/Awake.h"
#include "link/Battery.h"
#include "link/Codex.h"
#include "link/Session.h"
#include "surface/words/AccountWords.h"
#include "surface/words/ApprovalWords.h"
#include "surface/words/BatteryWords.h"
#include "surface/words/CaptureReport.h"
#include "surface/words/ConnectionPill.h"
#include "surface/words/DeviceWords.h"
#include "surface/words/PairWords.h"
#include "surface/words/PhoneAccessWords.h"
#include "surface/words/SettingsWords.h"
#include "workflows/AutomationWords.h"
#include "workflows/AutomationsState.h"

#include "Fixture.h"
#include "Golden.h"
#include "GoldenTest.h"

#include <QHash>
#include <QJsonArray>
#include <limits>

using namespace Qt::StringLiterals;

// The golden files of the smaller word modules, each read by its own render.
namespace {

const QString kNone = u"—"_s;
const QLocale kUs(u"en_US"_s);

QString accountWords(const QString& section, const QStringList& in)
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

QString approvalWords(const QString& section, const QStringList& in)
{
    const auto approval = [&] { return Fixture::record<Approval>(in.at(0).toUtf8()); };
    const bool asks = section == u"ask"_s;
    const std::optional<Session> session
        = asks || section == u"terminal"_s ? Fixture::maybe<Session>(in.value(asks ? 1 : 0).toUtf8()) : std::nullopt;
    if (section == u"command"_s) {
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

AutomationsState automations(const QString& source, const QString& text)
{
    if (source == u"status"_s)
        return AutomationsState::fromStatus(Fixture::record<AutomationsStatus>(text.toUtf8()));
    return AutomationsState::fromSnapshot(Fixture::record<AutomationsSnapshot>(text.toUtf8()));
}

QString listed(const QStringList& items)
{
    return items.isEmpty() ? kNone : items.join(u", "_s);
}

QString known(const AutomationsState& state)
{
    QStringList next, running;
    for (const AutomationsState::Next& one : state.upcoming)
        next << one.name;
    for (const AutomationsState::Running& one : state.running) {
        running << one.name + (one.sessionId ? u" in "_s + *one.sessionId : QString())
                + (one.needsYou ? u" needing you"_s : QString());
    }
    QStringList said{QString::number(state.count) + (state.paused ? u", paused"_s : QString()),
        u"on "_s + (state.enabled ? QString::number(*state.enabled) : u"?"_s), u"next "_s + listed(next),
        u"running "_s + listed(running), u"features "_s + (state.features ? state.features->join(u',') : u"?"_s)};
    if (!state.eventNames.isEmpty())
        said << u"events "_s + listed(state.eventNames);
    return said.join(u" | "_s);
}

QString automationLine(const AutomationsState& state)
{
    const std::optional<AutomationWords::Line> line = AutomationWords::line(state, Fixture::now(), kUs);
    if (!line)
        return kNone;
    static const QStringList kinds{u"paused"_s, u"running"_s, u"next"_s, u"ready"_s};
    QStringList said{
        kinds.at(int(line->kind)) + u": "_s + line->text, line->figure ? line->figure->text : kNone, line->help};
    if (line->needsYou)
        said << u"needs you"_s;
    if (line->tag)
        said << *line->tag;
    if (line->action)
        said << *line->action;
    return said.join(u" | "_s);
}

QString automationWords(const QString& section, const QStringList& in)
{
    if (section == u"state"_s)
        return known(automations(in.at(0), in.at(1)));
    if (section == u"run ask"_s) {
        const AutomationsState s = automations(u"snapshot"_s,
            uR"({"features":["steps","ask"],"list":[{"id":"au_a","name":"A","lastRun":)"_s + in.at(0) + u"}]}"_s);
        if (s.asks.isEmpty())
            return kNone;
        const WFAskItem& ask = s.asks.first();
        return u"%1 of %2 at %3: %4, else %5, until +%6 s"_s.arg(ask.runId, ask.automationId, ask.stepId,
            ask.answers.join(u" or "_s), ask.defaultAnswer,
            QString::number((ask.until.msecsSinceEpoch - Fixture::kNowMs) / 1000));
    }
    if (section == u"line"_s)
        return automationLine(automations(u"snapshot"_s, in.at(0)));
    if (section == u"time"_s)
        return AutomationWords::time(Fixture::at(in.at(1).toDouble()), Fixture::now(), QLocale(in.at(0)));
    if (section == u"settings"_s)
        return AutomationWords::settingsLine(automations(in.at(0), in.at(1)), Fixture::now(), kUs);
    if (section == u"chip"_s) {
        AutomationRef ref;
        if (!in.at(0).isEmpty())
            ref.name = Fixture::json("[" + in.at(0).toUtf8() + "]").toArray().at(0).toString();
        return QStringList{AutomationWords::chip(), AutomationWords::chipHelp(ref), AutomationWords::foldedWords()}
            .join(u" | "_s);
    }
    if (section == u"resume"_s)
        return AutomationWords::resumeHelp();
    return u"no words for the section "_s + section;
}

QString awakeSaid(const QString& what)
{
    const auto mode = [](Awake::Mode m) { return AwakeWords::modeTitle(m) + u" | "_s + AwakeWords::modeHelp(m); };
    if (what == u"off"_s)
        return mode(Awake::Mode::Off);
    if (what == u"working"_s)
        return mode(Awake::Mode::Working);
    if (what == u"backpack"_s)
        return mode(Awake::Mode::Backpack);
    if (what == u"minBattery"_s)
        return AwakeWords::minBatteryCaption();
    if (what.startsWith(u"permission"_s))
        return AwakeWords::permissionCaption(what.endsWith(u"set up"_s));
    if (what == u"settings"_s)
        return AwakeWords::settingsCaption();
    const BackpackOffer offer = AwakeWords::backpackOffer(what.section(u' ', 1).toLongLong());
    return QStringList{offer.title, offer.body, offer.enable, offer.enableBusy, offer.decline}.join(u" | "_s);
}

QString awakeWords(const QString& section, const QStringList& in)
{
    if (section == u"duration"_s) {
        const double seconds = in.at(0) == u"nan"_s ? std::numeric_limits<double>::quiet_NaN() : in.at(0).toDouble();
        return AwakeWords::duration(seconds);
    }
    if (section == u"said"_s)
        return awakeSaid(in.at(0));
    const Awake awake = Fixture::record<Awake>(in.at(0).toUtf8());
    if (section == u"extend"_s)
        return AwakeWords::extendLabel(awake, Fixture::now()).value_or(kNone);
    if (section == u"phrase"_s)
        return AwakeWords::phrase(awake, Fixture::now())
            + (AwakeWords::isHighlighted(awake) ? u" | highlighted"_s : u""_s);
    if (section == u"sentence"_s) {
        std::optional<Battery> battery;
        if (!in.value(1).isEmpty()) {
            battery = Battery{};
            battery->percent = in.at(1).toDouble();
        }
        const QLocale locale(in.value(2, u"en_US"_s));
        const std::optional<AwakeLine> line = AwakeWords::sentence(awake, Fixture::now(), battery, locale);
        return line ? line->text + (line->warn ? u" | warns"_s : u""_s) : kNone;
    }
    if (section == u"minBattery"_s) {
        const MinBatteryControl control = AwakeWords::minBatteryControl(awake.minBattery);
        return control.text + u" |"_s + (control.canRaise ? u" +"_s : u""_s) + (control.canLower ? u" −"_s : u""_s);
    }
    if (section == u"setUp"_s)
        return AwakeWords::backpackSetUp(awake, in.value(1) == u"rule file"_s) ? u"set up"_s : u"not set up"_s;
    return u"no words for the section "_s + section;
}

QString batteryWords(const QString& section, const QStringList& in)
{
    const Battery battery = Fixture::record<Battery>(in.at(0).toUtf8());
    if (section == u"notification"_s)
        return BatteryWords::notification(battery);
    if (section != u"battery"_s)
        return u"no words for the section "_s + section;
    const std::optional<BatteryLine> line = BatteryWords::line(battery);
    if (!line)
        return u"—"_s;
    QStringList said{line->text, line->time};
    if (line->critical)
        said << u"critical"_s;
    return (said << line->help).join(u" | "_s);
}

QString captureReport(const QString& section, const QStringList& in)
{
    if (section == u"statusItem"_s) {
        const QRect place
            = in.size() == 4 ? QRect(in.at(0).toInt(), in.at(1).toInt(), in.at(2).toInt(), in.at(3).toInt()) : QRect();
        return CaptureReport::statusItemLine(place);
    }
    if (section == u"popover"_s)
        return CaptureReport::popoverLine(in.at(0) == u"yes"_s);
    if (section == u"picture"_s)
        return CaptureReport::pictureLine(in.at(0), in.value(1));
    if (section == u"missingWindow"_s)
        return CaptureReport::missingWindowLine(in.at(0));
    return u"no words for the section "_s + section;
}

QString connectionPill(const QString& section, const QStringList& in)
{
    if (section == u"connected"_s)
        return ConnectionPill::connectedSentence(in.at(0).toLongLong());
    if (section == u"devices"_s) {
        const std::optional<LocalStatus> status
            = Fixture::maybe<LocalStatus>(R"({"tailscale":{"installed":false},"devices":)" + in.at(0).toUtf8() + "}");
        const ConnectionPill::Look look = ConnectionPill::look({true, true, status, false}, Fixture::now());
        return u"%1 phones"_s.arg(look.phones) + (look.glasses ? u", glasses"_s : QString());
    }
    if (section != u"look"_s)
        return u"no words for the section "_s + section;
    const QString& flags = in.at(0);
    const std::optional<LocalStatus> status = Fixture::maybe<LocalStatus>(in.value(1).toUtf8());
    const ConnectionPill::Look look = ConnectionPill::look(
        {flags.contains(u"first read done"_s), flags.contains(u"alive"_s), status, true}, Fixture::now());
    static const QStringList routes{u"tailnet"_s, u"lan"_s, u"none"_s};
    return Golden::inkName(look.dot) + u": "_s + look.word + u" | "_s + look.help + u" | "_s
        + routes.at(int(look.route)) + (look.glow ? u", glowing"_s : QString());
}

QString settingsWords(const QString& section, const QStringList& in)
{
    const auto status = [&](int at) { return Fixture::record<LocalStatus>(in.value(at).toUtf8()); };
    if (section == u"phone access"_s) {
        const std::optional<LocalStatus> read = Fixture::maybe<LocalStatus>(in.value(1).toUtf8());
        const PhoneAccessWords::Row row = PhoneAccessWords::row({in.at(0) == u"up"_s, read});
        const std::optional<QString> wifi = read ? PhoneAccessWords::wifiLine(*read) : std::nullopt;
        return (row.url ? *row.url + u" | "_s : QString()) + row.lines.join(u" / "_s) + u" ("_s
            + Golden::inkName(row.ink) + u')' + (wifi ? u" + "_s + *wifi : QString());
    }
    if (section == u"key expiry"_s) {
        const std::optional<PhoneAccessWords::KeyWarning> key = PhoneAccessWords::keyWarning(status(0), Fixture::now());
        return key ? QStringList{key->text, key->action, key->line, key->help}.join(u" | "_s) : kNone;
    }
    if (section == u"route choice"_s) {
        const auto said = [](const std::optional<PhoneAccessWords::Choice>& choice) {
            return choice ? choice->title + u" ("_s + choice->help + u')' : kNone;
        };
        const LocalStatus read = status(0);
        return said(PhoneAccessWords::routeChoice(read)) + u" + "_s + said(PhoneAccessWords::signOut(read));
    }
    if (section == u"device"_s) {
        const QList<Device> devices
            = Fixture::record<LocalStatus>(R"({"devices":)" + in.at(1).toUtf8() + "}").devices.items;
        const DeviceWords::Row row = DeviceWords::row(Fixture::record<Device>(in.at(0).toUtf8()), devices);
        const DeviceWords::Forget forget = DeviceWords::forget(row);
        return row.name + (row.via ? u", "_s + *row.via : QString()) + u" | "_s
            + QStringList{forget.title, forget.line, forget.help, forget.keep, forget.forget}.join(u" | "_s);
    }
    if (section == u"switch"_s) {
        const SettingsWords::Switch words
            = in.at(0) == u"files"_s ? SettingsWords::files(status(1)) : SettingsWords::privateName(status(1));
        return words.title + (words.on ? u", on"_s : u", off"_s) + (words.tag ? u" ["_s + *words.tag + u']' : QString())
            + u" | "_s + words.help + u" | "_s + words.why.value_or(kNone) + u" | "_s + words.note.value_or(kNone);
    }
    if (section == u"files changed"_s)
        return SettingsWords::filesChanged(in.at(0) == u"on"_s);
    return u"no words for the section "_s + section;
}

QString pairWords(const QString& section, const QStringList& in)
{
    if (section == u"pair download"_s) {
        const QString address = PairWords::downloadAddress(Fixture::record<LocalStatus>(in.at(0).toUtf8()));
        return address.isEmpty() ? kNone : address;
    }
    if (section == u"pair fixed"_s) {
        static const QHash<QString, std::function<QString()>> fixed{{u"stale"_s, PairWords::staleAddress},
            {u"another"_s, PairWords::pairAnother}, {u"another help"_s, PairWords::pairAnotherHelp},
            {u"copy"_s, PairWords::copyLink}, {u"copy help"_s, PairWords::copyLinkHelp},
            {u"download"_s, PairWords::downloadLine}, {u"settings"_s, PairWords::settings},
            {u"settings help"_s, PairWords::settingsHelp}, {u"back"_s, PairWords::back}};
        return fixed.value(in.at(0))();
    }
    using Phase = PopoverPairing::Phase;
    static const QHash<QString, Phase> phases{{u"starting"_s, Phase::Starting}, {u"showing"_s, Phase::Showing},
        {u"needsAccess"_s, Phase::NeedsAccess}, {u"failed"_s, Phase::Failed}, {u"paired"_s, Phase::Paired}};
    const QString flags = in.value(2);
    const bool stale = in.value(1) == u"stale"_s;
    const PairWords::Page page = PairWords::page(phases.value(in.at(0)),
        stale ? PopoverPairing::Failure::StaleAddress : PopoverPairing::Failure::Service,
        stale ? QString() : in.value(1), flags.contains(u"code"_s), flags.contains(u"lan only"_s));
    const auto orNone = [](const QString& text) { return text.isEmpty() ? kNone : text; };
    return QStringList{page.lead, orNone(page.detail), orNone(page.wifi), page.showsCode ? u"QR"_s : u"no QR"_s,
        page.offersAnother ? PairWords::pairAnother() : kNone, page.warns ? u"amber"_s : u"plain"_s}
        .join(u" | "_s);
}

} // namespace

int main(int argc, char** argv)
{
    const QList<std::pair<QString, GoldenTest::Render>> modules{
        {u"account-words.txt"_s, accountWords},
        {u"approval-words.txt"_s, approvalWords},
        {u"automation-words.txt"_s, automationWords},
        {u"awake-words.txt"_s, awakeWords},
        {u"battery-words.txt"_s, batteryWords},
        {u"capture-report.txt"_s, captureReport},
        {u"connection-pill.txt"_s, connectionPill},
        {u"pair-words.txt"_s, pairWords},
        {u"settings-words.txt"_s, settingsWords},
    };
    // No two files share a section, so the section alone picks the render.
    QStringList files;
    QHash<QString, GoldenTest::Render> bySection;
    for (const auto& [file, render] : modules) {
        files << file;
        for (const Golden::Row& row : Golden::read(file))
            bySection.insert(row.section, render);
    }
    return GoldenTest::main(argc, argv, files,
        [&](const QString& section, const QStringList& in) { return bySection.value(section)(section, in); });
}
