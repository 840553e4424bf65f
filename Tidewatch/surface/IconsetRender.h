#pragma once

#include <QImage>
#include <QList>
#include <QString>

/// One file of the application's icon set.
struct IconsetEntry {
    /// "icon_16x16@2x.png".
    QString fileName;
    int pixels = 0;

    bool operator==(const IconsetEntry&) const = default;
};

/// The files an icon set holds: 16, 32, 128, 256 and 512 points, each at 1x and 2x.
QList<IconsetEntry> iconsetEntries();

/// The application's icon: the planet on a dark card, `pixels` square.
QImage applicationIcon(int pixels);

/// Draws the icon set into `folder`, made if missing. Gives the exit code:
/// 0, or 1 after printing "render failed: " and why.
int renderIconset(const QString& folder);
