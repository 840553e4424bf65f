#include "surface/MenuBarIconAnimator.h"

#include "surface/words/AccountWords.h"
#include "surface/words/SessionList.h"

#include <QSet>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

bool isEnded(const Session& session)
{
    return session.state == u"ended"_s;
}

} // namespace

MenuBarIconAnimator::Look MenuBarIconAnimator::lookOf(const Inputs& in)
{
    Look look;
    // Before the first poll has ended the icon never claims the service is gone.
    look.up = in.alive || !in.firstPollDone;

    QSet<QString> listed;
    for (const Session& session : in.sessions)
        listed.insert(session.id);
    QSet<QString> asking;
    for (const Approval& approval : in.approvals) {
        if (approval.sessionId && listed.contains(*approval.sessionId))
            asking.insert(*approval.sessionId);
        else
            ++look.needsYou;
    }
    for (const Session& session : in.sessions) {
        const bool hasApproval = asking.contains(session.id);
        if (SessionWords::needsYou(session, hasApproval))
            ++look.needsYou;
        if (SessionWords::isWorking(session, hasApproval))
            ++look.working;
        if (!isEnded(session))
            look.agents += int(std::max<qint64>(session.agentsRunning.value_or(0), 0));
    }

    if (in.alive)
        look.account = accountPhrase(in.agents, in.account, in.codex);
    look.reduceMotion = in.reduceMotion;
    look.seen = in.seen;
    return look;
}

std::optional<QString> MenuBarIconAnimator::accountPhrase(
    const AgentsInUse& agents, const std::optional<Account>& account, const std::optional<Codex>& codex)
{
    switch (agents.leader()) {
    case AgentsInUse::Leader::Claude:
        // A limit reached is the sessions' business, not the account's: it raises no dot.
        if (!account)
            return std::nullopt;
        if (account->state == u"logged_out"_s)
            return u"Claude Code is signed out"_s;
        if (account->state == u"no_subscription"_s)
            return u"no Claude plan"_s;
        if (account->state == u"on_hold"_s)
            return u"Claude Code’s account is on hold"_s;
        return std::nullopt;
    case AgentsInUse::Leader::Codex:
        if (!codex)
            return std::nullopt;
        if (const std::optional<CodexAccountCardWords> card = AccountWords::codexAccountCard(*codex, true))
            return card->title;
        return std::nullopt;
    case AgentsInUse::Leader::None:
        break;
    }
    return std::nullopt;
}

QString MenuBarIconAnimator::titleOf(const Look& look)
{
    return look.up && look.needsYou >= 2 ? QString::number(look.needsYou) : QString();
}

QString MenuBarIconAnimator::labelOf(const Look& look)
{
    QStringList parts;
    if (!look.up) {
        parts << u"the background service isn’t running"_s;
    } else {
        if (look.account)
            parts << *look.account;
        // The seam's own words for what waits, so the two never disagree.
        if (look.needsYou >= 1)
            parts << SessionWords::countMarks(look.needsYou, 0).constFirst().text;
        if (look.working >= 1) {
            parts << (look.working == 1 ? u"1 session working"_s : u"%1 sessions working"_s.arg(look.working));
        }
    }
    if (parts.isEmpty())
        return u"Tidewatch"_s;
    return u"Tidewatch: "_s + parts.join(u", "_s);
}

double MenuBarIconAnimator::intervalFor(const Look& look, double speed)
{
    if (!look.up)
        return 0;
    // Out of sight, a planet still turning coasts to rest; then all stops.
    if (!look.seen || !look.workExists())
        return speed > 0 ? turnInterval : 0;
    if (look.reduceMotion && speed <= 0)
        return breathInterval;
    return turnInterval;
}

MenuBarFrames::Frame MenuBarIconAnimator::frameFor(const Look& look, const IconMotion& motion, double breath)
{
    using Frame = MenuBarFrames::Frame;
    if (!look.up)
        return Frame::hollow();
    if (look.seen && look.workExists() && look.reduceMotion)
        return Frame::breath(int(breath * MenuBarFrames::breathCount) & 7, look.badged());
    const double fraction = motion.phase - std::floor(motion.phase);
    return Frame::spin(int(fraction * MenuBarFrames::spinCount) % MenuBarFrames::spinCount, look.badged());
}

MenuBarIconAnimator::MenuBarIconAnimator(const Clock& clock, QObject* parent)
    : QObject(parent)
    , m_clock(clock)
{
    // Coarse lets the system fold these wake-ups in with others.
    m_timer.setTimerType(Qt::CoarseTimer);
    connect(&m_timer, &QTimer::timeout, this, &MenuBarIconAnimator::tick);
}

void MenuBarIconAnimator::setButton(StatusButton* button)
{
    m_button = button;
    m_shown.reset();
    m_title.clear();
    m_label.clear();
}

double MenuBarIconAnimator::seconds() const
{
    return double(m_clock.now().toMSecsSinceEpoch()) / 1000.0;
}

void MenuBarIconAnimator::apply(const Look& look)
{
    m_look = look;
    if (!(look.up && look.seen && !look.reduceMotion)) {
        m_motion.phase = std::floor(m_motion.phase);
        m_motion.speed = 0;
    }
    if (!(look.up && look.seen && look.workExists() && look.reduceMotion))
        m_breath = 0;
    label();
    retime();
    show(false);
}

void MenuBarIconAnimator::tick()
{
    const double now = seconds();
    const double dt = std::clamp(now - m_last, 0.0, maxStep);
    m_last = now;
    const bool active = m_look.up && m_look.seen && m_look.workExists();
    if (active && m_look.reduceMotion) {
        m_breath += dt / breathCycleSeconds;
        m_breath -= std::floor(m_breath);
    } else {
        m_motion.step(active, dt);
    }
    show(false);
    if (!active && m_motion.speed <= 0)
        retime();
}

void MenuBarIconAnimator::retime()
{
    const double wanted = intervalFor(m_look, m_motion.speed);
    if (wanted == m_interval && m_timer.isActive())
        return;
    m_timer.stop();
    m_interval = wanted;
    if (wanted <= 0)
        return;
    m_last = seconds();
    m_timer.start(int(std::lround(wanted * 1000)));
}

void MenuBarIconAnimator::show(bool force)
{
    const MenuBarFrames::Frame frame = frameFor(m_look, m_motion, m_breath);
    if (!force && m_shown == frame)
        return;
    if (!m_button)
        return;
    m_button->setImage(frame, MenuBarFrames::shared().image(frame));
    m_shown = frame;
}

void MenuBarIconAnimator::label()
{
    const QString title = titleOf(m_look);
    if (title != m_title) {
        const bool widthChanges = title.isEmpty() != m_title.isEmpty();
        m_title = title;
        if (m_button)
            m_button->setTitle(title);
        if (m_onWidth && widthChanges)
            m_onWidth(!title.isEmpty());
    }
    const QString text = labelOf(m_look);
    if (text != m_label) {
        m_label = text;
        if (m_button)
            m_button->setLabel(text);
    }
}
