#pragma once

#include "base/Clock.h"
#include "link/Account.h"
#include "link/Approval.h"
#include "link/Codex.h"
#include "link/Session.h"
#include "model/AgentsInUse.h"
#include "surface/IconMotion.h"
#include "surface/MenuBarFrames.h"
#include "surface/StatusButton.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <functional>
#include <optional>

/// Turns what the model says into the menu bar's planet: which finished
/// image shows, the count beside it and its label. It costs nothing while
/// nothing moves: the timer exists only while the planet turns, coasts or
/// breathes, and a tick that lands on the image already shown touches nothing.
class MenuBarIconAnimator : public QObject
{
    Q_OBJECT

public:
    /// Everything the icon shows; the animator's whole input.
    struct Look {
        /// The background service counts as there.
        bool up = true;
        /// Sessions working now.
        int working = 0;
        /// Background agents running across sessions.
        int agents = 0;
        /// Things that wait on the user.
        int needsYou = 0;
        /// Why the leading agent's account is out of order; none when all is well.
        std::optional<QString> account;
        bool reduceMotion = false;
        /// Someone can see the screen: awake, unlocked, and this session in front.
        bool seen = false;

        bool workExists() const { return working >= 1 || agents >= 1; }
        bool badged() const { return needsYou >= 1 || account.has_value(); }

        bool operator==(const Look&) const = default;
    };

    /// What a look is made of, as the model holds it now.
    struct Inputs {
        /// The health probe answers or the feed lives.
        bool alive = false;
        bool firstPollDone = false;
        QList<Session> sessions;
        /// The approvals still waiting, answered ones left out.
        QList<Approval> approvals;
        AgentsInUse agents;
        /// Claude Code's account.
        std::optional<Account> account;
        /// The Codex record to believe.
        std::optional<Codex> codex;
        bool reduceMotion = false;
        bool seen = true;
    };

    /// The timer's interval while the planet turns or coasts, and while it breathes.
    static constexpr double turnInterval = 0.075;
    static constexpr double breathInterval = 0.15;
    /// The longest step one tick takes, however long it was since the last:
    /// a stalled process resumes smoothly instead of jumping.
    static constexpr double maxStep = 0.25;
    static constexpr double breathCycleSeconds = 2.4;

    static Look lookOf(const Inputs& inputs);
    /// The leading agent's account trouble that raises the dot, as a phrase; none otherwise.
    static std::optional<QString> accountPhrase(
        const AgentsInUse& agents, const std::optional<Account>& account, const std::optional<Codex>& codex);
    /// The count beside the icon: two or more things waiting; one gets the dot alone.
    static QString titleOf(const Look& look);
    /// The tool tip and accessibility label.
    static QString labelOf(const Look& look);
    /// Seconds between ticks for a look while the spin runs at `speed`; 0 for no timer.
    static double intervalFor(const Look& look, double speed);
    static MenuBarFrames::Frame frameFor(const Look& look, const IconMotion& motion, double breath);

    /// The clock gives the time between ticks; tests step it by hand.
    explicit MenuBarIconAnimator(const Clock& clock, QObject* parent = nullptr);

    /// Where image, title and label go; the next apply gives it everything.
    /// The animator doesn't own it.
    void setButton(StatusButton* button);
    /// Told whether a title now stands beside the icon, each time that changes.
    void setOnWidth(std::function<void(bool)> onWidth) { m_onWidth = std::move(onWidth); }

    /// Takes a new look: snaps to rest or stops breathing where it no longer
    /// may move, then sets the words, the timer and the image.
    void apply(const Look& look);
    /// One step of the animation by the time since the last.
    void tick();
    /// Starts, changes or ends the timer to suit the look and the spin.
    void retime();
    /// Puts the frame due on the button; without `force` only when it differs from the one shown.
    void show(bool force);
    /// Sets title and label on the button where they changed.
    void label();

    const Look& look() const { return m_look; }
    const IconMotion& motion() const { return m_motion; }
    double breath() const { return m_breath; }
    /// The running timer's interval in seconds; 0 when there is none.
    double interval() const { return m_interval; }
    bool timerRunning() const { return m_timer.isActive(); }
    /// The frame last put on the button.
    const std::optional<MenuBarFrames::Frame>& shown() const { return m_shown; }
    const QString& title() const { return m_title; }
    const QString& labelText() const { return m_label; }

private:
    double seconds() const;

    const Clock& m_clock;
    QPointer<StatusButton> m_button;
    std::function<void(bool)> m_onWidth;
    Look m_look;
    QTimer m_timer;
    double m_interval = 0;
    IconMotion m_motion;
    double m_breath = 0;
    double m_last = 0;
    std::optional<MenuBarFrames::Frame> m_shown;
    QString m_title;
    QString m_label;
};
