#include "surface/ScreenWatch.h"

#include "surface/linux/SessionSignals.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QProcess>
#include <QTest>

// The desktop's D-Bus services, played on a private bus that stands in for
// both the system and the session bus: logind, a screensaver and the portal.

using namespace Qt::StringLiterals;

namespace {

const QString kSessionPath = u"/org/freedesktop/login1/session/_3"_s;

class FakeManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public Q_SLOTS:
    QDBusObjectPath GetSession(const QString&) { return QDBusObjectPath(kSessionPath); }
};

class FakeSession : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Session")
    Q_PROPERTY(bool Active READ active)
    Q_PROPERTY(bool LockedHint READ lockedHint)

public:
    bool active() const
    {
        ++reads;
        return activeValue;
    }
    bool lockedHint() const { return lockedValue; }

    bool activeValue = true;
    bool lockedValue = false;
    mutable int reads = 0;
};

class FakePortal : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public Q_SLOTS:
    // The real portal wraps the value in a second variant.
    QDBusVariant Read(const QString& group, const QString& key)
    {
        ++reads;
        if (group == u"org.gnome.desktop.interface"_s && key == u"enable-animations"_s)
            return QDBusVariant(QVariant::fromValue(QDBusVariant(animations)));
        return QDBusVariant(QVariant::fromValue(QDBusVariant(QString())));
    }

public:
    bool animations = true;
    int reads = 0;
};

QString stateOf(const ScreenWatch& watch)
{
    return u"asleep=%1 locked=%2 inactive=%3 reduce=%4"_s.arg(int(watch.displaysAsleep()))
        .arg(int(watch.screenLocked()))
        .arg(int(watch.sessionInactive()))
        .arg(int(watch.reduceMotion()));
}

} // namespace

class TestScreenWatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void theStateIsReadAtTheStart();
    void signalsMoveTheFlags_data();
    void signalsMoveTheFlags();

private:
    /// A watch listening, once its first reads have come back.
    std::unique_ptr<ScreenWatch> startedWatch();
    void send(const QString& path, const QString& interface, const QString& member, const QVariantList& arguments);

    QProcess m_bus;
    QString m_address;
    std::optional<QDBusConnection> m_desktop;
    FakeManager m_manager;
    FakeSession m_session;
    FakePortal m_portal;
};

void TestScreenWatch::initTestCase()
{
    m_bus.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
    if (!m_bus.waitForStarted(10000))
        QSKIP("dbus-daemon isn't here to play the desktop's bus");
    QVERIFY(m_bus.waitForReadyRead(10000));
    m_address = QString::fromUtf8(m_bus.readLine()).trimmed();
    QVERIFY(!m_address.isEmpty());
    // Both buses are the private one; set before this process first touches D-Bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.toUtf8());
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());

    m_desktop = QDBusConnection::connectToBus(m_address, u"desktop"_s);
    QVERIFY(m_desktop->isConnected());
    for (const QString& name : {SessionSignals::login1Service, SessionSignals::portalService,
             u"org.freedesktop.ScreenSaver"_s, u"org.gnome.ScreenSaver"_s})
        QVERIFY(m_desktop->registerService(name));
    QVERIFY(m_desktop->registerObject(SessionSignals::login1Path, &m_manager, QDBusConnection::ExportAllSlots));
    QVERIFY(m_desktop->registerObject(kSessionPath, &m_session, QDBusConnection::ExportAllProperties));
    QVERIFY(m_desktop->registerObject(SessionSignals::portalPath, &m_portal, QDBusConnection::ExportAllSlots));
}

void TestScreenWatch::cleanupTestCase()
{
    if (m_desktop)
        QDBusConnection::disconnectFromBus(u"desktop"_s);
    m_bus.kill();
    m_bus.waitForFinished(5000);
}

void TestScreenWatch::init()
{
    m_session.activeValue = true;
    m_session.lockedValue = false;
    m_session.reads = 0;
    m_portal.animations = true;
    m_portal.reads = 0;
}

std::unique_ptr<ScreenWatch> TestScreenWatch::startedWatch()
{
    auto watch = std::make_unique<ScreenWatch>();
    watch->listen();
    // Its subscriptions go out before its reads, so once both reads have
    // been answered every signal sent from here on reaches it.
    if (!QTest::qWaitFor([this] { return m_session.reads > 0 && m_portal.reads > 0; }, 10000))
        return nullptr;
    // Lets the answers themselves land before a row's signal can.
    QTest::qWait(100);
    return watch;
}

void TestScreenWatch::send(
    const QString& path, const QString& interface, const QString& member, const QVariantList& arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, interface, member);
    signal.setArguments(arguments);
    QVERIFY(m_desktop->send(signal));
}

void TestScreenWatch::theStateIsReadAtTheStart()
{
    m_session.activeValue = false;
    m_session.lockedValue = true;
    m_portal.animations = false;
    const std::unique_ptr<ScreenWatch> watch = startedWatch();
    QVERIFY(watch);
    QTRY_COMPARE(stateOf(*watch), u"asleep=0 locked=1 inactive=1 reduce=1"_s);
    QVERIFY(!watch->seen());
}

void TestScreenWatch::signalsMoveTheFlags_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("interface");
    QTest::addColumn<QString>("member");
    QTest::addColumn<QVariantList>("arguments");
    // For a signal that should change nothing: a later one on the same bus
    // that does, so its arrival proves the first was heard and passed over.
    QTest::addColumn<QString>("marker");
    QTest::addColumn<QString>("expected");

    const QString manager = u"org.freedesktop.login1.Manager"_s;
    const QString session = u"org.freedesktop.login1.Session"_s;
    const QString properties = u"org.freedesktop.DBus.Properties"_s;
    const QString settings = u"org.freedesktop.portal.Settings"_s;

    QTest::newRow("the machine going to sleep")
        << SessionSignals::login1Path << manager << u"PrepareForSleep"_s << QVariantList{true} << QString()
        << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("logind locking this session") << kSessionPath << session << u"Lock"_s << QVariantList{} << QString()
                                                 << "asleep=0 locked=1 inactive=0 reduce=0";
    QTest::newRow("the lock hint set") << kSessionPath << properties << u"PropertiesChanged"_s
                                       << QVariantList{session, QVariantMap{{u"LockedHint"_s, true}}, QStringList{}}
                                       << QString() << "asleep=0 locked=1 inactive=0 reduce=0";
    QTest::newRow("another user switched in") << kSessionPath << properties << u"PropertiesChanged"_s
                                              << QVariantList{session, QVariantMap{{u"Active"_s, false}}, QStringList{}}
                                              << QString() << "asleep=0 locked=0 inactive=1 reduce=0";
    QTest::newRow("freedesktop's screensaver on")
        << u"/org/freedesktop/ScreenSaver"_s << u"org.freedesktop.ScreenSaver"_s << u"ActiveChanged"_s
        << QVariantList{true} << QString() << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("GNOME's screensaver on")
        << u"/org/gnome/ScreenSaver"_s << u"org.gnome.ScreenSaver"_s << u"ActiveChanged"_s << QVariantList{true}
        << QString() << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("animations switched off") << SessionSignals::portalPath << settings << u"SettingChanged"_s
                                             << QVariantList{u"org.gnome.desktop.interface"_s, u"enable-animations"_s,
                                                    QVariant::fromValue(QDBusVariant(false))}
                                             << QString() << "asleep=0 locked=0 inactive=0 reduce=1";
    QTest::newRow("KDE's animations scaled to nothing")
        << SessionSignals::portalPath << settings << u"SettingChanged"_s
        << QVariantList{u"org.kde.kdeglobals.KDE"_s, u"AnimationDurationFactor"_s,
               QVariant::fromValue(QDBusVariant(0.0))}
        << QString() << "asleep=0 locked=0 inactive=0 reduce=1";
    QTest::newRow("KDE's animations merely slowed")
        << SessionSignals::portalPath << settings << u"SettingChanged"_s
        << QVariantList{u"org.kde.kdeglobals.KDE"_s, u"AnimationDurationFactor"_s,
               QVariant::fromValue(QDBusVariant(0.5))}
        << u"screensaver"_s << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("another setting changing is no news")
        << SessionSignals::portalPath << settings << u"SettingChanged"_s
        << QVariantList{u"org.gnome.desktop.interface"_s, u"clock-format"_s, QVariant::fromValue(QDBusVariant(false))}
        << u"screensaver"_s << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("another session locking is none of ours")
        << u"/org/freedesktop/login1/session/_9"_s << session << u"Lock"_s << QVariantList{} << u"sleep"_s
        << "asleep=1 locked=0 inactive=0 reduce=0";
    QTest::newRow("another interface's properties are passed over")
        << kSessionPath << properties << u"PropertiesChanged"_s
        << QVariantList{u"org.freedesktop.login1.User"_s, QVariantMap{{u"Active"_s, false}}, QStringList{}}
        << u"sleep"_s << "asleep=1 locked=0 inactive=0 reduce=0";
}

void TestScreenWatch::signalsMoveTheFlags()
{
    QFETCH(QString, path);
    QFETCH(QString, interface);
    QFETCH(QString, member);
    QFETCH(QVariantList, arguments);
    QFETCH(QString, marker);
    QFETCH(QString, expected);

    const std::unique_ptr<ScreenWatch> watch = startedWatch();
    QVERIFY(watch);
    QCOMPARE(stateOf(*watch), u"asleep=0 locked=0 inactive=0 reduce=0"_s);
    send(path, interface, member, arguments);
    if (marker == u"sleep"_s)
        send(SessionSignals::login1Path, u"org.freedesktop.login1.Manager"_s, u"PrepareForSleep"_s, {true});
    else if (marker == u"screensaver"_s)
        send(u"/org/freedesktop/ScreenSaver"_s, u"org.freedesktop.ScreenSaver"_s, u"ActiveChanged"_s, {true});
    QTRY_COMPARE(stateOf(*watch), expected);
}

QTEST_GUILESS_MAIN(TestScreenWatch)
#include "TestScreenWatch.moc"
