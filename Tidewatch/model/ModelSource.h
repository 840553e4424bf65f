#pragma once

#include "link/LiveFeed.h"

#include <QDateTime>

#include <functional>
#include <optional>

class ActionCalls;

/// Where the model's state comes from and where its actions go: the live
/// service, or a sample that only shows what it is given. The model picks one
/// when it is built and asks it, never which one it has.
class ModelSource
{
public:
    virtual ~ModelSource() = default;

    virtual bool isSample() const = 0;
    /// Open at Login as the source finds it; a sample and a test copy never have it.
    virtual bool loginItemEnabled() const = 0;

    /// Starts the feed and the read loop; again, nothing more.
    virtual void start() = 0;
    /// One read; `done`, when given, runs at its end.
    virtual void read(bool withStatus, std::function<void()> done) = 0;
    /// Asks for a read soon, when the picture is incomplete.
    virtual void nudge() = 0;
    /// The popover opened or closed; the model holds the flag, the source the pace.
    virtual void popoverShown(bool visible) = 0;
    virtual void take(const LiveFeed::Event& event) = 0;

    /// Runs `action` with the road to the service; a sample drops it.
    virtual void act(const std::function<void(ActionCalls&)>& action) = 0;
    /// Runs `apply` when the state is the source's to be given; the live one drops it.
    virtual void showPicture(const std::function<void()>& apply) = 0;

    /// Reads under way.
    virtual int reading() const = 0;
    /// Since when reads fail while the feed is still believed.
    virtual const std::optional<QDateTime>& failingSince() const = 0;
    /// Feed messages taken so far, but for `devices`.
    virtual qint64 feedGeneration() const = 0;
    /// The status read last counted this app's own feed among the connected clients.
    virtual bool statusCountsFeed() const = 0;
};
