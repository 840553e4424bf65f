#pragma once

#include "entry/Environment.h"
#include "link/LocalStatus.h"
#include "setup/ServiceInstaller.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

/// The headless steps that install, connect and remove the service, each
/// printing its lines as its phases begin and giving the process's exit
/// status: 0 done, 1 failed, 2 (uninstall) done with notes.
namespace ServiceSteps {

using Print = std::function<void(const QString& line)>;

int service(ServiceInstaller installer, const Print& print);
int integration(const Environment& environment, const Print& print);
int tailscale(const Environment& environment, const Print& print);
int uninstallService(ServiceInstaller installer, const Print& print);

/// The one-shot SDK check: the shipped service copied into folder (a scratch
/// one when none), its SDK fetched there for real with the npm beside node
/// (the best Node.js here when none), the outcome and the time it took.
int sdkFetchCheck(const Environment& environment, const std::optional<QString>& folder,
    const std::optional<QString>& node, const Print& print);

/// What a report prints and the status it ends with.
struct Report {
    QStringList lines;
    int status = 1;

    bool operator==(const Report&) const = default;
};

/// The line after the integration call, from the service's status.
Report integrationReport(const LocalStatus& status);
/// The lines after phone access was asked for; now decides whether the key's expiry is near.
Report tailscaleReport(const LocalStatus& status, const QDateTime& now);
/// The test-copy refusals of the steps that touch the real install's settings.
QString integrationRefusal();
QString tailscaleRefusal();
/// The path with the home folder written as "~".
QString shortened(const QString& path, const QString& home);

} // namespace ServiceSteps
