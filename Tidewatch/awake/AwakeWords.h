#pragma once

#include "link/Awake.h"
#include "link/Battery.h"

#include <QDateTime>
#include <QLocale>
#include <QString>

#include <optional>

/// The Stay awake section's sentence, and whether it is a warning.
struct AwakeLine {
    QString text;
    bool warn = false;

    bool operator==(const AwakeLine&) const = default;
};

/// The two small buttons that set the battery level Backpack lets go at.
struct MinBatteryControl {
    qint64 value = 15;
    /// Plus works below 50.
    bool canRaise = false;
    /// Minus works from 6.
    bool canLower = false;
    /// "Let it sleep at 15 percent battery"
    QString text;

    bool operator==(const MinBatteryControl&) const = default;
};

/// What the panel offers when Backpack is picked before its permission is there.
struct BackpackOffer {
    QString title;
    QString body;
    /// The button that sets it up, and its word while that runs.
    QString enable;
    QString enableBusy;
    QString decline;
    bool operator==(const BackpackOffer&) const = default;
};

// The words of Stay awake: pure functions of the service's Awake record and
// the present time, shared by the popover, Settings and the phone.
namespace AwakeWords {

/// The warning that this computer is about to sleep is running.
bool isWarning(const Awake& awake);
/// The service let go because of the machine's condition: battery or heat.
bool isReleased(const Awake& awake);
/// The section's line stands in the warning colour.
bool isHighlighted(const Awake& awake);

/// "30 seconds", "1 minute", "10 minutes". Under a minute the word stays
/// plural: "1 seconds".
QString duration(double seconds);

/// "Backpack ends in 10 minutes", while the service offers more time.
std::optional<QString> extendLabel(const Awake& awake, const QDateTime& now);
/// The short trail of the popover's line and the phone's status.
QString phrase(const Awake& awake, const QDateTime& now);
/// Why it let go or is about to: "battery 15%", "it's running hot".
std::optional<QString> reasonWords(const Awake& awake, const std::optional<Battery>& battery);
/// The sentence under the picker; none when all is as chosen.
std::optional<AwakeLine> sentence(
    const Awake& awake, const QDateTime& now, const std::optional<Battery>& battery, const QLocale& locale);

/// One step of the battery control.
constexpr qint64 kMinBatteryStep = 5;
MinBatteryControl minBatteryControl(qint64 value);
/// "Below this, on its own battery, …"
QString minBatteryCaption();

/// The picker's word for a mode: "While working", "Backpack", "Off".
QString modeTitle(Awake::Mode mode);
/// What a mode does, in a sentence, as the picker's help.
QString modeHelp(Awake::Mode mode);
/// Backpack can be chosen at once: the service has its permission, or the rule file is there.
bool backpackSetUp(const Awake& awake, bool ruleFileExists);
BackpackOffer backpackOffer(qint64 minBattery);
/// Settings' caption under the picker.
QString settingsCaption();
/// The caption beside Settings' button that sets the permission up, or removes it.
QString permissionCaption(bool setUp);

} // namespace AwakeWords
