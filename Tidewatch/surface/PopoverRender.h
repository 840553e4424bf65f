#pragma once

#include <QDateTime>
#include <QImage>
#include <QString>
#include <QStringList>

#include <optional>

class AppModel;
class Clock;
class QQuickItem;

/// The popover drawn without a screen, with its text twin: every visible text
/// and every control's spoken name, top to bottom, as a screen reader reads it.
namespace PopoverRender {

struct Rendered {
    QImage image;
    QStringList twin;
};

/// Draws the popover as it shows this model now, on `page` when named; none, with the reason in `error`, when it can't.
std::optional<Rendered> render(AppModel& model, const Clock& clock, QString* error, const QString& page = {});
QStringList textTwin(QQuickItem* root);
/// Writes name.png and name.txt into the folder.
bool save(const Rendered& rendered, const QString& folder, const QString& name, QString* error);

/// --render-popover: the sample states, or with `live` what this copy's service shows now, on `page` when named.
int renderPopover(const QString& folder, bool live, const QString& page = {});
/// --snapshots: the status item's frames and the sample popovers.
int renderSnapshots(const QString& folder);

/// The names of the sample states, in the order they are drawn.
QStringList sampleNames();
/// Puts a sample state into a sample model; false when there is no such sample.
bool showSample(AppModel& model, const QString& name, const QDateTime& now);
/// The page a sample is drawn on; empty for the main page.
QString samplePage(const QString& name);

} // namespace PopoverRender
