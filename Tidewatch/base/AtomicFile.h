#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/// Writes a whole file so that a reader sees the old contents or the new,
/// never half: beside the target first, flushed to disk, then swapped in one
/// rename. With a mode, the file never exists with looser permissions.
/// Gives the failure's sentence, or none.
std::optional<QString> writeFileAtomically(
    const QString& path, const QByteArray& contents, std::optional<int> mode = std::nullopt);
