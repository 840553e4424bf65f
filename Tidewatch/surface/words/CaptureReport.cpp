#include "surface/words/CaptureReport.h"

namespace CaptureReport {

QString statusItemLine(const QRect& place)
{
    if (place.isEmpty())
        return QStringLiteral("status item: NOT found");
    return QStringLiteral("status item: found (%1,%2 %3x%4)")
        .arg(place.x())
        .arg(place.y())
        .arg(place.width())
        .arg(place.height());
}

QString popoverLine(bool opened)
{
    return opened ? QStringLiteral("popover: open") : QStringLiteral("popover: didn't open");
}

QString pictureLine(const QString& file, const QString& failure)
{
    if (failure.isEmpty())
        return file + QStringLiteral(": written");
    return file + QStringLiteral(": not written: ") + failure;
}

QString missingWindowLine(const QString& window)
{
    return window + QStringLiteral(": this build has no such window, nothing drawn");
}

} // namespace CaptureReport
