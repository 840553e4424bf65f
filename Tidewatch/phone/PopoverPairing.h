#pragma once

#include "base/Clock.h"
#include "link/PairStart.h"

#include <QDateTime>
#include <QObject>
#include <QSet>
#include <QString>

#include <functional>
#include <optional>

class DaemonClient;
class QTimer;

/// The pair page's state and its watch loop: it asks the service for a
/// one-time code at the right moment, replaces it before it lapses, watches
/// for the new device, and withdraws every code it showed. One per panel;
/// main thread only.
class PopoverPairing : public QObject
{
    Q_OBJECT

public:
    enum class Phase { Starting, Showing, NeedsAccess, Failed, Paired };
    /// Why a `Failed` phase failed: the service's refusal, or a code made without this machine's address.
    enum class Failure { Service, StaleAddress };

    /// How a phone reaches this machine now, as the model last read it.
    struct Routes {
        /// The address a code must carry; empty when there is none.
        QString phoneAddress;
        bool lan = false;
    };
    using RoutesNow = std::function<Routes()>;

    /// The loop's pace, and how close to its end a code is replaced.
    static constexpr int kTurnMs = 2000;
    static constexpr int kMinAttemptGapSeconds = 6;
    static constexpr int kReplaceWithinSeconds = 20;

    /// Without a client it is a sample: it shows what it is given and never talks to the service.
    PopoverPairing(DaemonClient* client, RoutesNow routes, const Clock& clock, QObject* parent = nullptr);
    ~PopoverPairing() override;

    /// The page opened: the loop starts with a fresh `known`, and its first turn comes at once.
    void start();
    /// The page closed: the loop ends, and a code on show is withdrawn.
    void stop();
    /// One turn of the loop; the loop's timer calls it every 2 s.
    void turn();

    /// A new code is due: none is on show or it has under 20 s left, the last
    /// request is 6 s old, and none is under way.
    static bool codeDue(
        const std::optional<PairStart>& pair, bool fetching, const QDateTime& lastAttempt, const QDateTime& now);
    /// The address a code carries, as compared with the phone address: one trailing "/" doesn't count.
    static QString comparable(const QString& url);

    Phase phase() const { return m_phase; }
    Failure failure() const { return m_failure; }
    /// The service's words in `Failed` (Service), the device's name in `Paired`.
    const QString& detail() const { return m_detail; }
    /// The code on show; a failure keeps the last one.
    const std::optional<PairStart>& pair() const { return m_pair; }
    /// The code carries only the local network's route.
    bool localOnly() const { return m_localOnly; }
    bool fetching() const { return m_fetching; }
    bool running() const { return m_running; }
    bool isSample() const { return m_client == nullptr; }

    /// What a sample shows; a live instance ignores it.
    void showSample(Phase phase, std::optional<PairStart> pair, bool localOnly, const QString& detail,
        Failure failure = Failure::Service);

Q_SIGNALS:
    void changed();
    /// A new device came while the page was open; the loop has ended.
    void paired(const QString& name);

private:
    void askForCode();
    void cancel(const QString& code);
    void setPhase(Phase phase, const QString& detail = {}, Failure failure = Failure::Service);

    DaemonClient* m_client;
    RoutesNow m_routes;
    const Clock& m_clock;
    QTimer* m_timer;
    Phase m_phase = Phase::Starting;
    Failure m_failure = Failure::Service;
    QString m_detail;
    std::optional<PairStart> m_pair;
    bool m_localOnly = false;
    std::optional<QSet<QString>> m_known;
    bool m_fetching = false;
    bool m_readingDevices = false;
    QDateTime m_lastAttempt;
    bool m_running = false;
    /// Replies of an earlier run (before a stop) are dropped by this count.
    int m_run = 0;
};
