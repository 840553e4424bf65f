#pragma once

#include "link/Account.h"
#include "link/Approval.h"
#include "link/AutomationsStatus.h"
#include "link/Codex.h"
#include "link/Device.h"
#include "link/Lenient.h"
#include "link/Session.h"
#include "link/Usage.h"

#include <QString>
#include <QStringList>

#include <optional>

/// The Tailscale app on this Mac.
struct TailscaleStatus {
    std::optional<bool> installed;
    std::optional<bool> running;
    std::optional<bool> loggedIn;
    std::optional<QString> cliPath;
    std::optional<QString> dnsName;
    std::optional<QString> ip;
    std::optional<bool> httpsEnabled;
    std::optional<bool> serveOn;
    /// The phone's address.
    std::optional<QString> url;
    /// When this Mac's key runs out.
    std::optional<FlexDate> keyExpiry;

    /// The admin console's page of machines, where a machine's key expiry is turned off.
    static inline const QString adminConsole = QStringLiteral("https://login.tailscale.com/admin/machines");

    static std::optional<TailscaleStatus> fromJson(const QJsonValue& value);
    bool operator==(const TailscaleStatus&) const = default;
};

/// The service's built-in Tailscale node.
struct TsnetStatus {
    /// The node's helper process.
    struct Helper {
        /// Such as "Running".
        std::optional<QString> state;
        std::optional<QString> loginUrl;
        std::optional<QString> dnsName;
        std::optional<QString> account;
        std::optional<QString> listening;
        std::optional<QString> tls;
        std::optional<QString> error;

        static std::optional<Helper> fromJson(const QJsonValue& value);
        bool operator==(const Helper&) const = default;
    };

    /// "system" is the Tailscale app, "builtIn" the service's node, "off" neither.
    std::optional<QString> mode;
    /// The service's sentence.
    std::optional<QString> reason;
    std::optional<bool> available;
    std::optional<bool> enabled;
    std::optional<Helper> helper;
    std::optional<QString> url;
    std::optional<QString> controlUrl;

    static std::optional<TsnetStatus> fromJson(const QJsonValue& value);
    bool operator==(const TsnetStatus&) const = default;
};

/// The reply of GET /local/status: what the Mac side of the service knows about
/// its own setup. Every field is optional.
struct LocalStatus {
    /// A `path` means the service found Claude Code.
    struct Claude {
        std::optional<QString> path;
        std::optional<QString> version;

        static std::optional<Claude> fromJson(const QJsonValue& value);
        bool operator==(const Claude&) const = default;
    };

    /// The private name given to this Mac.
    struct Name {
        std::optional<QString> host;
        std::optional<bool> inUse;
        std::optional<QString> reason;
        /// The user's choice.
        std::optional<bool> setting;
        /// The service's terms text.
        std::optional<QString> terms;
        std::optional<bool> termsShown;

        static std::optional<Name> fromJson(const QJsonValue& value);
        bool operator==(const Name&) const = default;
    };

    /// The phone app package on offer.
    struct Apk {
        std::optional<QString> sha256;
        std::optional<QString> versionName;
        /// Bytes.
        std::optional<qint64> size;

        static std::optional<Apk> fromJson(const QJsonValue& value);
        bool operator==(const Apk&) const = default;
    };

    /// Hooks in Claude Code's settings.
    struct Hooks {
        std::optional<bool> installed;

        static std::optional<Hooks> fromJson(const QJsonValue& value);
        bool operator==(const Hooks&) const = default;
    };

    /// The status line in Claude Code's settings.
    struct StatusLine {
        std::optional<bool> installed;
        std::optional<bool> supported;

        static std::optional<StatusLine> fromJson(const QJsonValue& value);
        bool operator==(const StatusLine&) const = default;
    };

    /// The function in the shell profile.
    struct Shell {
        std::optional<bool> installed;
        std::optional<bool> supported;

        static std::optional<Shell> fromJson(const QJsonValue& value);
        bool operator==(const Shell&) const = default;
    };

    /// File browsing settings.
    struct Files {
        std::optional<bool> browseOutsideProjects;

        static std::optional<Files> fromJson(const QJsonValue& value);
        bool operator==(const Files&) const = default;
    };

    /// The local network listener.
    struct Lan {
        std::optional<qint64> port;
        std::optional<QStringList> addresses;
        /// The certificate's fingerprint, for pinning on the phone.
        std::optional<QString> fingerprint;

        static std::optional<Lan> fromJson(const QJsonValue& value);
        bool operator==(const Lan&) const = default;
    };

    std::optional<QString> daemonVersion;
    std::optional<qint64> apiPort;
    std::optional<Claude> claude;
    std::optional<TailscaleStatus> tailscale;
    std::optional<TsnetStatus> tsnet;
    /// Where the phone app can be had.
    std::optional<QString> downloadUrl;
    /// That address is on this Mac.
    std::optional<bool> downloadLocal;
    /// The address has a trusted certificate.
    std::optional<bool> downloadTrusted;
    /// An address that works away from home.
    std::optional<QString> downloadAnywhere;
    std::optional<Name> name;
    std::optional<Apk> apk;
    std::optional<Hooks> hooks;
    std::optional<StatusLine> statusLine;
    std::optional<Shell> shell;
    FlexList<Device> devices;
    /// For an app that has no snapshot; a snapshot always wins.
    FlexList<Session> sessions;
    FlexList<Approval> approvals;
    /// Clients on the feed now.
    std::optional<qint64> connectedClients;
    std::optional<Usage> usage;
    /// The folder of projects.
    std::optional<QString> projectsRoot;
    std::optional<Files> files;
    std::optional<Account> account;
    std::optional<AutomationsStatus> automations;
    std::optional<Lan> lan;
    std::optional<Codex> codex;

    /// None only when it isn't an object.
    static std::optional<LocalStatus> fromJson(const QJsonValue& value);
    bool operator==(const LocalStatus&) const = default;
};
