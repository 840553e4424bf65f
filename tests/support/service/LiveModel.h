#pragma once

#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include "model/AppModel.h"

#include <QByteArray>

#include <memory>

/// The app's model against the real service: a scratch folder, a test copy
/// of the service in it on free loopback ports, seeded through /qa, and an
/// AppModel bound to it that leaves this machine's own Claude Code alone.
class LiveModel
{
public:
    /// Starts the service; a failure is recorded as the running test's (see ok()).
    explicit LiveModel(bool startService = true);
    ~LiveModel();

    /// Puts the Claude Code pinned for the tests on the service's PATH, from
    /// the next start on, so the service finds it (and runs its real sign-in,
    /// offline, in the test copy's home). False when it isn't installed.
    bool usePinnedClaude();

    /// True when the service runs.
    bool ok() const { return service.isRunning(); }
    /// Starts the service again after a stop.
    bool restartService();

    /// Posts each [path, body] pair of a JSON array to the service, in order:
    /// [["/qa/sessions", {"id":"s1"}], ["/qa/feed/ping", {}]]. A string "@now"
    /// stands for this moment, as milliseconds since 1970.
    void seed(const QByteArray& calls) const;

    /// Makes and starts the model; with settle, waits until it has read once
    /// and hears the feed (false when it didn't in 15 s).
    bool startModel(LiveFeed::Timing timing = {}, bool settle = true);
    /// What the model's own look for Claude Code finds, from the next startModel() on.
    void setClaudeHere(bool here) { m_claudeHere = here; }
    /// The model the last startModel() made.
    AppModel& model() const { return *m_model; }
    void stopModel() { m_model.reset(); }

    /// The session of that id in the model's snapshot.
    std::optional<Session> session(const QString& id) const;
    /// The model's panel rendered in this process, as its text twin; empty
    /// (with a warning) when the render fails.
    QStringList twin() const;
    /// The built program's own live render against this service: the
    /// panel's text twin (on `page` when named), and the status item's lines into statusItem.
    QStringList liveRender(QStringList* statusItem = nullptr, const QString& page = {}) const;

    /// A feed that gives up and comes back within a second, for tests of its pace.
    static LiveFeed::Timing quickFeed();

    ScratchFolder scratch;
    ServiceProcess service{scratch.path()};

private:
    std::unique_ptr<AppModel> m_model;
    bool m_claudeHere = true;
};
