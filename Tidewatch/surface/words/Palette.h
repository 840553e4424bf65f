#pragma once

#include "model/Tone.h"

#include <QString>

/// The colours of the popover, by name. Words hand these out as values so that
/// the views choose no colour of their own and tests can read them.
enum class Ink {
    Text, ///< #F5F2EB
    Secondary, ///< #B5B0A6
    Muted, ///< #7A7468
    Faint, ///< #45403A
    Track, ///< #2C2823
    Green, ///< #7FFFA0
    LightGreen, ///< #B6FFC9
    DimGreen, ///< #4A8C5E
    Amber, ///< #E8B341
    Red, ///< #FF7878
};

/// The colour as 0xRRGGBB, in sRGB.
quint32 inkRgb(Ink ink);
/// The colour as "#RRGGBB", as QML takes it.
QString inkHex(Ink ink);

/// The colour that carries a meaning: green for the call to act, amber, red.
Ink toneInk(Tone tone);
