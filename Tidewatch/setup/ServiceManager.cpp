#include "setup/ServiceManager.h"

#include "setup/ServiceJob.h"

namespace {

using Kind = platform::ServiceManagerKind;

constexpr double kCommandLimit = 15;
constexpr double kProbeLimit = 5;

} // namespace

ServiceManager::ServiceManager(platform::ServiceManagerKind kind, QString tool, Job job)
    : m_kind(kind)
    , m_tool(std::move(tool))
    , m_job(std::move(job))
{
}

QString ServiceManager::name() const
{
    return m_kind == Kind::Launchd ? QStringLiteral("launchd") : QStringLiteral("systemd");
}

QString ServiceManager::startWords() const
{
    return m_kind == Kind::Launchd ? QStringLiteral("launchctl bootout + bootstrap")
                                   : QStringLiteral("systemctl --user stop + start");
}

QString ServiceManager::fileSuffix(platform::ServiceManagerKind kind)
{
    return kind == Kind::Launchd ? QStringLiteral(".plist") : QStringLiteral(".service");
}

QString ServiceManager::unitName() const
{
    return m_job.label + QStringLiteral(".service");
}

QString ServiceManager::address() const
{
    return QStringLiteral("gui/%1/%2").arg(m_job.uid).arg(m_job.label);
}

ServiceManager::Command ServiceManager::systemctl(QStringList arguments, double limitSeconds) const
{
    arguments.prepend(QStringLiteral("--user"));
    return {m_tool, arguments, limitSeconds};
}

QList<ServiceManager::Command> ServiceManager::unload() const
{
    if (m_kind == Kind::Launchd)
        return {{m_tool, {QStringLiteral("bootout"), address()}, kCommandLimit}};
    QStringList disable{QStringLiteral("disable")};
    if (m_job.testCopy)
        disable << QStringLiteral("--runtime");
    disable << unitName();
    return {systemctl({QStringLiteral("stop"), unitName()}), systemctl(disable)};
}

ServiceManager::Command ServiceManager::probe() const
{
    if (m_kind == Kind::Launchd)
        return {m_tool, {QStringLiteral("print"), address()}, kProbeLimit};
    return systemctl(
        {QStringLiteral("show"), QStringLiteral("-p"), QStringLiteral("LoadState,ActiveState,MainPID"), unitName()},
        kProbeLimit);
}

QList<ServiceManager::Command> ServiceManager::load() const
{
    if (m_kind == Kind::Launchd) {
        return {{m_tool, {QStringLiteral("bootstrap"), QStringLiteral("gui/%1").arg(m_job.uid), m_job.file},
            kCommandLimit}};
    }
    if (m_job.testCopy) {
        // Linked for this boot only, from the copy's own folder: the user's
        // systemd folder never hears of a test copy, and it doesn't start at login.
        return {systemctl({QStringLiteral("link"), QStringLiteral("--runtime"), m_job.file}),
            systemctl({QStringLiteral("daemon-reload")}), systemctl({QStringLiteral("start"), unitName()})};
    }
    return {systemctl({QStringLiteral("daemon-reload")}),
        systemctl({QStringLiteral("enable"), QStringLiteral("--now"), unitName()})};
}

ServiceManager::Command ServiceManager::restart() const
{
    if (m_kind == Kind::Launchd)
        return {m_tool, {QStringLiteral("kickstart"), QStringLiteral("-k"), address()}, kCommandLimit};
    return systemctl({QStringLiteral("restart"), unitName()});
}

QList<ServiceManager::Command> ServiceManager::forget() const
{
    if (m_kind == Kind::Launchd)
        return {};
    return {systemctl({QStringLiteral("daemon-reload")})};
}

QString ServiceManager::property(const QString& output, const QString& name)
{
    const QString prefix = name + QLatin1Char('=');
    for (const QString& line : output.split(QLatin1Char('\n'))) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed();
    }
    return {};
}

bool ServiceManager::knows(const ShellResult& probe) const
{
    if (probe.timedOut || probe.status != 0)
        return false;
    if (m_kind == Kind::Launchd)
        return true;
    // systemd answers `show` for any name, known or not; and a unit it has
    // loaded but stopped is one nobody keeps running.
    static const QStringList kept{QStringLiteral("active"), QStringLiteral("activating"),
        QStringLiteral("deactivating"), QStringLiteral("reloading")};
    return property(probe.out, QStringLiteral("LoadState")) == QLatin1StringView("loaded")
        && kept.contains(property(probe.out, QStringLiteral("ActiveState")));
}

bool ServiceManager::hasLetGo(const ShellResult& probe) const
{
    if (probe.timedOut || probe.status != 0)
        return true;
    if (m_kind == Kind::Launchd)
        return false;
    const QString active = property(probe.out, QStringLiteral("ActiveState"));
    return active.isEmpty() || active == QLatin1StringView("inactive") || active == QLatin1StringView("failed");
}

std::optional<int> ServiceManager::pid(const ShellResult& probe) const
{
    if (probe.timedOut || probe.status != 0)
        return std::nullopt;
    return m_kind == Kind::Launchd ? ServiceJob::pidFromLaunchctl(probe.out) : ServiceJob::pidFromSystemctl(probe.out);
}

bool ServiceManager::noUserSession(const ShellResult& result)
{
    const QString text = result.combined();
    return text.contains(QLatin1StringView("Failed to connect to bus"))
        || text.contains(QLatin1StringView("Failed to connect to user scope bus"));
}
