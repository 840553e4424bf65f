#pragma once

#include <QObject>

/// Whether anyone can see the screen, and whether the system asks for less
/// motion, as the system tells it: displays asleep, screen locked, or this
/// session switched away each end `seen`. Main thread only.
class ScreenWatch : public QObject
{
    Q_OBJECT

public:
    explicit ScreenWatch(QObject* parent = nullptr);

    /// Starts listening to the system, once. A source the system lacks
    /// leaves its flag false, in silence. Each system has its own listener.
    void listen();

    bool displaysAsleep() const { return m_displaysAsleep; }
    bool screenLocked() const { return m_screenLocked; }
    bool sessionInactive() const { return m_sessionInactive; }
    bool seen() const { return !m_displaysAsleep && !m_screenLocked && !m_sessionInactive; }
    bool reduceMotion() const { return m_reduceMotion; }

    // The listeners' way in; each emits changed() only on a change.
    void setDisplaysAsleep(bool asleep);
    void setScreenLocked(bool locked);
    void setSessionInactive(bool inactive);
    void setReduceMotion(bool reduce);

Q_SIGNALS:
    void changed();

private:
    void assign(bool& field, bool value);

    bool m_listening = false;
    bool m_displaysAsleep = false;
    bool m_screenLocked = false;
    bool m_sessionInactive = false;
    bool m_reduceMotion = false;
};
