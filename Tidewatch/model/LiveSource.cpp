#include "model/LiveSource.h"

#include "platform/Services.h"

LiveSource::LiveSource(AppModel& model, const Environment& environment, const Clock& clock, LiveFeed::Timing feedTiming,
    ActionCalls::Notes notes)
    : m_environment(environment)
    , m_client(std::make_unique<DaemonClient>(environment))
    , m_calls(*m_client, std::move(notes))
    , m_loop(std::make_unique<ReadLoop>(model, *m_client, clock, feedTiming))
{
}

LiveSource::~LiveSource()
{
    // Replies and feed events hold the model; their sources go while it is whole.
    m_loop->stopFeed();
    m_client.reset();
}

bool LiveSource::loginItemEnabled() const
{
    // A test copy never has the person's login item.
    return !m_environment.isTestCopy() && platform::loginItemEnabled();
}
