#pragma once

#include "link/Account.h"
#include "link/Approval.h"
#include "link/Awake.h"
#include "link/Battery.h"
#include "link/Codex.h"
#include "link/GuideState.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "link/Snapshot.h"
#include "link/SttState.h"
#include "link/Usage.h"

#include <QByteArrayView>
#include <QList>
#include <QString>

#include <optional>
#include <variant>

/// One change the service pushes on the feed, already decoded. The payload
/// types are the records; the few messages that carry something else have a
/// small struct of their own.
namespace Feed {

/// An approval that is no longer pending.
struct Resolved {
    QString id;
    bool operator==(const Resolved&) const = default;
};

/// The Mac's battery; none hides it.
struct BatteryChange {
    std::optional<Battery> battery;
    bool operator==(const BatteryChange&) const = default;
};

/// The glasses' guide is to be shown, and why ("phone" when unsaid).
struct GuideShow {
    GuideState guide;
    QString reason;
    bool operator==(const GuideShow&) const = default;
};

struct ProvidersChange {
    QList<Provider> providers;
    bool operator==(const ProvidersChange&) const = default;
};

/// Codex's state; none clears it.
struct CodexChange {
    std::optional<Codex> codex;
    bool operator==(const CodexChange&) const = default;
};

/// The paired devices changed; the model reads them again.
struct DevicesChanged {
    bool operator==(const DevicesChanged&) const = default;
};

using Message = std::variant<Snapshot, Session, Approval, Resolved, Usage, Account, BatteryChange, Awake, GuideState,
    GuideShow, SttState, ProvidersChange, CodexChange, DevicesChanged>;

/// What a text frame asks of the feed, decided by its first bytes before any parsing.
struct Frame {
    enum class Kind {
        Ping, ///< answer with a pong; nothing reaches the model
        Window, ///< a window picture request, handed on untouched
        Speech, ///< the speaking state, handed on untouched
        Message, ///< a change for the model; `message` is none when it didn't read or isn't known
    };
    Kind kind = Kind::Message;
    std::optional<Message> message;
};

/// Sorts one text frame and decodes it where it is a change. Never fails:
/// anything unreadable is a Message frame with no message.
Frame readFrame(QByteArrayView text);

/// The envelope decode alone: the message a JSON text names by its "t", or none.
std::optional<Message> readEnvelope(QByteArrayView text);

/// The reply to a ping.
inline constexpr QByteArrayView pong = R"({"t":"pong"})";

} // namespace Feed
