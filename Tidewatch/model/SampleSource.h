#pragma once

#include "model/ModelSource.h"

/// A source that reads nothing and acts on nothing: the state is whatever
/// picture it is given. For renders and previews.
class SampleSource : public ModelSource
{
public:
    bool isSample() const override { return true; }
    bool loginItemEnabled() const override { return false; }
    void start() override { }
    void read(bool, std::function<void()> done) override;
    void nudge() override { }
    void popoverShown(bool) override { }
    void take(const LiveFeed::Event&) override { }
    void act(const std::function<void(ActionCalls&)>&) override { }
    void showPicture(const std::function<void()>& apply) override { apply(); }
    int reading() const override { return 0; }
    const std::optional<QDateTime>& failingSince() const override { return m_never; }
    qint64 feedGeneration() const override { return 0; }
    bool statusCountsFeed() const override { return false; }

private:
    std::optional<QDateTime> m_never;
};
