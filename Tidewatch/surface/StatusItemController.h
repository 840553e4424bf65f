#pragma once

#include "base/Clock.h"
#include "entry/Environment.h"
#include "surface/MenuBarIconAnimator.h"
#include "surface/ScreenWatch.h"
#include "surface/StatusButton.h"

#include <QObject>
#include <QRect>

#include <functional>
#include <memory>

class AppModel;

/// The one status item: it keeps the icon in step with the model and the
/// screen, and hands clicks on to whoever owns the panel.
class StatusItemController : public QObject
{
    Q_OBJECT

public:
    using ButtonMaker = std::function<std::unique_ptr<StatusButton>(const QString& autosaveName)>;

    /// The system's item, the system's clock, and the system's word on the screen.
    StatusItemController(AppModel& model, const Environment& environment, QObject* parent = nullptr);
    /// A button and a clock of the caller's, for tests and renders. It
    /// listens to nothing of the system: `seen` and Reduce Motion come only
    /// from screen()'s setters.
    StatusItemController(AppModel& model, const Environment& environment, ButtonMaker makeButton, const Clock& clock,
        QObject* parent = nullptr);
    ~StatusItemController() override;

    /// Makes the item and starts following the model. Once: later calls do nothing.
    void install();
    bool isInstalled() const { return m_button != nullptr; }

    /// "Tidewatch", or "TidewatchTest" in a test copy, so the two keep their own places.
    static QString autosaveName(const Environment& environment);

    /// The look the model and the screen make now.
    MenuBarIconAnimator::Look currentLook() const;

    MenuBarIconAnimator& icon() { return m_icon; }
    ScreenWatch& screen() { return m_screen; }
    /// None before install().
    StatusButton* button() const { return m_button.get(); }

public Q_SLOTS:
    /// Reads the model and the screen and hands the look to the icon.
    void sync();
    /// The button is held down while the panel is open.
    void setPanelOpen(bool open);

Q_SIGNALS:
    /// Left or right button alike; `anchor` is the item on the screen, empty when unknown.
    void clicked(QRect anchor);

private:
    StatusItemController(AppModel& model, const Environment& environment, ButtonMaker makeButton, const Clock& clock,
        bool listens, QObject* parent);
    void queueSync();

    AppModel& m_model;
    const QString m_autosaveName;
    ButtonMaker m_makeButton;
    const bool m_listens;
    ScreenWatch m_screen;
    // The animator goes before the button it points at.
    std::unique_ptr<StatusButton> m_button;
    MenuBarIconAnimator m_icon;
    bool m_syncQueued = false;
    bool m_panelOpen = false;
};
