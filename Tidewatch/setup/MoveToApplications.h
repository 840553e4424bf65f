#pragma once

#include "entry/Environment.h"

#include <QString>

/// The first-start offer to move the app into the Applications folder, so
/// that its login item and the service's job always point at one place.
/// Only a bundle asks; Linux never does.
namespace MoveToApplications {

/// What decides whether the offer is made.
struct Situation {
    /// The running bundle ("…/Tidewatch.app"); empty when there is none.
    QString bundle;
    /// The same with symbolic links followed.
    QString resolved;
    QString home;
    /// The person said no before.
    bool declined = false;
    /// TIDEWATCH_NO_MOVE is present, with any value.
    bool noMoveVariable = false;
    bool testCopy = false;

    bool operator==(const Situation&) const = default;
};

Situation situation(const Environment& environment);
bool shouldOffer(const Situation& situation);
/// A bundle the system runs from a randomised read-only place.
bool isTranslocated(const QString& path);

QString destination();
QString title();
QString text();
QString moveButton();
QString keepButton();
/// The failure alert's text after "Tidewatch couldn't move itself.".
QString failureText(const QString& reason);

/// At start, before setup opens: offers, and moves when the person agrees.
/// True when a moved copy was started and this process is to quit.
bool offerAtStart(const Environment& environment);

} // namespace MoveToApplications
