#pragma once

#include "workflows/WFAskItem.h"

#include <QObject>
#include <QString>

#include <optional>

class ActionCalls;

/// The automations' actions from the panel: pause or resume them all, and
/// answer a run that waits at an ask. It holds the choice under way; what the
/// service says comes back through the reads it asks for.
class AutomationActions : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// Paused or not, as picked and not yet confirmed by a read of the status.
    const std::optional<bool>& pausedChoice() const { return m_pausedChoice; }
    void clearPausedChoice() { setPausedChoice(std::nullopt); }

    void setPaused(ActionCalls& calls, bool paused);
    /// `answer` is one of the ask's answers.
    void answer(ActionCalls& calls, const WFAskItem& ask, const QString& answer);

Q_SIGNALS:
    void pausedChoiceChanged();
    /// A failure, in a sentence for the note line.
    void failed(const QString& sentence);
    /// The service took the change; `withStatus` asks that the read include the status.
    void readWanted(bool withStatus);

private:
    void setPausedChoice(std::optional<bool> choice);

    std::optional<bool> m_pausedChoice;
};
