#pragma once

#include "link/LocalStatus.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QString>

#include <optional>

/// The pill in the panel's header: how a phone reaches this computer right now,
/// in a dot, a word and a sentence.
namespace ConnectionPill {

struct Look {
    enum class Route { Tailnet, Lan, None };

    Ink dot = Ink::Muted;
    /// Full green with a client connected.
    bool glow = false;
    Route route = Route::None;
    QString word;
    QString help;
    /// Paired phones (glasses are counted apart).
    int phones = 0;
    bool glasses = false;

    bool operator==(const Look&) const = default;
};

/// What the pill reads, as the model holds it now.
struct Inputs {
    bool firstPollDone = false;
    /// The service counts as there: health known, or the feed live.
    bool alive = false;
    const std::optional<LocalStatus>& status;
    /// The status was read while this app's own feed was connected, so its count includes the app.
    bool statusCountsFeed = false;
};

/// Clients on the feed besides this app.
qint64 connectedOthers(const LocalStatus& status, bool statusCountsFeed);
/// "No phone is connected right now.", "1 connected right now.", "{n} connected right now."
QString connectedSentence(qint64 others);

Look look(const Inputs& inputs, const QDateTime& now);

} // namespace ConnectionPill
