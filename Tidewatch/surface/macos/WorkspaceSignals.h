#pragma once

#include <QObject>
#include <QPointer>

class ScreenWatch;

/// The workspace's word on the screen: displays asleep, the session switched
/// away, the screen locked, and the Reduce Motion setting. Observers live as
/// long as this object.
class WorkspaceSignals : public QObject
{
    Q_OBJECT

public:
    explicit WorkspaceSignals(ScreenWatch* watch);
    ~WorkspaceSignals() override;

private:
    struct Observers;
    Observers* m_observers;
};
