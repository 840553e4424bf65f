#pragma once

#include "link/Lenient.h"
#include "model/Notice.h"
#include "model/SetupStep.h"
#include "setup/ServiceInstaller.h"

#include <QDateTime>
#include <QString>

#include <optional>

/// What the notices are made of, as the model holds it now.
struct NoticeInputs {
    enum class Sdk { Current, OutOfDate, Missing };

    bool serviceUp = false;
    std::optional<QString> lastError;
    bool restarting = false;
    QList<WFAskItem> asks;
    bool serviceUpdate = false;
    bool updatingService = false;
    Sdk sdk = Sdk::Current;
    /// The SDK's download size in words, when known.
    std::optional<QString> sdkSize;
    bool sdkFetchFailed = false;
    bool fetchingSDK = false;
    std::optional<SetupStep> setupGap;
    /// Codex is here but too old to use.
    bool codexTooOld = false;
    bool voiceUsable = false;
    bool voiceAsked = false;
    /// When this computer's key runs out, on the Tailscale app's route only.
    std::optional<FlexDate> keyExpiry;
};

/// The notices in their order.
QList<Notice> buildNotices(const NoticeInputs& inputs, const QDateTime& now);

/// A card's hover text, with the hint of its gesture.
std::optional<QString> noticeHelp(const Notice& notice);

/// The live figure of a card (an ask's countdown), none for a card without one.
std::optional<QString> noticeFigure(const Notice& notice, const QDateTime& now);

/// A key expiry counts when it is less than 14 days off, or past.
bool keyExpiryCounts(const FlexDate& expiry, const QDateTime& now);

/// The whole-page card that stands in for the notices while the service isn't running.
struct ServiceDownCard {
    /// What its button does.
    enum class Act { Repair, Restart };

    QString title;
    QString line;
    Act act = Act::Restart;
    /// The button's word as it reads now (its busy word while busy).
    QString action;
    bool busy = false;
    /// How far the work behind the button has come, while it says.
    std::optional<QString> progress;
    bool operator==(const ServiceDownCard&) const = default;
};

/// What the service-down card is made of, as the model holds it now.
struct ServiceDownInputs {
    std::optional<QString> serviceNodeGone;
    bool serviceInstalled = true;
    std::optional<ServiceInstaller::Progress> repairing;
    bool restarting = false;
};

/// A repair's step in words, once there is more to say than that it runs.
std::optional<QString> repairProgressWords(const ServiceInstaller::Progress& progress);
ServiceDownCard serviceDownCard(const ServiceDownInputs& inputs);

/// What the page says before the first read has ended.
QString checkingLine();
