#pragma once

#include <QObject>
#include <QString>

#include <chrono>

class AppModel;
class Clock;
class MenuPanel;
class StatusItemController;

/// The debug capture tour: a while after the start the app is walked through
/// its stops, and what each shows goes into a folder, as pictures and a
/// report.txt of one line a stop. It never ends the process.
class DebugCapture : public QObject
{
    Q_OBJECT

public:
    /// Long enough for the first reads and the feed to settle.
    static constexpr std::chrono::milliseconds kDelay{6000};

    DebugCapture(AppModel& model, MenuPanel& panel, StatusItemController& statusItem, const Clock& clock,
        QString folder, std::chrono::milliseconds delay = kDelay, QObject* parent = nullptr);

    /// Makes the folder with its parents (a failure passes in silence) and
    /// sets the tour for after the delay, on this thread.
    void start();

Q_SIGNALS:
    /// The report is written, or was tried.
    void finished();

private:
    void tour();

    AppModel& m_model;
    MenuPanel& m_panel;
    StatusItemController& m_statusItem;
    const Clock& m_clock;
    QString m_folder;
    std::chrono::milliseconds m_delay;
};
