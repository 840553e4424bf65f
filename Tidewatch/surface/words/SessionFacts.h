#pragma once

#include "base/FlexDate.h"
#include "link/Session.h"

#include <QDateTime>
#include <QString>
#include <QStringView>

#include <optional>

/// The small questions every part of a session's words asks of it.
namespace SessionFacts {

inline QString trimmed(const std::optional<QString>& text)
{
    return text ? text->trimmed() : QString();
}

inline bool isState(const Session& session, QStringView state)
{
    return session.state && *session.state == state;
}

inline bool isCodexAgent(const Session& session)
{
    return session.agent == QStringLiteral("codex");
}

/// The date is set and still ahead of `now`.
inline bool after(const std::optional<FlexDate>& date, const QDateTime& now)
{
    return date && date->msecsSinceEpoch > now.toMSecsSinceEpoch();
}

/// "armed", "ready", "off", or empty without a resume.
inline QString resumeState(const Session::Blocked& blocked)
{
    return blocked.resume ? blocked.resume->state.value_or(QString()) : QString();
}

} // namespace SessionFacts
