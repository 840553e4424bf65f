#pragma once

#include <QString>
#include <QUuid>

/// The passing sentence about what just failed. Each note has an id of its
/// own, so the clearing of an earlier one can't take a later one with it.
struct Note {
    QString text;
    QUuid id;

    bool operator==(const Note&) const = default;
};
