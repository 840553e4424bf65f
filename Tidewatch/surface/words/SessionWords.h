#pragma once

#include "link/Account.h"
#include "link/Approval.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "model/AgentsInUse.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QList>
#include <QLocale>
#include <QString>

#include <optional>

/// The colour family of a session's line.
enum class LineTone {
    Working, ///< busy: green
    Attention, ///< the user is wanted: amber
    Error, ///< it stopped on an error: red
    Plain, ///< a settled fact: secondary
    Quiet, ///< nothing to say: muted
};

Ink lineToneInk(LineTone tone);

/// What a session's row says under its title.
struct StateLine {
    QString text;
    LineTone tone = LineTone::Quiet;
    /// The line comes from the blocked-reason words.
    bool blocked = false;
    /// The text is the word "Thinking", shown pulsing.
    bool thinking = false;

    Ink ink() const { return lineToneInk(tone); }
    /// A blocked line is toned down: 0.9 for attention, 0.75 for the rest.
    double opacity() const;

    bool operator==(const StateLine&) const = default;
};

/// Why a session waits, in words, and whether that wants the user.
struct BlockedWords {
    QString text;
    bool attention = false;

    bool operator==(const BlockedWords&) const = default;
};

/// The session's two-character stamp and how long ago it was last active.
struct SessionStamp {
    /// "c7", or "··" for an id with no letter or digit.
    QString hex;
    /// "now", "12m", "3h", "2d"; empty without a last activity.
    QString age;
    /// "Session c7, active 2h 11m ago".
    QString help;

    bool operator==(const SessionStamp&) const = default;
};

/// One of the buttons beneath an idle session.
struct RowAction {
    enum class Act {
        Continue, ///< tell it to carry on now
        CancelResume, ///< don't carry on by itself after the limit
        ContinueNow, ///< carry on now though a resume is armed
        ArmResume, ///< carry on by itself once the limit lifts
        TopUp, ///< open the provider's credits page
        FixKey, ///< paste a new key for the provider
        TryAgain, ///< try the provider again now
    };

    Act act = Act::Continue;
    QString title;
    QString help;

    bool operator==(const RowAction&) const = default;
};

/// The line of small print beneath the state line.
struct SmallPrint {
    /// "3 queued".
    std::optional<QString> queued;
    /// "1 agent", "2 agents".
    std::optional<QString> agents;
    /// A terminal of it is open on a phone.
    bool onPhone = false;
    /// Its reply is being read aloud.
    bool speaking = false;

    bool operator==(const SmallPrint&) const = default;
};

/// One count in the seam above the sessions.
struct CountMark {
    QString text;
    /// The "need you" mark rather than the "working" one.
    bool needs = false;
    Ink ink = Ink::Green;

    bool operator==(const CountMark&) const = default;
};

namespace SessionWords {

/// The session's place in the list: lower comes first.
int rank(const Session& session);
/// The rows of the sessions section: ended sessions and those an automation
/// started are left out, the rest go by rank, then latest activity first.
QList<Session> ordered(const QList<Session>& sessions);

/// `title`, else `projectName`, else "Untitled session".
QString title(const Session& session);
/// "Home" for a session in the home folder, else its project's name.
std::optional<QString> place(const Session& session, const QString& home);

/// A model name as short as a chip can hold it: "anthropic/claude-sonnet-4.5"
/// reads "sonnet-4.5". Never empty for a name with something in it.
QString modelChip(const QString& model);
/// The family of a model: "Opus" of "Opus 5.5", "sonnet" of "sonnet-4.5".
std::optional<QString> modelFamily(const QString& model);
/// The provider a session runs on, from the list by its `providerId`.
const Provider* providerOf(const Session& session, const QList<Provider>& providers);
/// The model chip of a session: its model, else its provider's default
/// model, else "default model".
QString chip(const Session& session, const Provider* provider);
/// The permission mode in words; none without a mode.
std::optional<QString> modeTag(const std::optional<QString>& permissionMode);

QString stampHex(const QString& id);
SessionStamp stamp(const Session& session, const QDateTime& now);

/// The first line of a reply with markdown marks taken off.
std::optional<QString> plainLine(const std::optional<QString>& lastText);

/// The line under a session's title. `approval` is the one waiting on it,
/// if any; `provider` the session's provider.
StateLine stateLine(const Session& session, const Approval* approval, const Provider* provider, const Account* account,
    const QDateTime& now, const QLocale& locale);
/// Why an idle session waits; none when it doesn't, or a limit has lifted
/// with nothing waiting to carry on.
std::optional<BlockedWords> blockedWords(const Session& session, const Provider* provider, const Account* account,
    const QDateTime& now, const QLocale& locale);
/// The name of the limit that stopped it: "Session limit", "Weekly limit".
QString limitName(const Session::Blocked& blocked, const Account* account);
/// The name of the account's limit from its label or window.
QString accountLimitName(const Account::Limit& limit);
/// What a session stopped by its provider is waiting for.
BlockedWords providerWords(
    const Session::Blocked& blocked, const Provider* provider, const QDateTime& now, const QLocale& locale);

/// The buttons beneath an idle session, in order; none while the model is
/// already continuing it.
QList<RowAction> actions(const Session& session, const Provider* provider, const Account* account, const QDateTime& now,
    const QLocale& locale, bool continuing);

SmallPrint smallPrint(const Session& session, bool speaking);
/// "Open on a phone right now"
QString phoneMarkHelp();
/// "Its reply is being read aloud"
QString speakingHelp();

/// A click on the row opens a terminal: it has one, or it is Codex's.
bool opensTerminal(const Session& session);
/// The hover button: "Show" when a terminal is open on the Mac, else "Open".
QString openTitle(const Session& session);
/// The row's tool tip.
QString help(const Session& session);
/// What a screen reader says of the row.
QString spokenLabel(const Session& session, const Provider* provider, const QString& home);

/// Counts as needing the user in the seam: it waits on an answer or an approval.
bool needsYou(const Session& session, bool hasApproval);
/// Counts as working: busy, or sub-agents at work, and no approval waiting.
bool isWorking(const Session& session, bool hasApproval);
/// At most two marks, "need you" first; none when both are 0.
QList<CountMark> countMarks(qint64 needs, qint64 working);
/// "Sessions"
QString seamLabel();
/// "all quiet", for the seam when nothing needs the user and nothing works.
QString seamQuiet();

/// "4 more", or "4 more on your phone" once a phone is paired; none for 0.
std::optional<QString> moreRows(qsizetype hidden, bool phonePaired);
/// What the section says with no session, by the agents in use.
QString emptyList(const AgentsInUse& agents);

} // namespace SessionWords
