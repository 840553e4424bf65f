#include "surface/PopoverPage.h"

#include "awake/AwakeWords.h"
#include "model/Agents.h"
#include "model/AppModel.h"
#include "model/DismissedNotices.h"
#include "surface/PopoverPages.h"
#include "surface/SettingsPage.h"
#include "surface/words/AccountWords.h"
#include "surface/words/ApprovalWords.h"
#include "surface/words/BatteryWords.h"
#include "surface/words/ConnectionPill.h"
#include "surface/words/MeterReading.h"
#include "surface/words/ModelChip.h"
#include "surface/words/NoticeWords.h"
#include "surface/words/PairWords.h"
#include "surface/words/RowAction.h"
#include "surface/words/SessionList.h"
#include "surface/words/SessionTitle.h"
#include "surface/words/SmallPrint.h"
#include "surface/words/StateLine.h"
#include "surface/words/UsageSection.h"
#include "surface/words/UsageWords.h"
#include "workflows/AutomationWords.h"

#include <QVariantList>

using namespace Qt::StringLiterals;

namespace PopoverPage {

namespace {

QVariant text(const std::optional<QString>& value)
{
    return value ? QVariant(*value) : QVariant(QString());
}

const Session* sessionById(const QList<Session>& sessions, const std::optional<QString>& id)
{
    if (!id)
        return nullptr;
    for (const Session& session : sessions) {
        if (session.id == *id)
            return &session;
    }
    return nullptr;
}

bool phonePaired(const std::optional<LocalStatus>& status)
{
    return status && !status->devices.items.isEmpty();
}

QVariantMap pill(const AppModel& model, const QDateTime& now)
{
    const ConnectionPill::Look look = ConnectionPill::look(
        {model.firstPollDone(), model.serviceUp(), model.status(), model.statusCountsFeed()}, now);
    return {{u"dot"_s, inkHex(look.dot)}, {u"glow"_s, look.glow}, {u"word"_s, look.word}, {u"help"_s, look.help}};
}

/// The row's buttons that work from the panel; the rest belong to the providers' window.
bool rowActionActs(RowAction::Act act)
{
    return act != RowAction::Act::TopUp && act != RowAction::Act::FixKey;
}

/// The page's word for the card's button, empty where the button has nothing to open yet.
QString accountAct(const AccountContent& content)
{
    if (!content.action || !content.act)
        return {};
    switch (*content.act) {
    case AccountContent::Act::Open:
        return content.url.isValid() ? kAccountOpen.toString() : QString();
    case AccountContent::Act::SignIn:
        return kAccountSignIn.toString();
    case AccountContent::Act::Setup:
        break;
    }
    return {};
}

QVariantList notices(const Inputs& in)
{
    QVariantList list;
    for (const Notice& notice : in.dismissed.visibleOf(currentNotices(in.model, in.now))) {
        list << QVariantMap{{u"id"_s, notice.id}, {u"ink"_s, inkHex(toneInk(notice.tone))}, {u"title"_s, notice.title},
            {u"line"_s, text(notice.line)}, {u"action"_s, noticeActs(notice) ? text(notice.action) : QString()},
            {u"busy"_s, notice.busy}, {u"help"_s, text(noticeHelp(notice))}, {u"choices"_s, notice.choices},
            {u"figure"_s, text(noticeFigure(notice, in.now))}};
    }
    return list;
}

// The one line about automations, with what a click on it does: resume them
// all while paused, or open the terminal of the one run at work.
std::optional<QVariantMap> automationsLine(const Inputs& in)
{
    const std::optional<AutomationsState> state = in.model.automations();
    if (!state)
        return std::nullopt;
    const std::optional<AutomationWords::Line> line = AutomationWords::line(*state, in.now, in.locale);
    if (!line)
        return std::nullopt;
    static const QStringList kinds{u"paused"_s, u"running"_s, u"next"_s, u"ready"_s};
    QVariantMap map{{u"kind"_s, kinds.at(int(line->kind))}, {u"text"_s, line->text},
        {u"figure"_s, line->figure ? line->figure->text : QString()},
        {u"glyph"_s,
            !line->figure ? QString()
                          : (line->figure->glyph == AutomationWords::Glyph::Timer ? u"timer"_s : u"clock"_s)},
        {u"tag"_s, text(line->tag)}, {u"needsYou"_s, line->needsYou}, {u"help"_s, line->help},
        {u"action"_s, text(line->action)}, {u"actionHelp"_s, line->action ? AutomationWords::resumeHelp() : QString()},
        {u"sessionId"_s, QString()}};
    if (line->kind == AutomationWords::Kind::Running && state->running.size() == 1)
        map.insert(u"sessionId"_s, text(state->running.first().sessionId));
    return map;
}

QVariantList buttons(const Approval& approval)
{
    QVariantList list;
    for (const ApprovalButton& button : ApprovalWords::buttons(approval))
        list << QVariantMap{{u"title"_s, button.title}, {u"help"_s, button.help}, {u"decision"_s, button.decision}};
    return list;
}

QVariantMap attentionItem(const NeedsYouItem& item, const QList<Session>& sessions, const Inputs& in)
{
    const Approval& approval = item.approval();
    const Session* session = sessionById(sessions, approval.sessionId);
    QVariantMap card{{u"id"_s, approval.id}, {u"source"_s, session ? SessionWords::title(*session) : QString()}};
    if (const Answered* answer = item.answer()) {
        card.insert(u"type"_s, u"folded"_s);
        card.insert(u"words"_s, ApprovalWords::foldedWords(approval, answer->decision));
        return card;
    }
    if (const std::optional<ExpiryWords> expiry = ApprovalWords::expiry(approval, in.now)) {
        card.insert(u"expiry"_s, expiry->text);
        card.insert(u"expiryInk"_s, inkHex(expiry->ink));
        card.insert(u"expiryHelp"_s, ApprovalWords::expiryHelp());
    }
    if (!ApprovalWords::isToolRequest(approval)) {
        const TerminalAnswerWords there = ApprovalWords::terminalAnswer(session, phonePaired(in.model.status()));
        card.insert(u"type"_s, u"ask"_s);
        card.insert(u"summary"_s, ApprovalWords::askSummary(approval, session));
        card.insert(u"where"_s, there.text);
        card.insert(u"whereAction"_s, there.action);
        card.insert(u"sessionId"_s, session ? session->id : QString());
        return card;
    }
    const CommandWell well = ApprovalWords::commandWell(approval);
    card.insert(u"type"_s, u"approval"_s);
    card.insert(u"tool"_s, ApprovalWords::toolName(approval));
    card.insert(u"prompt"_s, well.prompt);
    card.insert(u"command"_s, well.text);
    card.insert(u"buttons"_s, buttons(approval));
    return card;
}

QVariantMap row(const Session& session, const QList<Approval>& open, const Snapshot& snapshot, const Inputs& in)
{
    const Provider* provider = SessionWords::providerOf(session, snapshot.providers.items);
    const Account* account = snapshot.account ? &*snapshot.account : nullptr;
    const Approval* approval = nullptr;
    for (const Approval& candidate : open) {
        if (candidate.sessionId == session.id) {
            approval = &candidate;
            break;
        }
    }
    const StateLine line = SessionWords::stateLine(session, approval, provider, account, in.now, in.locale);
    const SessionStamp stamp = SessionWords::stamp(session, in.now);
    const SmallPrint small = SessionWords::smallPrint(session, false);
    QStringList print;
    for (const std::optional<QString>& part : {small.queued, small.agents}) {
        if (part)
            print << *part;
    }
    QVariantList actions;
    for (const RowAction& action : SessionWords::actions(session, provider, account, in.now, in.locale, false)) {
        if (!rowActionActs(action.act))
            continue;
        actions << QVariantMap{{u"act"_s, int(action.act)}, {u"title"_s, action.title}, {u"help"_s, action.help}};
    }
    return {{u"id"_s, session.id}, {u"title"_s, SessionWords::title(session)},
        {u"place"_s, text(SessionWords::place(session, in.home))}, {u"chip"_s, SessionWords::chip(session, provider)},
        {u"mode"_s, text(SessionWords::modeTag(session.permissionMode))}, {u"stamp"_s, stamp.hex},
        {u"age"_s, stamp.age}, {u"stampHelp"_s, stamp.help}, {u"line"_s, line.text}, {u"lineInk"_s, inkHex(line.ink())},
        {u"lineOpacity"_s, line.opacity()}, {u"thinking"_s, line.thinking}, {u"small"_s, print.join(u" · "_s)},
        {u"actions"_s, actions}, {u"opens"_s, SessionWords::opensTerminal(session)},
        {u"openTitle"_s, SessionWords::openTitle(session)}, {u"help"_s, SessionWords::help(session)},
        {u"spoken"_s, SessionWords::spokenLabel(session, provider, in.home)}};
}

QVariantMap meter(const Meter& meter, const Inputs& in)
{
    const MeterLook look = MeterWords::look(meter.reading, in.now, in.locale);
    return {{u"label"_s, meter.label.toUpper()}, {u"chip"_s, text(meter.chip)}, {u"percent"_s, look.percent},
        {u"percentInk"_s, inkHex(look.percentInk)}, {u"barInk"_s, inkHex(look.barInk)}, {u"fill"_s, look.fill},
        {u"ghost"_s, look.ghost.value_or(-1)}, {u"tag"_s, look.tagText}, {u"tagInk"_s, inkHex(look.tagInk)},
        {u"spoken"_s, meter.reading.sentence(in.now, in.locale)}};
}

QVariantList meterList(const QList<Meter>& meters, const Inputs& in)
{
    QVariantList list;
    for (const Meter& m : meters)
        list << meter(m, in);
    return list;
}

QVariantMap usageSection(const Inputs& in, const AgentsInUse& agents)
{
    const AppModel& model = in.model;
    const std::optional<Snapshot>& snapshot = model.snapshot();
    const std::optional<Usage> usage = snapshot ? snapshot->usage : std::nullopt;
    const Account* account = snapshot && snapshot->account ? &*snapshot->account : nullptr;
    const std::optional<Codex> codex = model.trustedCodex();
    const UsageSection section = UsageSection::build({usage, account, codex, agents, in.now, in.locale});
    QVariantMap map{{u"shown"_s, section.shown}, {u"heading"_s, UsageWords::heading().toUpper()},
        {u"note"_s, text(section.note)}, {u"claudeLine"_s, text(section.claudeLine)},
        {u"claudeMeters"_s, meterList(section.claudeMeters, in)}, {u"probeLine"_s, text(section.probeLine)},
        {u"codexLeadLine"_s, text(section.codexLeadLine)}, {u"codexMeters"_s, meterList(section.codexMeters, in)},
        {u"codexLimitedLine"_s, text(section.codexLimitedLine)},
        {u"codexError"_s, section.codex ? text(model.codexError()) : QVariant(QString())}};
    if (const std::optional<Notice> card = codexCardNotice(model, in.now); card && in.dismissed.visible(*card)) {
        map.insert(u"codexCard"_s,
            QVariantMap{{u"id"_s, card->id}, {u"ink"_s, inkHex(toneInk(card->tone))}, {u"title"_s, card->title},
                {u"line"_s, text(card->line)}, {u"action"_s, text(card->action)}, {u"busy"_s, card->busy},
                {u"help"_s, text(noticeHelp(*card))}});
    }
    if (section.codexLine) {
        map.insert(u"codexLine"_s,
            QVariantMap{{u"text"_s, section.codexLine->text}, {u"label"_s, section.codexLine->label},
                {u"ink"_s, inkHex(section.codexLine->ink)}, {u"opacity"_s, section.codexLine->opacity},
                {u"spoken"_s, section.codexLine->spoken}});
    }
    return map;
}

QVariantMap awake(const Awake& record, const Inputs& in, const std::optional<Battery>& battery)
{
    QVariantList modes;
    const Awake::Mode shown = in.model.awakeChoice().value_or(record.mode);
    for (const Awake::Mode mode : {Awake::Mode::Working, Awake::Mode::Backpack, Awake::Mode::Off}) {
        modes << QVariantMap{{u"name"_s, awakeModeName(mode)}, {u"title"_s, AwakeWords::modeTitle(mode)},
            {u"help"_s, AwakeWords::modeHelp(mode)}, {u"chosen"_s, mode == shown}};
    }
    const std::optional<AwakeLine> line = AwakeWords::sentence(record, in.now, battery, in.locale);
    QVariantMap section{{u"heading"_s, u"Stay awake"_s}, {u"extendTitle"_s, u"Extend"_s},
        {u"lower"_s, u"Lower the battery level"_s}, {u"raise"_s, u"Raise the battery level"_s}, {u"modes"_s, modes},
        {u"phrase"_s, AwakeWords::phrase(record, in.now)}, {u"line"_s, line ? line->text : QString()},
        {u"warn"_s, AwakeWords::isHighlighted(record)}, {u"extend"_s, text(AwakeWords::extendLabel(record, in.now))},
        {u"backpackSetUp"_s, AwakeWords::backpackSetUp(record, in.backpackRuleExists)},
        {u"busy"_s, in.model.backpackBusy()}};
    if (record.mode == Awake::Mode::Backpack) {
        const MinBatteryControl control = AwakeWords::minBatteryControl(record.minBattery);
        section.insert(u"battery"_s,
            QVariantMap{{u"value"_s, control.value}, {u"text"_s, control.text}, {u"canRaise"_s, control.canRaise},
                {u"canLower"_s, control.canLower}, {u"caption"_s, AwakeWords::minBatteryCaption()}});
    }
    const BackpackOffer offer = AwakeWords::backpackOffer(record.minBattery);
    section.insert(u"offer"_s,
        QVariantMap{{u"title"_s, offer.title}, {u"body"_s, offer.body}, {u"enable"_s, offer.enable},
            {u"busy"_s, offer.enableBusy}, {u"decline"_s, offer.decline}});
    return section;
}

QVariantMap dialog(const GlassDialog& dialog, bool working)
{
    return {{u"eyebrow"_s, dialog.eyebrow}, {u"title"_s, dialog.title}, {u"line"_s, dialog.line},
        {u"more"_s, text(dialog.more)}, {u"accent"_s, inkHex(toneInk(dialog.accent))},
        {u"secondary"_s, text(dialog.secondary)},
        {u"primary"_s, working && dialog.busy ? *dialog.busy : dialog.primary}, {u"option"_s, text(dialog.option)},
        {u"working"_s, working}};
}

void addMainPage(QVariantMap& page, const Inputs& in, const AgentsInUse& agents)
{
    const AppModel& model = in.model;
    const Snapshot snapshot = model.snapshot().value_or(Snapshot{});
    const QList<Session>& sessions = snapshot.sessions.items;

    if (snapshot.mac && snapshot.mac->battery) {
        if (const std::optional<BatteryLine> battery = BatteryWords::line(*snapshot.mac->battery)) {
            page.insert(u"battery"_s,
                QVariantMap{{u"text"_s, battery->text}, {u"time"_s, battery->time}, {u"help"_s, battery->help},
                    {u"critical"_s, battery->critical}});
        }
    }
    page.insert(u"notices"_s, notices(in));
    if (const std::optional<QString> undo = in.dismissed.undoLine())
        page.insert(u"undo"_s, QVariantMap{{u"text"_s, *undo}, {u"action"_s, u"Undo"_s}});

    // What waits: every card the model holds, answered ones folded in place.
    const QList<NeedsYouItem> items = model.needsYou();
    QVariantList attention;
    for (const NeedsYouItem& item : items)
        attention << attentionItem(item, sessions, in);
    page.insert(u"attention"_s, attention);
    if (!items.isEmpty())
        page.insert(u"waitingHeading"_s, ApprovalWords::waitingHeading(model.waitingApprovals().size()));

    // The sessions, with their counts in the seam above.
    const QList<Approval> open = Attention::openApprovals(model.snapshot(), model.status());
    qint64 needs = 0;
    qint64 working = 0;
    for (const Session& session : sessions) {
        const bool hasApproval = std::any_of(
            open.begin(), open.end(), [&session](const Approval& a) { return a.sessionId == session.id; });
        needs += SessionWords::needsYou(session, hasApproval) ? 1 : 0;
        working += SessionWords::isWorking(session, hasApproval) ? 1 : 0;
    }
    QVariantList marks;
    for (const CountMark& mark : SessionWords::countMarks(needs, working))
        marks << QVariantMap{{u"text"_s, mark.text}, {u"ink"_s, inkHex(mark.ink)}};
    page.insert(u"seam"_s,
        QVariantMap{{u"label"_s, SessionWords::seamLabel()}, {u"marks"_s, marks},
            {u"quiet"_s, marks.isEmpty() ? SessionWords::seamQuiet() : QString()}});
    const QList<Session> ordered = SessionWords::ordered(sessions);
    QVariantList rows;
    for (qsizetype i = 0; i < ordered.size() && i < kShownRows; ++i)
        rows << row(ordered.at(i), open, snapshot, in);
    page.insert(u"sessions"_s, rows);
    page.insert(u"more"_s,
        text(SessionWords::moreRows(std::max<qsizetype>(0, ordered.size() - kShownRows), phonePaired(model.status()))));
    if (ordered.isEmpty())
        page.insert(u"empty"_s, SessionWords::emptyList(agents));
    if (const std::optional<QVariantMap> line = automationsLine(in))
        page.insert(u"automations"_s, *line);

    // The account, then the usage windows.
    if (snapshot.account) {
        if (const std::optional<AccountContent> content
            = AccountWords::content(*snapshot.account, in.now, in.locale, model.signingIn(), agents.codexBeside())) {
            const QString act = accountAct(*content);
            page.insert(u"account"_s,
                QVariantMap{{u"title"_s, content->title}, {u"detail"_s, text(content->detail)},
                    {u"ink"_s, inkHex(content->amber ? Ink::Amber : Ink::Secondary)},
                    {u"action"_s, act.isEmpty() ? QString() : text(content->action)}, {u"act"_s, act},
                    {u"url"_s, content->url.toString()}, {u"busy"_s, content->busy}, {u"help"_s, content->help}});
        }
    }
    page.insert(u"usage"_s, usageSection(in, agents));

    if (snapshot.mac && snapshot.mac->awake)
        page.insert(u"awake"_s, awake(*snapshot.mac->awake, in, snapshot.mac->battery));
}

/// The SDK, Codex's age and the Tailscale key, as the notices read them.
void addSetupFacts(NoticeInputs& inputs, const AppModel& model)
{
    // The SDK serves Claude Code's sessions alone: without Claude Code its state says nothing to the user.
    const std::optional<ClaudeSDK::State>& sdk = model.claudeSDK();
    if (sdk && !sdk->isCurrent() && model.agentsInUse().claude)
        inputs.sdk = sdk->installed ? NoticeInputs::Sdk::OutOfDate : NoticeInputs::Sdk::Missing;
    inputs.sdkFetchFailed = model.sdkFetchFailed();
    inputs.fetchingSDK = model.fetchingSDK();

    const std::optional<Codex> codex = Agents::trustedCodex(
        {model.snapshot(), model.status(), model.serviceUp(), model.isSample(), false, std::nullopt});
    inputs.codexTooOld = codex && !codex->available && codex->problem && !codex->problem->trimmed().isEmpty();

    const std::optional<LocalStatus>& status = model.status();
    // The built-in node renews its own key; only the Tailscale app's can run out.
    const bool builtIn = status && status->tsnet && status->tsnet->mode == u"builtIn";
    if (status && status->tailscale && !builtIn)
        inputs.keyExpiry = status->tailscale->keyExpiry;
}

} // namespace

QList<Notice> currentNotices(const AppModel& model, const QDateTime& now)
{
    NoticeInputs inputs;
    inputs.serviceUp = model.serviceUp();
    inputs.lastError = model.lastError();
    inputs.restarting = model.restarting();
    if (const std::optional<AutomationsState> automations = model.automations())
        inputs.asks = automations->asks;
    inputs.serviceUpdate = model.serviceUpdate();
    inputs.updatingService = model.updatingService();
    inputs.setupGap = Agents::setupGap(model.agentsInUse(), model.status(), model.environment().isTestCopy());
    addSetupFacts(inputs, model);
    return buildNotices(inputs, now);
}

std::optional<Notice> codexCardNotice(const AppModel& model, const QDateTime& now)
{
    const std::optional<Codex> codex = model.trustedCodex();
    if (!codex)
        return std::nullopt;
    const std::optional<Usage> usage = model.snapshot() ? model.snapshot()->usage : std::nullopt;
    const UsageSection section = UsageSection::build({usage, nullptr, codex, model.agentsInUse(), now, QLocale::c()});
    if (!section.codexCard)
        return std::nullopt;
    const CodexAccountCardWords& words = *section.codexCard;
    Notice notice;
    notice.id = QString::fromLatin1(UsageSection::kCodexCardId);
    notice.tone = Tone::Amber;
    notice.title = words.title;
    notice.line = words.line;
    notice.help = words.help;
    notice.key = words.key;
    // Setup has no window to open yet, so only the sign-in has a button.
    if (words.act == CodexAccountCardWords::Act::SignIn) {
        notice.action = words.action;
        notice.busy = model.codexBusy();
    }
    return notice;
}

bool opensPairing(const Notice& notice)
{
    return notice.id == u"setup" && notice.key == u"phone";
}

bool noticeActs(const Notice& notice)
{
    // The other setup steps and voice open the setup window, which the panel can't show yet.
    const QString& id = notice.id;
    return id == u"error" || id == u"update" || id == u"sdk" || id == u"key" || opensPairing(notice);
}

QVariantMap build(const Inputs& in)
{
    const AppModel& model = in.model;
    const AgentsInUse agents = model.agentsInUse();
    QVariantMap page{{u"pill"_s, pill(model, in.now)}, {u"note"_s, model.noteText()}};

    QString state = u"main"_s;
    if (!model.firstPollDone()) {
        state = u"checking"_s;
        page.insert(u"checking"_s, checkingLine());
    } else if (!model.serviceUp()) {
        state = u"down"_s;
        const ServiceDownCard card = serviceDownCard(
            {model.serviceNodeGone(), model.serviceInstalled(), model.repairing(), model.restarting()});
        page.insert(u"down"_s,
            QVariantMap{{u"title"_s, card.title}, {u"line"_s, card.line}, {u"action"_s, card.action},
                {u"act"_s, card.act == ServiceDownCard::Act::Repair ? u"repair"_s : u"restart"_s},
                {u"busy"_s, card.busy}, {u"progress"_s, text(card.progress)}});
    } else {
        addMainPage(page, in, agents);
    }
    page.insert(u"state"_s, state);
    page.insert(u"settings"_s, SettingsPage::build(model, in.now));

    const QString agentsWord = agents.codexBeside()
        ? u"Claude Code and Codex"_s
        : (agents.leader() == AgentsInUse::Leader::Codex ? u"Codex"_s : u"Claude Code"_s);
    page.insert(u"footer"_s,
        QVariantMap{
            {u"quitHelp"_s,
                u"Quit Tidewatch. The background service keeps running, so your phone still reaches "_s + agentsWord},
            {u"quit"_s, u"Quit"_s}});
    QVariantList quick{QVariantMap{{u"id"_s, PopoverPages::kPair}, {u"title"_s, PairWords::pairAnother()},
                           {u"help"_s, PairWords::pairAnotherHelp()}},
        QVariantMap{{u"id"_s, u"checklist"_s}, {u"title"_s, u"Testing checklist"_s},
            {u"help"_s, u"The testing checklist, in your browser"_s}},
        QVariantMap{{u"id"_s, PopoverPages::kSettings}, {u"title"_s, PairWords::settings()},
            {u"help"_s, PairWords::settingsHelp()}}};
    page.insert(u"quick"_s, quick);
    if (model.dialog())
        page.insert(u"dialog"_s, dialog(*model.dialog(), model.dialogWorking()));
    return page;
}

} // namespace PopoverPage
