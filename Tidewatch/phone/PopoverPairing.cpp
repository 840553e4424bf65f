#include "phone/PopoverPairing.h"

#include "link/ServiceCalls.h"

#include <QPointer>
#include <QTimer>

PopoverPairing::PopoverPairing(DaemonClient* client, RoutesNow routes, const Clock& clock, QObject* parent)
    : QObject(parent)
    , m_client(client)
    , m_routes(std::move(routes))
    , m_clock(clock)
    , m_timer(new QTimer(this))
    , m_lastAttempt(QDateTime::fromMSecsSinceEpoch(0, Qt::UTC))
{
    m_timer->setInterval(kTurnMs);
    connect(m_timer, &QTimer::timeout, this, &PopoverPairing::turn);
}

PopoverPairing::~PopoverPairing()
{
    stop();
}

bool PopoverPairing::codeDue(
    const std::optional<PairStart>& pair, bool fetching, const QDateTime& lastAttempt, const QDateTime& now)
{
    if (fetching || lastAttempt.secsTo(now) < kMinAttemptGapSeconds)
        return false;
    if (!pair)
        return true;
    // A code without an end lasts as long as the page.
    return pair->expiresAt
        && pair->expiresAt->msecsSinceEpoch - now.toMSecsSinceEpoch() < qint64(kReplaceWithinSeconds) * 1000;
}

QString PopoverPairing::comparable(const QString& url)
{
    return url.endsWith(QLatin1Char('/')) ? url.chopped(1) : url;
}

void PopoverPairing::start()
{
    if (isSample())
        return;
    stop();
    m_running = true;
    m_known.reset();
    m_lastAttempt = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    setPhase(Phase::Starting);
    m_timer->start();
    turn();
}

void PopoverPairing::stop()
{
    if (isSample())
        return;
    m_timer->stop();
    m_running = false;
    ++m_run;
    m_fetching = false;
    m_readingDevices = false;
    if (m_pair) {
        if (m_pair->code)
            cancel(*m_pair->code);
        m_pair.reset();
        Q_EMIT changed();
    }
}

void PopoverPairing::turn()
{
    if (!m_running || m_readingDevices)
        return;
    const Routes routes = m_routes();
    if (routes.phoneAddress.isEmpty() && !routes.lan) {
        setPhase(Phase::NeedsAccess);
        return;
    }
    if (m_phase == Phase::NeedsAccess)
        setPhase(m_pair ? Phase::Showing : Phase::Starting);
    m_readingDevices = true;
    QPointer<PopoverPairing> self(this);
    const int run = m_run;
    ServiceCalls::devices().send(*m_client, [self, run](DaemonResult<FlexList<Device>> result) {
        if (!self || self->m_run != run)
            return;
        self->m_readingDevices = false;
        if (result.ok()) {
            QSet<QString> ids;
            for (const Device& device : result.value().items)
                ids.insert(device.id);
            if (!self->m_known) {
                self->m_known = ids;
            } else {
                for (const Device& device : result.value().items) {
                    if (self->m_known->contains(device.id))
                        continue;
                    const QString name = device.name.value_or(device.model.value_or(device.id));
                    // The code on show is spent: the phone used it, so nothing withdraws it.
                    self->m_pair.reset();
                    self->m_timer->stop();
                    self->m_running = false;
                    ++self->m_run;
                    self->setPhase(Phase::Paired, name);
                    Q_EMIT self->paired(name);
                    return;
                }
            }
        }
        // The device list is only watched; its failure waits for the next turn.
        if (codeDue(self->m_pair, self->m_fetching, self->m_lastAttempt, self->m_clock.now()))
            self->askForCode();
    });
}

void PopoverPairing::askForCode()
{
    m_fetching = true;
    m_lastAttempt = m_clock.now();
    QPointer<PopoverPairing> self(this);
    const int run = m_run;
    ServiceCalls::pairStart().send(*m_client, [self, run](DaemonResult<PairStart> result) {
        if (!self || self->m_run != run)
            return;
        self->m_fetching = false;
        if (!result.ok()) {
            self->setPhase(Phase::Failed, result.error().errorDescription());
            return;
        }
        PairStart fresh = std::move(result.value());
        const QString address = self->m_routes().phoneAddress;
        if (!address.isEmpty() && fresh.url && comparable(*fresh.url) != address) {
            // Made while the service had no tailnet address: it would work only at home, so it never shows.
            if (fresh.code)
                self->cancel(*fresh.code);
            self->setPhase(Phase::Failed, {}, Failure::StaleAddress);
            return;
        }
        if (self->m_pair && self->m_pair->code && self->m_pair->code != fresh.code)
            self->cancel(*self->m_pair->code);
        self->m_pair = std::move(fresh);
        self->m_localOnly = address.isEmpty();
        self->m_phase = Phase::Showing;
        self->m_detail.clear();
        self->m_failure = Failure::Service;
        Q_EMIT self->changed();
    });
}

void PopoverPairing::cancel(const QString& code)
{
    // Fire and forget: a code the service keeps lapses by itself within minutes.
    ServiceCalls::pairCancel(code).send(*m_client, [](const DaemonResult<Ignored>&) {});
}

void PopoverPairing::setPhase(Phase phase, const QString& detail, Failure failure)
{
    if (phase == m_phase && detail == m_detail && failure == m_failure)
        return;
    m_phase = phase;
    m_detail = detail;
    m_failure = failure;
    Q_EMIT changed();
}

void PopoverPairing::showSample(
    Phase phase, std::optional<PairStart> pair, bool localOnly, const QString& detail, Failure failure)
{
    if (!isSample())
        return;
    m_pair = std::move(pair);
    m_localOnly = localOnly;
    m_phase = phase;
    m_detail = detail;
    m_failure = failure;
    Q_EMIT changed();
}
