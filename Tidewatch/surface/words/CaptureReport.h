#pragma once

#include <QRect>
#include <QString>

/// The lines of the debug capture tour's report, one for each stop.
namespace CaptureReport {

/// Found when the item has a place on the screen, which the line gives.
QString statusItemLine(const QRect& place);
QString popoverLine(bool opened);
/// A picture of the tour, written or not.
QString pictureLine(const QString& file, const QString& failure = {});
/// A stop whose window this build doesn't have: nothing is drawn for it.
QString missingWindowLine(const QString& window);

} // namespace CaptureReport
