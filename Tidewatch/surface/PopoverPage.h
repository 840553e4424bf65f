#pragma once

#include "surface/words/NoticeWords.h"

#include <QDateTime>
#include <QLocale>
#include <QString>
#include <QVariantMap>

class AppModel;
class DismissedNotices;

/// The panel's whole main page as one value of finished words and colours,
/// built from the model at a moment. The views lay it out and decide nothing;
/// tests read it without a screen.
namespace PopoverPage {

/// How many session rows the page shows before "{n} more".
inline constexpr int kShownRows = 6;

struct Inputs {
    const AppModel& model;
    const DismissedNotices& dismissed;
    QDateTime now;
    QLocale locale;
    /// The person's home folder, for the "Home" place.
    QString home;
    /// Backpack's rule file is there.
    bool backpackRuleExists = false;
};

QVariantMap build(const Inputs& inputs);

/// The notices the model's state calls for now, dismissed ones included.
QList<Notice> currentNotices(const AppModel& model, const QDateTime& now);

/// Codex's account card, as a notice that can be dismissed; none when
/// Codex's trouble shows as a line, or there is none.
std::optional<Notice> codexCardNotice(const AppModel& model, const QDateTime& now);

/// The notice's button can do its work from the panel now; one that can't isn't drawn.
bool noticeActs(const Notice& notice);

/// The setup notice that asks for a phone, whose button opens the pair page.
bool opensPairing(const Notice& notice);

/// What the account card's button does, by the page's word for it.
inline constexpr QStringView kAccountOpen = u"open";
inline constexpr QStringView kAccountSignIn = u"signIn";

} // namespace PopoverPage
