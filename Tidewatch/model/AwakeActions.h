#pragma once

#include "entry/Environment.h"
#include "link/Awake.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <optional>

class ActionCalls;

/// Stay awake's actions: the mode, Backpack's time and battery floor, and
/// Backpack's one permission. It holds what is under way; what the service
/// says comes back through `taken`.
class AwakeActions : public QObject
{
    Q_OBJECT

public:
    explicit AwakeActions(Environment environment, QObject* parent = nullptr);

    /// The mode picked and not yet confirmed by the service.
    const std::optional<Awake::Mode>& choice() const { return m_choice; }
    /// Backpack's permission is being set up or removed.
    bool busy() const { return m_busy; }

    void setAwake(ActionCalls& calls, Awake::Mode mode);
    void extendBackpack(ActionCalls& calls);
    void setMinBattery(ActionCalls& calls, int percent);
    /// Sets the permission up with the system's password dialog, then switches Backpack on.
    void setupBackpack(ActionCalls& calls);
    void removeBackpack();

Q_SIGNALS:
    void choiceChanged();
    void busyChanged();
    /// The service's word on Stay awake, as an action's reply carried it.
    void taken(const Awake& awake);
    /// A failure, in a sentence for the note line.
    void failed(const QString& sentence);
    void readWanted();
    /// The panel should open again, after the system's dialog took it away.
    void panelWanted();

private:
    /// One change of Stay awake; `opening` begins the note of a failure.
    void change(ActionCalls& calls, const QJsonObject& change, const QString& opening, bool clearsChoice);
    void setChoice(std::optional<Awake::Mode> choice);
    void setBusy(bool busy);

    Environment m_environment;
    std::optional<Awake::Mode> m_choice;
    bool m_busy = false;
};
