#pragma once

#include "base/Clock.h"
#include "model/DismissedNotices.h"

#include <QObject>
#include <QVariantMap>

class AppModel;
class PopoverPages;
class QTimer;

/// What the panel's views bind to: the page as finished words, and the
/// user's actions by name. It lives as long as the panel is open, so its
/// one-second refresh (for the countdowns and ages) stops when the panel closes.
class PopoverModel : public QObject
{
    Q_OBJECT
    Q_MOC_INCLUDE("surface/PopoverPages.h")
    Q_PROPERTY(QVariantMap page READ page NOTIFY pageChanged)
    /// Which page shows, and the pair page's words.
    Q_PROPERTY(PopoverPages* pages READ pages CONSTANT)

public:
    PopoverModel(AppModel& model, DismissedNotices& dismissed, const Clock& clock, QObject* parent = nullptr);

    const QVariantMap& page() const { return m_page; }
    PopoverPages* pages() const { return m_pages; }
    /// Builds the page now; the views follow on a change only.
    void refresh();
    /// Ages and countdowns move once a second while this is on.
    void setTicking(bool on);

    Q_INVOKABLE void decide(const QString& approvalId, const QString& decision);
    Q_INVOKABLE void openTerminal(const QString& sessionId);
    /// A row's button, by the act the page gave it.
    Q_INVOKABLE void rowAction(const QString& sessionId, int act);
    Q_INVOKABLE void dismissNotice(const QString& id);
    /// A notice's button, by the notice's id.
    Q_INVOKABLE void noticeAction(const QString& id);
    /// The service-down card's button, by the act the page gave it.
    Q_INVOKABLE void serviceAction(const QString& act);
    /// A choice of a notice's choice row, by the notice's id: an answer to an ask.
    Q_INVOKABLE void chooseNotice(const QString& id, const QString& choice);
    /// The automations line's button, shown while they are paused.
    Q_INVOKABLE void resumeAutomations();
    Q_INVOKABLE void undoDismiss();
    Q_INVOKABLE void signIn();
    /// The account card's button, by the act the page gave it.
    Q_INVOKABLE void accountAction();
    /// A quick action's button, by its id.
    Q_INVOKABLE void quickAction(const QString& id);
    Q_INVOKABLE void setAwake(const QString& mode);
    Q_INVOKABLE void extendBackpack();
    Q_INVOKABLE void setMinBattery(int percent);
    Q_INVOKABLE void setupBackpack();
    Q_INVOKABLE void confirmDialog(bool option);
    Q_INVOKABLE void cancelDialog();
    Q_INVOKABLE void dialogSecondary();
    Q_INVOKABLE void quit();
    /// Codex's card: its sign-in in a terminal window, and its dismissal.
    Q_INVOKABLE void signInCodex();
    Q_INVOKABLE void dismissCodexCard();

    // The Settings page.

    /// The built-in Tailscale node serves phones, or the Tailscale app does.
    Q_INVOKABLE void chooseBuiltInTailscale(bool on);
    Q_INVOKABLE void signOutTailscale();
    /// Opens the Tailscale admin console, where key expiry is turned off.
    Q_INVOKABLE void fixTailscaleKey();
    /// Asks first, then forgets the paired device.
    Q_INVOKABLE void forgetDevice(const QString& deviceId);
    Q_INVOKABLE void setBrowseOutsideProjects(bool on);
    Q_INVOKABLE void setPrivateName(bool on);
    Q_INVOKABLE void uninstall();

Q_SIGNALS:
    void pageChanged();
    /// The content no longer fits the panel it stands in.
    void closeRequested();

private:
    void queueRefresh();
    /// Asks the service to try the provider of a session's row again.
    void checkProviderOf(const QString& sessionId);

    AppModel& m_model;
    DismissedNotices& m_dismissed;
    const Clock& m_clock;
    QTimer* m_tick;
    PopoverPages* m_pages;
    QVariantMap m_page;
    bool m_queued = false;
};
