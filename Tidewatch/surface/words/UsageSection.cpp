#include "surface/words/UsageSection.h"

UsageSection UsageSection::build(const Inputs& in)
{
    UsageSection section;
    const AgentsInUse& agents = in.agents;
    const bool beside = agents.codexBeside();
    section.claude = agents.claude;
    // Codex counts where it is in use beside Claude Code, or where it is the only agent here.
    section.codex = in.codex && (beside || (!agents.claude && agents.codexHere));
    section.shown = section.claude || section.codex;

    if (section.claude && in.usage) {
        const Usage& usage = *in.usage;
        section.note = UsageWords::claudeNote(usage, in.account);
        section.claudeLine = UsageWords::staleLine(usage, in.account);
        if (!section.claudeLine)
            section.claudeLine = UsageWords::claudeWaitingLine(usage);
        if (usage.source != QStringLiteral("stale"))
            section.claudeMeters = UsageWords::claudeMeters(in.usage, in.now, beside);
        section.probeLine = UsageWords::probeLine(usage, in.now, in.locale);
    }
    if (!section.codex)
        return section;

    const Codex& codex = *in.codex;
    // Alone here, even too old to lead, Codex's trouble is the card.
    const bool alone = !agents.claude;
    section.codexCard = AccountWords::codexAccountCard(codex, alone);
    if (!section.codexCard)
        section.codexLine = AccountWords::codexLine(codex, beside);
    const bool leads = alone && agents.leader() == AgentsInUse::Leader::Codex;
    section.codexLeadLine = UsageWords::codexLeadLine(codex, leads, in.now);
    section.codexMeters = UsageWords::codexMeters(codex, in.now, beside);
    section.codexLimitedLine = UsageWords::codexLimitedLine(codex, section.codexMeters);
    if (!section.claude)
        section.note = UsageWords::codexAloneNote(codex, AccountWords::codexCard(codex).has_value(), in.now);
    return section;
}
