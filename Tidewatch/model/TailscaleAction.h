#pragma once

#include "link/LocalStatus.h"

#include <QString>

#include <optional>

/// What to do next about the phone's route to this Mac, decided once from the
/// local status; every surface that speaks of the phone reads this.
struct TailscaleAction {
    enum class Kind {
        OpenApp, ///< the app is installed but not running, or signed out (`loggedOut`)
        Ready, ///< phone access is on at `url`
        SignInBuiltIn, ///< the built-in node waits for a sign-in at `url`
        BuiltInWaiting, ///< the built-in node is on its way; `detail` says how
        ReadyBuiltIn, ///< the built-in node serves at `url`
        Install, ///< no Tailscale on this Mac
        EnableHTTPS, ///< the tailnet has no HTTPS certificates
        TurnOnServe, ///< all is ready but serving is off
    };

    Kind kind = Kind::Install;
    bool loggedOut = false;
    QString url;
    QString detail;
    /// The built-in node reaches phones with this Mac's own pinned certificate.
    bool pinned = false;
    std::optional<QString> account;
    std::optional<QString> node;

    static TailscaleAction decide(const LocalStatus& status);

    bool isReady() const { return kind == Kind::Ready || kind == Kind::ReadyBuiltIn; }

    bool operator==(const TailscaleAction&) const = default;
};

/// Where a phone reaches this Mac's service: the Tailscale app's address, else
/// the built-in node's while it is on. Empty when neither.
QString phoneAddress(const LocalStatus& status);

/// Phones on the same network can reach this Mac directly.
bool hasLanRoute(const LocalStatus& status);

/// Some route already brings a phone here: phone access is on, or the local network.
bool routeInOrder(const LocalStatus& status);
