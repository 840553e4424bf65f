#include "surface/words/Palette.h"

quint32 inkRgb(Ink ink)
{
    switch (ink) {
    case Ink::Text:
        return 0xF5F2EB;
    case Ink::Secondary:
        return 0xB5B0A6;
    case Ink::Muted:
        return 0x7A7468;
    case Ink::Faint:
        return 0x45403A;
    case Ink::Track:
        return 0x2C2823;
    case Ink::Green:
        return 0x7FFFA0;
    case Ink::LightGreen:
        return 0xB6FFC9;
    case Ink::DimGreen:
        return 0x4A8C5E;
    case Ink::Amber:
        return 0xE8B341;
    case Ink::Red:
        return 0xFF7878;
    }
    return 0xF5F2EB;
}

QString inkHex(Ink ink)
{
    return QStringLiteral("#%1").arg(inkRgb(ink), 6, 16, QLatin1Char('0')).toUpper();
}

Ink toneInk(Tone tone)
{
    switch (tone) {
    case Tone::Amber:
        return Ink::Amber;
    case Tone::Danger:
        return Ink::Red;
    case Tone::Accent:
        break;
    }
    return Ink::Green;
}
