#include "surface/SettingsPage.h"

#include "model/AppModel.h"
#include "surface/words/ConnectionPill.h"
#include "surface/words/DeviceWords.h"
#include "surface/words/PairWords.h"
#include "surface/words/PhoneAccessWords.h"
#include "surface/words/SettingsWords.h"

#include <QVariantList>

using namespace Qt::StringLiterals;

namespace SettingsPage {

namespace {

QVariant text(const std::optional<QString>& value)
{
    return value ? QVariant(*value) : QVariant(QString());
}

QVariantMap choice(const PhoneAccessWords::Choice& choice)
{
    return {{u"title"_s, choice.title}, {u"help"_s, choice.help}, {u"builtIn"_s, choice.builtIn}};
}

QVariantMap phoneAccess(const AppModel& model, const QDateTime& now)
{
    const std::optional<LocalStatus>& status = model.status();
    const PhoneAccessWords::Row row = PhoneAccessWords::row({model.serviceUp(), status});
    QVariantMap phone{{u"heading"_s, PhoneAccessWords::heading().toUpper()}, {u"url"_s, text(row.url)},
        {u"lines"_s, row.lines}, {u"ink"_s, inkHex(row.ink)}};
    if (!model.serviceUp() || !status)
        return phone;
    phone.insert(u"wifi"_s, text(PhoneAccessWords::wifiLine(*status)));
    // A test service’s route would stay in the tailnet, so a test copy leaves Tailscale alone; a sample draws the real
    // install.
    if (model.environment().isTestCopy() && !model.isSample()) {
        phone.insert(u"testCopy"_s, PhoneAccessWords::testCopyLine());
        return phone;
    }
    if (const std::optional<PhoneAccessWords::KeyWarning> key = PhoneAccessWords::keyWarning(*status, now)) {
        phone.insert(u"key"_s,
            QVariantMap{
                {u"text"_s, key->text}, {u"action"_s, key->action}, {u"line"_s, key->line}, {u"help"_s, key->help}});
    }
    if (const std::optional<PhoneAccessWords::Choice> route = PhoneAccessWords::routeChoice(*status))
        phone.insert(u"choice"_s, choice(*route));
    if (const std::optional<PhoneAccessWords::Choice> out = PhoneAccessWords::signOut(*status))
        phone.insert(u"signOut"_s, choice(*out));
    return phone;
}

QVariantMap devices(const LocalStatus& status, qint64 others)
{
    QVariantList rows;
    const QList<Device>& all = status.devices.items;
    for (const Device& device : all) {
        const DeviceWords::Row row = DeviceWords::row(device, all);
        rows << QVariantMap{{u"id"_s, row.id}, {u"name"_s, row.name}, {u"via"_s, text(row.via)},
            {u"glasses"_s, row.glasses}, {u"forget"_s, DeviceWords::forget(row).forget}};
    }
    return {{u"heading"_s, DeviceWords::heading().toUpper()}, {u"rows"_s, rows},
        {u"none"_s, all.isEmpty() ? DeviceWords::none() : QString()},
        {u"connected"_s, ConnectionPill::connectedSentence(others)}, {u"pair"_s, PairWords::pairAnother()},
        {u"pairHelp"_s, PairWords::pairAnotherHelp()}};
}

QVariantMap toggle(const SettingsWords::Switch& words)
{
    return {{u"title"_s, words.title}, {u"on"_s, words.on}, {u"tag"_s, text(words.tag)}, {u"help"_s, words.help},
        {u"why"_s, text(words.why)}, {u"whyTitle"_s, words.why ? SettingsWords::whyTitle() : QString()},
        {u"note"_s, text(words.note)}};
}

} // namespace

QVariantMap build(const AppModel& model, const QDateTime& now)
{
    QVariantMap page{{u"title"_s, u"Settings"_s}, {u"phone"_s, phoneAccess(model, now)},
        {u"uninstall"_s, SettingsWords::uninstall()}};
    const std::optional<LocalStatus>& status = model.status();
    if (!model.serviceUp() || !status)
        return page;
    page.insert(u"devices"_s, devices(*status, ConnectionPill::connectedOthers(*status, model.statusCountsFeed())));
    page.insert(u"files"_s, toggle(SettingsWords::files(*status)));
    page.insert(u"name"_s, toggle(SettingsWords::privateName(*status)));
    return page;
}

} // namespace SettingsPage
