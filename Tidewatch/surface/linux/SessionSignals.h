#pragma once

#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVariantMap>

class ScreenWatch;

/// The desktop's word on the screen, from D-Bus: logind's sleep, session lock
/// and active session on the system bus, the screensaver and the desktop's
/// animation setting on the session bus. Any of them may be missing; what is
/// missing never ends `seen`.
class SessionSignals : public QObject
{
    Q_OBJECT

public:
    explicit SessionSignals(ScreenWatch* watch);

    static inline const QString login1Service = QStringLiteral("org.freedesktop.login1");
    static inline const QString login1Path = QStringLiteral("/org/freedesktop/login1");
    static inline const QString managerInterface = QStringLiteral("org.freedesktop.login1.Manager");
    static inline const QString sessionInterface = QStringLiteral("org.freedesktop.login1.Session");
    static inline const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
    static inline const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
    static inline const QString settingsInterface = QStringLiteral("org.freedesktop.portal.Settings");

private Q_SLOTS:
    void prepareForSleep(bool sleeping);
    void sessionLocked();
    void sessionUnlocked();
    void sessionPropertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);
    void screensaverActiveChanged(bool active);
    void settingChanged(const QString& group, const QString& key, const QDBusVariant& value);

private:
    void findSession();
    void watchSession(const QDBusObjectPath& path);
    void takeSessionProperties(const QVariantMap& properties);
    void readAnimations();
    /// One desktop's animation setting as it reads now; the other's stays.
    void takeAnimationSetting(const QString& group, const QString& key, const QVariant& value);
    void push();

    QPointer<ScreenWatch> m_watch;
    bool m_sleeping = false;
    bool m_locked = false;
    bool m_screensaver = false;
    bool m_inactive = false;
    // GNOME switches animations off; KDE scales them to nothing. Either one is enough.
    bool m_gnomeStill = false;
    bool m_kdeStill = false;
};
