#pragma once

#include "link/Lenient.h"

#include <QString>
#include <QStringView>

#include <optional>

/// How the service keeps this Mac awake, as it reports it.
struct Awake {
    enum class Mode {
        Working, ///< "working": awake while work runs or a phone is connected
        Backpack, ///< "backpack": awake with the lid closed, on battery, for a while
        Off, ///< "off": never kept awake
    };

    Mode mode = Mode::Working;
    /// The service is keeping the Mac awake now.
    bool holding = false;
    /// A closed lid doesn't put it to sleep now.
    bool lidClosedOk = false;
    /// The sudo rule Backpack needs is in place.
    bool backpackReady = false;
    /// When Backpack ends.
    std::optional<FlexDate> until;
    /// Why it let go or what keeps it: "battery", "hot", "time", "setup", "failed".
    std::optional<QString> reason;
    /// The Mac goes to sleep at this moment; the warning is running.
    std::optional<FlexDate> sleepAt;
    std::optional<bool> lidClosed;
    /// The Mac has a lid and a battery.
    bool laptop = false;
    /// Percentage at which Backpack lets go.
    qint64 minBattery = 15;
    /// Who holds SleepDisabled; "other" means another app.
    std::optional<QString> sleepDisabledBy;
    /// That app's name.
    std::optional<QString> otherApp;
    /// The service offers more time for Backpack.
    bool extendable = false;

    /// None when `mode` is missing or not one of the three words.
    static std::optional<Awake> fromJson(const QJsonValue& value);
    bool operator==(const Awake&) const = default;
};

/// The wire word of a mode: "working", "backpack", "off".
QString awakeModeName(Awake::Mode mode);
/// The mode a wire word names; none for any other word.
std::optional<Awake::Mode> awakeModeFromName(QStringView name);
