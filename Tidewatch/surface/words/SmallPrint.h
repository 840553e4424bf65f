#pragma once

#include "link/Session.h"

#include <QString>

#include <optional>

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

namespace SessionWords {

SmallPrint smallPrint(const Session& session, bool speaking);
/// "Open on a phone right now"
QString phoneMarkHelp();
/// "Its reply is being read aloud"
QString speakingHelp();

} // namespace SessionWords
