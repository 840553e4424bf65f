#pragma once

#include "entry/Environment.h"
#include "model/ActionCalls.h"
#include "model/ModelSource.h"
#include "model/ReadLoop.h"

#include <memory>

/// The service as the model's source: the client for its calls, and the read
/// loop with its feed.
class LiveSource : public ModelSource
{
public:
    LiveSource(AppModel& model, const Environment& environment, const Clock& clock, LiveFeed::Timing feedTiming,
        ActionCalls::Notes notes);
    ~LiveSource() override;

    bool isSample() const override { return false; }
    bool loginItemEnabled() const override;
    void start() override { m_loop->start(); }
    void read(bool withStatus, std::function<void()> done) override { m_loop->read(withStatus, std::move(done)); }
    void nudge() override { m_loop->nudge(); }
    void popoverShown(bool visible) override { m_loop->popoverShown(visible); }
    void take(const LiveFeed::Event& event) override { m_loop->take(event); }
    void act(const std::function<void(ActionCalls&)>& action) override { action(m_calls); }
    void showPicture(const std::function<void()>&) override { }
    int reading() const override { return m_loop->reading(); }
    const std::optional<QDateTime>& failingSince() const override { return m_loop->failingSince(); }
    qint64 feedGeneration() const override { return m_loop->feedGeneration(); }
    bool statusCountsFeed() const override { return m_loop->statusCountsFeed(); }

private:
    Environment m_environment;
    std::unique_ptr<DaemonClient> m_client;
    ActionCalls m_calls;
    std::unique_ptr<ReadLoop> m_loop;
};
