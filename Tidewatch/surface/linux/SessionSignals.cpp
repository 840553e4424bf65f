#include "surface/linux/SessionSignals.h"

#include "surface/ScreenWatch.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString kPropertiesInterface = u"org.freedesktop.DBus.Properties"_s;
const QString kGnomeGroup = u"org.gnome.desktop.interface"_s;
const QString kGnomeKey = u"enable-animations"_s;
const QString kKdeGroup = u"org.kde.kdeglobals.KDE"_s;
const QString kKdeKey = u"AnimationDurationFactor"_s;

// Replies may wrap a value in a variant more than once (the portal's Read does).
QVariant unwrapped(QVariant value)
{
    while (value.metaType() == QMetaType::fromType<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value;
}

// An answer arrives later on the main thread; an error or a missing service is silence.
void whenAnswered(const QDBusConnection& bus, const QDBusMessage& call, QObject* context,
    std::function<void(const QDBusMessage&)> then)
{
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
        [then = std::move(then)](QDBusPendingCallWatcher* finished) {
            finished->deleteLater();
            const QDBusMessage reply = finished->reply();
            if (reply.type() == QDBusMessage::ReplyMessage)
                then(reply);
        });
}

} // namespace

void ScreenWatch::listen()
{
    if (m_listening)
        return;
    m_listening = true;
    new SessionSignals(this);
}

SessionSignals::SessionSignals(ScreenWatch* watch)
    : QObject(watch)
    , m_watch(watch)
{
    QDBusConnection system = QDBusConnection::systemBus();
    if (system.isConnected()) {
        system.connect(
            login1Service, login1Path, managerInterface, u"PrepareForSleep"_s, this, SLOT(prepareForSleep(bool)));
        findSession();
    }

    QDBusConnection session = QDBusConnection::sessionBus();
    if (!session.isConnected())
        return;
    // Freedesktop's name (KDE and others, under either path) and GNOME's own.
    for (const QString& path : {u"/org/freedesktop/ScreenSaver"_s, u"/ScreenSaver"_s}) {
        session.connect(u"org.freedesktop.ScreenSaver"_s, path, u"org.freedesktop.ScreenSaver"_s, u"ActiveChanged"_s,
            this, SLOT(screensaverActiveChanged(bool)));
    }
    session.connect(u"org.gnome.ScreenSaver"_s, u"/org/gnome/ScreenSaver"_s, u"org.gnome.ScreenSaver"_s,
        u"ActiveChanged"_s, this, SLOT(screensaverActiveChanged(bool)));
    session.connect(portalService, portalPath, settingsInterface, u"SettingChanged"_s, this,
        SLOT(settingChanged(QString, QString, QDBusVariant)));
    readAnimations();
}

void SessionSignals::findSession()
{
    // The session this process belongs to; "auto" lets logind pick it when
    // the environment doesn't name it.
    QString id = qEnvironmentVariable("XDG_SESSION_ID");
    if (id.isEmpty())
        id = u"auto"_s;
    QDBusMessage call = QDBusMessage::createMethodCall(login1Service, login1Path, managerInterface, u"GetSession"_s);
    call << id;
    whenAnswered(QDBusConnection::systemBus(), call, this, [this](const QDBusMessage& reply) {
        const QVariant path = reply.arguments().value(0);
        if (path.metaType() == QMetaType::fromType<QDBusObjectPath>())
            watchSession(path.value<QDBusObjectPath>());
    });
}

void SessionSignals::watchSession(const QDBusObjectPath& path)
{
    QDBusConnection system = QDBusConnection::systemBus();
    system.connect(login1Service, path.path(), sessionInterface, u"Lock"_s, this, SLOT(sessionLocked()));
    system.connect(login1Service, path.path(), sessionInterface, u"Unlock"_s, this, SLOT(sessionUnlocked()));
    system.connect(login1Service, path.path(), kPropertiesInterface, u"PropertiesChanged"_s, this,
        SLOT(sessionPropertiesChanged(QString, QVariantMap, QStringList)));
    QDBusMessage call = QDBusMessage::createMethodCall(login1Service, path.path(), kPropertiesInterface, u"GetAll"_s);
    call << sessionInterface;
    whenAnswered(system, call, this, [this](const QDBusMessage& reply) {
        takeSessionProperties(qdbus_cast<QVariantMap>(reply.arguments().value(0)));
    });
}

void SessionSignals::takeSessionProperties(const QVariantMap& properties)
{
    if (const QVariant active = unwrapped(properties.value(u"Active"_s)); active.metaType().id() == QMetaType::Bool)
        m_inactive = !active.toBool();
    if (const QVariant locked = unwrapped(properties.value(u"LockedHint"_s)); locked.metaType().id() == QMetaType::Bool)
        m_locked = locked.toBool();
    push();
}

void SessionSignals::readAnimations()
{
    for (const auto& [group, key] : {std::pair{kGnomeGroup, kGnomeKey}, std::pair{kKdeGroup, kKdeKey}}) {
        QDBusMessage call = QDBusMessage::createMethodCall(portalService, portalPath, settingsInterface, u"Read"_s);
        call << group << key;
        whenAnswered(QDBusConnection::sessionBus(), call, this, [this, group, key](const QDBusMessage& reply) {
            takeAnimationSetting(group, key, unwrapped(reply.arguments().value(0)));
        });
    }
}

void SessionSignals::takeAnimationSetting(const QString& group, const QString& key, const QVariant& value)
{
    if (group == kGnomeGroup && key == kGnomeKey && value.metaType().id() == QMetaType::Bool)
        m_gnomeStill = !value.toBool();
    else if (group == kKdeGroup && key == kKdeKey && value.metaType().id() == QMetaType::Double)
        m_kdeStill = value.toDouble() == 0;
    else
        return;
    if (m_watch)
        m_watch->setReduceMotion(m_gnomeStill || m_kdeStill);
}

void SessionSignals::prepareForSleep(bool sleeping)
{
    m_sleeping = sleeping;
    push();
}

void SessionSignals::sessionLocked()
{
    m_locked = true;
    push();
}

void SessionSignals::sessionUnlocked()
{
    m_locked = false;
    push();
}

void SessionSignals::sessionPropertiesChanged(
    const QString& interface, const QVariantMap& changed, const QStringList& /*invalidated*/)
{
    if (interface == sessionInterface)
        takeSessionProperties(changed);
}

void SessionSignals::screensaverActiveChanged(bool active)
{
    m_screensaver = active;
    push();
}

void SessionSignals::settingChanged(const QString& group, const QString& key, const QDBusVariant& value)
{
    takeAnimationSetting(group, key, unwrapped(value.variant()));
}

void SessionSignals::push()
{
    if (!m_watch)
        return;
    // A screensaver covering the screen hides the icon as surely as sleep does.
    m_watch->setDisplaysAsleep(m_sleeping || m_screensaver);
    m_watch->setScreenLocked(m_locked);
    m_watch->setSessionInactive(m_inactive);
}
