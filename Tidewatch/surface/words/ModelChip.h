#pragma once

#include "link/Provider.h"
#include "link/Session.h"

#include <QList>
#include <QString>

#include <optional>

namespace SessionWords {

/// A model name as short as a chip can hold it: "anthropic/claude-sonnet-4.5"
/// reads "sonnet-4.5". Never empty for a name with something in it.
QString modelChip(const QString& model);
/// The family of a model: "Opus" of "Opus 5.5", "sonnet" of "sonnet-4.5".
std::optional<QString> modelFamily(const QString& model);
/// The provider a session runs on, from the list by its `providerId`.
const Provider* providerOf(const Session& session, const QList<Provider>& providers);
/// The model chip of a session: its model, else its provider's default
/// model, else "default model".
QString chip(const Session& session, const Provider* provider);
/// The permission mode in words; none without a mode.
std::optional<QString> modeTag(const std::optional<QString>& permissionMode);

} // namespace SessionWords
