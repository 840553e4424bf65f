#include "surface/ScreenWatch.h"

ScreenWatch::ScreenWatch(QObject* parent)
    : QObject(parent)
{
}

void ScreenWatch::assign(bool& field, bool value)
{
    if (field == value)
        return;
    field = value;
    Q_EMIT changed();
}

void ScreenWatch::setDisplaysAsleep(bool asleep)
{
    assign(m_displaysAsleep, asleep);
}

void ScreenWatch::setScreenLocked(bool locked)
{
    assign(m_screenLocked, locked);
}

void ScreenWatch::setSessionInactive(bool inactive)
{
    assign(m_sessionInactive, inactive);
}

void ScreenWatch::setReduceMotion(bool reduce)
{
    assign(m_reduceMotion, reduce);
}
