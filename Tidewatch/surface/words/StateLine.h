#pragma once

#include "link/Account.h"
#include "link/Approval.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "surface/words/Palette.h"

#include <QDateTime>
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

namespace SessionWords {

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

} // namespace SessionWords
