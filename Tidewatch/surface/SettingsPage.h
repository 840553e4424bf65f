#pragma once

#include <QDateTime>
#include <QVariantMap>

class AppModel;

/// The panel's Settings page as one value of finished words and colours,
/// built from the model at a moment: phone access, the paired devices,
/// the files rule, the private name and the way out. Stay awake is the main
/// page's section, shown here again. The views decide nothing.
namespace SettingsPage {

QVariantMap build(const AppModel& model, const QDateTime& now);

} // namespace SettingsPage
