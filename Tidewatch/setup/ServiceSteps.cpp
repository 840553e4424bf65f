#include "setup/ServiceSteps.h"

#include "link/DaemonClient.h"
#include "setup/ClaudeSDK.h"
#include "setup/Detection.h"
#include "setup/Uninstaller.h"
#include "text/Machine.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

namespace ServiceSteps {

namespace {

constexpr double kCallLimit = 30;
constexpr double kServeLimit = 45;
constexpr double kStatusLimit = 6;
constexpr qint64 kKeyWarning = 1209600; // 14 days, in seconds

QString installedWord(bool installed)
{
    return installed ? QStringLiteral("installed") : QStringLiteral("NOT installed");
}

// A step ends on what the status says once its call is done: the report of
// it, or the reason it couldn't be read.
int reportStatus(
    const Environment& environment, const Print& print, const std::function<Report(const LocalStatus&)>& report)
{
    const auto read = DaemonClient::requestBlocking(
        environment, DaemonClient::Method::Get, QStringLiteral("/local/status"), std::nullopt, kStatusLimit);
    if (!read.ok()) {
        print(QStringLiteral("FAILED: ") + read.error().errorDescription());
        return 1;
    }
    const std::optional<LocalStatus> status = decodeDocument<LocalStatus>(read.value());
    if (!status) {
        print(
            QStringLiteral("FAILED: ") + DaemonError::decoding(QStringLiteral("GET /local/status")).errorDescription());
        return 1;
    }
    const Report made = report(*status);
    for (const QString& line : made.lines)
        print(line);
    return made.status;
}

} // namespace

QString shortened(const QString& path, const QString& home)
{
    if (!home.isEmpty() && (path == home || path.startsWith(home + QLatin1Char('/'))))
        return QLatin1Char('~') + path.mid(home.size());
    return path;
}

QString integrationRefusal()
{
    return QStringLiteral("This is a test copy (a TIDEWATCH_ variable is set), so it leaves Claude Code’s settings "
                          "and ~/.zshrc to your real Tidewatch.");
}

QString tailscaleRefusal()
{
    return QStringLiteral("This is a test copy (a TIDEWATCH_ variable is set), so it leaves phone access to your real "
                          "Tidewatch: a test daemon’s route would stay in your tailnet.");
}

int service(ServiceInstaller installer, const Print& print)
{
    const Environment& environment = installer.environment();
    if (const std::optional<QString> refused = installer.refusal()) {
        print(QStringLiteral("FAILED: ") + *refused);
        return 1;
    }
    if (environment.isTestCopy()) {
        print(QStringLiteral("Test copy: its own service, folder and log (")
            + shortened(environment.supportFolder(), environment.home()) + QLatin1Char(')'));
    }
    print(QStringLiteral("Installing the background service…"));
    const bool launchd = installer.manager().kind() == platform::ServiceManagerKind::Launchd;
    print(QStringLiteral("  label  ") + environment.serviceLabel());
    print((launchd ? QStringLiteral("  plist  ") : QStringLiteral("  unit  ")) + installer.jobFile());
    print(QStringLiteral("  daemon  ") + environment.daemonFolder());

    QList<ServiceInstaller::Progress::Step> begun;
    const ServiceManager& manager = installer.manager();
    const Outcome<Health> installed = installer.installAll([&](const ServiceInstaller::Progress& progress) {
        if (begun.contains(progress.step))
            return;
        begun << progress.step;
        if (const QString line = ServiceInstaller::progressLine(progress, manager); !line.isEmpty())
            print(line);
    });
    if (!installed.ok()) {
        print(QStringLiteral("FAILED: ") + installed.sentence());
        return 1;
    }
    const Health& health = installed.value();
    print(QStringLiteral("OK: running as %1 (protocol %2)")
              .arg(health.name.value_or(QStringLiteral("?")),
                  health.protocol ? QString::number(*health.protocol) : QStringLiteral("?")));
    const ClaudeSDK::State sdk = ClaudeSDK::state(environment.daemonFolder());
    if (sdk.isCurrent()) {
        print(QStringLiteral("  Claude Code’s SDK %1 is there").arg(*sdk.installed));
    } else {
        print(QStringLiteral("  note: Claude Code’s SDK isn’t there: ")
            + ClaudeSDK::lastProblem().value_or(QStringLiteral("not fetched")));
    }
    return 0;
}

Report integrationReport(const LocalStatus& status)
{
    const bool hooks = status.hooks && status.hooks->installed.value_or(false);
    const bool statusLine = status.statusLine && status.statusLine->installed.value_or(false);
    return {{(hooks ? QStringLiteral("OK") : QStringLiteral("FAILED")) + QStringLiteral(": hooks ")
                + installedWord(hooks) + QStringLiteral(", status line ") + installedWord(statusLine)},
        hooks ? 0 : 1};
}

int integration(const Environment& environment, const Print& print)
{
    if (environment.isTestCopy()) {
        print(QStringLiteral("FAILED: ") + integrationRefusal());
        return 1;
    }
    print(QStringLiteral("Connecting Claude Code (POST /local/integration/install)…"));
    const auto installed = DaemonClient::requestBlocking(environment, DaemonClient::Method::Post,
        QStringLiteral("/local/integration/install"), std::nullopt, kCallLimit);
    if (!installed.ok()) {
        print(QStringLiteral("FAILED: ") + installed.error().errorDescription());
        return 1;
    }
    return reportStatus(environment, print, integrationReport);
}

Report tailscaleReport(const LocalStatus& status, const QDateTime& now)
{
    const std::optional<TailscaleStatus>& tailscale = status.tailscale;
    if (tailscale && tailscale->serveOn.value_or(false)) {
        Report report{{QStringLiteral("OK: ") + tailscale->url.value_or(QStringLiteral("?"))}, 0};
        if (tailscale->keyExpiry) {
            const QDateTime expiry = tailscale->keyExpiry->toDateTime();
            if (now.secsTo(expiry) < kKeyWarning) {
                report.lines << QStringLiteral("Note: ") + machine::thisMachines()
                        + QStringLiteral(" Tailscale key expires ")
                        + expiry.toUTC().toString(QStringLiteral("yyyy-MM-dd"))
                        + QStringLiteral("; disable key expiry at ") + TailscaleStatus::adminConsole;
            }
        }
        return report;
    }
    const bool httpsOff = tailscale && tailscale->httpsEnabled == std::optional<bool>(false);
    return {{QStringLiteral("FAILED: Tailscale didn’t turn phone access on. ")
                + (httpsOff ? QStringLiteral("HTTPS certificates are still off for your tailnet.")
                            : QStringLiteral("Check that Tailscale is running and signed in, then try again."))},
        1};
}

int tailscale(const Environment& environment, const Print& print)
{
    if (environment.isTestCopy()) {
        print(QStringLiteral("FAILED: ") + tailscaleRefusal());
        return 1;
    }
    print(QStringLiteral("Turning on phone access (POST /local/tailscale/serve)…"));
    const auto served = DaemonClient::requestBlocking(
        environment, DaemonClient::Method::Post, QStringLiteral("/local/tailscale/serve"), std::nullopt, kServeLimit);
    // What stands afterwards decides, whatever the call itself answered,
    // unless nothing answers at all.
    if (!served.ok() && served.error().kind == DaemonError::Kind::NotRunning) {
        print(QStringLiteral("FAILED: ") + served.error().errorDescription());
        return 1;
    }
    return reportStatus(environment, print,
        [](const LocalStatus& status) { return tailscaleReport(status, QDateTime::currentDateTimeUtc()); });
}

int uninstallService(ServiceInstaller installer, const Print& print)
{
    const Environment& environment = installer.environment();
    if (const std::optional<QString> refused = installer.refusal()) {
        print(QStringLiteral("FAILED: ") + *refused);
        return 1;
    }
    print(environment.isTestCopy()
            ? QStringLiteral("Uninstalling this test copy’s service (launch agent and daemon copy; data kept)…")
            : QStringLiteral("Uninstalling (integration, launch agent, daemon copy, login item; data kept)…"));
    const QStringList notes = Uninstaller(std::move(installer)).run(false);
    if (notes.isEmpty()) {
        print(QStringLiteral("OK: uninstalled"));
        return 0;
    }
    for (const QString& note : notes)
        print(QStringLiteral("  note: ") + note);
    print(QStringLiteral("Done with notes"));
    return 2;
}

int sdkFetchCheck(const Environment& environment, const std::optional<QString>& folder,
    const std::optional<QString>& node, const Print& print)
{
    const std::optional<QString> bundled = environment.bundledDaemonFolder();
    if (!bundled) {
        print(QStringLiteral("FAILED: This copy of Tidewatch doesn’t include the background service. Rebuild it with "
                             "mac/build.sh."));
        return 1;
    }
    QString nodePath = node.value_or(QString());
    if (nodePath.isEmpty()) {
        Detection::Places places = Detection::Places::forThisSystem();
        places.systemFolders = OutsideTools::current(environment).nodeFolders;
        const auto [best, all] = Detection(environment, places).bestNode();
        if (!best) {
            print(QStringLiteral("FAILED: there’s no Node.js of %1 or later here; name one with --node.")
                      .arg(NodeVersion::floor.toString()));
            return 1;
        }
        nodePath = best->path;
    }

    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/tidewatch-sdk-XXXXXX"));
    const QString target = folder ? QDir(*folder).absolutePath() : scratch.path() + QStringLiteral("/daemon");
    print(QStringLiteral("copying the service into %1…").arg(target));
    if (QFileInfo::exists(target + QStringLiteral("/src"))) {
        print(QStringLiteral("FAILED: %1 holds a service already; name an empty folder.").arg(target));
        return 1;
    }
    if (const std::optional<QString> failure = ServiceInstaller::copyServiceFolder(*bundled, target)) {
        print(QStringLiteral("FAILED: ") + *failure);
        return 1;
    }
    print(QStringLiteral("fetching Claude Code’s SDK %1 with %2…")
              .arg(ClaudeSDK::wanted(target).value_or(QStringLiteral("(any version)")), nodePath));
    QElapsedTimer clock;
    clock.start();
    const ClaudeSDK::Outcome outcome = ClaudeSDK::fetch(environment, target, nodePath);
    const QString seconds = QString::number(double(clock.elapsed()) / 1000, 'f', 1);
    if (!outcome.ready) {
        print(QStringLiteral("FAILED: %1 (%2 s)").arg(outcome.failure, seconds));
        return 1;
    }
    print(QStringLiteral("OK: Claude Code’s SDK %1 in %2 s").arg(*outcome.ready, seconds));
    return 0;
}

} // namespace ServiceSteps
