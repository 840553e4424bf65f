#include "surface/words/ModelChip.h"

#include "surface/words/SessionFacts.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;
using namespace SessionFacts;

namespace SessionWords {

QString modelChip(const QString& model)
{
    const QString whole = model.trimmed();
    QString tail = whole.mid(whole.lastIndexOf(u'/') + 1);
    if (tail.size() >= 8 && tail.startsWith(u"claude-"_s, Qt::CaseInsensitive))
        tail = tail.mid(7);
    tail = tail.trimmed();
    return tail.isEmpty() ? whole : tail;
}

std::optional<QString> modelFamily(const QString& model)
{
    const QString chip = modelChip(model);
    static const QRegularExpression blank(u"\\s"_s);
    static const QRegularExpression dashDigit(u"-\\d"_s);
    const qsizetype space = chip.indexOf(blank);
    QString family;
    if (space > 0) {
        family = chip.left(space);
    } else {
        const QRegularExpressionMatch match = dashDigit.match(chip);
        if (match.hasMatch())
            family = chip.left(match.capturedStart());
    }
    if (family.isEmpty())
        return std::nullopt;
    return family;
}

const Provider* providerOf(const Session& session, const QList<Provider>& providers)
{
    if (!session.providerId)
        return nullptr;
    for (const Provider& provider : providers) {
        if (provider.id == *session.providerId)
            return &provider;
    }
    return nullptr;
}

QString chip(const Session& session, const Provider* provider)
{
    if (!trimmed(session.model).isEmpty())
        return modelChip(*session.model);
    if (provider && provider->kind != u"anthropic"_s && provider->models
        && !trimmed(provider->models->defaultModel).isEmpty())
        return modelChip(*provider->models->defaultModel);
    return u"default model"_s;
}

std::optional<QString> modeTag(const std::optional<QString>& permissionMode)
{
    if (!permissionMode)
        return std::nullopt;
    static const QList<std::pair<QString, QString>> tags{
        {u"default"_s, u"ask first"_s},
        {u"acceptEdits"_s, u"accept edits"_s},
        {u"plan"_s, u"plan"_s},
        {u"auto"_s, u"auto"_s},
        {u"bypassPermissions"_s, u"bypass"_s},
        {u"dontAsk"_s, u"allowed only"_s},
        {u"read-only"_s, u"read only"_s},
        {u"workspace-write"_s, u"can edit"_s},
    };
    for (const auto& [mode, tag] : tags) {
        if (mode == *permissionMode)
            return tag;
    }
    return *permissionMode;
}

} // namespace SessionWords
