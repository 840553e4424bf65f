#include "model/LiveSource.h"

#include "setup/LoginItem.h"

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
    return LoginItem::isEnabled(m_environment);
}
