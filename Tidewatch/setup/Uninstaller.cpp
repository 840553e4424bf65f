#include "setup/Uninstaller.h"

#include "awake/BackpackSetup.h"
#include "entry/Preferences.h"
#include "link/DaemonClient.h"
#include "link/LocalStatus.h"
#include "platform/Platform.h"
#include "platform/Services.h"
#include "setup/LoginItem.h"
#include "text/Machine.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include <cstdio>

namespace {

constexpr double kCallLimit = 30;
constexpr double kStatusLimit = 6;

void printLine(const QString& line)
{
    std::fputs(line.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

Uninstaller::Uninstaller(ServiceInstaller installer, bool inApp)
    : Uninstaller(std::move(installer), Hands{})
{
    const Environment environment = m_installer.environment();
    m_hands.removeBackpack = [environment, inApp] { BackpackSetup::remove(environment, inApp); };
}

Uninstaller::Uninstaller(ServiceInstaller installer, Hands hands)
    : m_installer(std::move(installer))
    , m_hands(std::move(hands))
{
    if (!m_hands.say)
        m_hands.say = printLine;
    if (!m_hands.unregisterLoginItem)
        m_hands.unregisterLoginItem = platform::unregisterLoginItem;
    if (!m_hands.removeBackpack) {
        const Environment environment = m_installer.environment();
        m_hands.removeBackpack = [environment] { BackpackSetup::remove(environment, false); };
    }
}

QStringList Uninstaller::run(bool deleteData)
{
    const Environment& environment = m_installer.environment();
    if (const std::optional<QString> refused = m_installer.refusal())
        return {*refused};
    QStringList notes;

    // A test copy's service is its own, but Claude Code's settings, the
    // private name and sudo's rule belong to the real install.
    if (!environment.isTestCopy()) {
        const bool answering = m_installer.probeHealth().has_value();

        const auto hooks = DaemonClient::requestBlocking(environment, DaemonClient::Method::Post,
            QStringLiteral("/local/integration/uninstall"), std::nullopt, kCallLimit);
        if (!hooks.ok()) {
            notes << QStringLiteral("Tidewatch couldn’t remove its hooks from Claude Code (%1). They point at "
                                    "Tidewatch’s local address, so they do nothing once the service is gone; install "
                                    "and uninstall again to remove them cleanly.")
                         .arg(hooks.error().errorDescription());
        }

        // Whether there is a name to give up, only a service that answers can tell.
        std::optional<LocalStatus> status;
        if (answering) {
            const auto read = DaemonClient::requestBlocking(
                environment, DaemonClient::Method::Get, QStringLiteral("/local/status"), std::nullopt, kStatusLimit);
            if (read.ok())
                status = decodeDocument<LocalStatus>(read.value());
        }
        const bool named = status && status->name && !status->name->host.value_or(QString()).isEmpty();
        if (named) {
            const auto released = DaemonClient::requestBlocking(environment, DaemonClient::Method::Post,
                QStringLiteral("/local/name/release"), std::nullopt, kCallLimit);
            const bool gone = released.ok() || released.error().status == 404;
            if (!gone) {
                notes << QStringLiteral("Tidewatch couldn’t give up %1 private name (%2) under the "
                                        "private-name zone just now. Its records are removed by themselves after 90 "
                                        "days unused.")
                             .arg(machine::thisMachines(), released.error().errorDescription());
            } else if (released.ok()) {
                const std::optional<QJsonValue> root = Lenient::parseRoot(released.value());
                if (!root || !root->isObject()) {
                    notes << QStringLiteral("Tidewatch couldn’t confirm that %1 private name under the "
                                            "private-name zone was given up (its answer couldn’t be read). Its "
                                            "records are removed by themselves after 90 days unused.")
                                 .arg(machine::thisMachines());
                }
            }
        }

        if (!BackpackSetup::refusal(environment) && BackpackSetup::isInstalled(environment)) {
            m_hands.removeBackpack();
            if (BackpackSetup::isInstalled(environment)) {
                const QString path = BackpackSetup::path(environment);
                notes << QStringLiteral("Backpack mode’s permission is still in %1 (it lets this account turn sleep "
                                        "off and back on, nothing else). Remove it with: sudo rm %1")
                             .arg(path);
            }
        }
    }

    m_installer.uninstall();
    if (QFileInfo::exists(m_installer.jobFile()))
        notes << QStringLiteral("The launch agent at %1 couldn’t be deleted.").arg(m_installer.jobFile());

    if (!environment.isTestCopy()) {
        if (const std::optional<QString> failure = m_hands.unregisterLoginItem())
            m_hands.say(LoginItem::failureLine(*failure));
        Preferences(environment).setFlag(Preferences::loginItemWanted, false);
    }

    if (deleteData) {
        QDir(environment.supportFolder()).removeRecursively();
        QDir(environment.logFolder()).removeRecursively();
    }
    return notes;
}

QString Uninstaller::dialogTitle()
{
    return QStringLiteral("Uninstall Tidewatch?");
}

QString Uninstaller::dialogText(bool claudeHere)
{
    return QStringLiteral("The background service stops and is removed")
        + (claudeHere ? QStringLiteral(", and its hooks leave Claude Code") : QString())
        + QStringLiteral(". Sessions in your terminals keep running.");
}

QString Uninstaller::deleteDataChoice()
{
    return QStringLiteral("Also delete Tidewatch’s data: paired phones, providers, the downloaded Node.js, logs");
}

QString Uninstaller::builtInNodeRemark()
{
    return QStringLiteral(
        " Tidewatch’s own Tailscale node stays in your tailnet until you remove it in the admin console.");
}

QString Uninstaller::endTitle(const QStringList& notes)
{
    return notes.isEmpty() ? QStringLiteral("Tidewatch is uninstalled.")
                           : QStringLiteral("Tidewatch is mostly uninstalled.");
}

QString Uninstaller::endText(const QStringList& notes)
{
    const QString closing = platform::programIsBundle() ? QStringLiteral("You can move Tidewatch.app to the Trash now.")
                                                        : QStringLiteral("You can remove the Tidewatch program now.");
    return notes.isEmpty() ? closing : notes.join(QLatin1Char('\n')) + QStringLiteral("\n\n") + closing;
}
