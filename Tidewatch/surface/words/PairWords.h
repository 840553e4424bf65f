#pragma once

#include "link/LocalStatus.h"
#include "phone/PopoverPairing.h"

#include <QString>

/// The pair page's words, by the pairing's phase.
namespace PairWords {

struct Page {
    /// The phase's main line: a state, the failure's sentence, or the new device's name.
    QString lead;
    /// The sentence under it; empty where there is none.
    QString detail;
    /// The code reaches only phones on the same network.
    QString wifi;
    /// The code's QR is drawn.
    bool showsCode = false;
    /// The lead says what is wrong.
    bool warns = false;
    /// "Pair another phone", once a phone has paired.
    bool offersAnother = false;

    bool operator==(const Page&) const = default;
};

/// `detail` is the service's words in `Failed`, the device's name in `Paired`.
Page page(
    PopoverPairing::Phase phase, PopoverPairing::Failure failure, const QString& detail, bool hasCode, bool localOnly);

/// A code that couldn't carry this machine's tailnet address, so it isn't shown.
QString staleAddress();
/// The button of the page and of the quick actions, with its help there.
QString pairAnother();
QString pairAnotherHelp();
QString copyLink();
QString copyLinkHelp();
QString downloadLine();
/// The page where a phone fetches the app, as the service serves it; empty when it serves none.
QString downloadAddress(const LocalStatus& status);
/// The page's way back to the main page.
QString back();
/// The settings button of the footer and of the quick actions, and its help, which the pill's click shares.
QString settings();
QString settingsHelp();

} // namespace PairWords
