#include "model/AwakeActions.h"

#include "awake/BackpackSetup.h"
#include "base/UserAccount.h"
#include "model/ActionCalls.h"
#include "model/OffMainThread.h"

#include <QTimer>

namespace {

// A moment for the panel to close before the system's password dialog takes the screen.
constexpr int kPanelClosesMs = 250;

} // namespace

AwakeActions::AwakeActions(Environment environment, QObject* parent)
    : QObject(parent)
    , m_environment(std::move(environment))
{
}

void AwakeActions::setChoice(std::optional<Awake::Mode> choice)
{
    if (m_choice == choice)
        return;
    m_choice = choice;
    Q_EMIT choiceChanged();
}

void AwakeActions::setBusy(bool busy)
{
    if (m_busy == busy)
        return;
    m_busy = busy;
    Q_EMIT busyChanged();
}

void AwakeActions::change(ActionCalls& calls, const QJsonObject& change, const QString& opening, bool clearsChoice)
{
    calls.runWith<AwakeReply>(
        ServiceCalls::setAwake(change),
        [this, clearsChoice](AwakeReply reply) {
            if (reply.awake)
                Q_EMIT taken(*reply.awake);
            if (clearsChoice)
                setChoice(std::nullopt);
        },
        [this, opening, clearsChoice](const DaemonError& error) {
            if (clearsChoice)
                setChoice(std::nullopt);
            if (error.code == QStringLiteral("needs_setup"))
                Q_EMIT failed(QStringLiteral("Backpack mode needs its one-time setup again."));
            else
                Q_EMIT failed(opening + error.errorDescription());
        });
}

void AwakeActions::setAwake(ActionCalls& calls, Awake::Mode mode)
{
    setChoice(mode);
    change(calls, QJsonObject{{QStringLiteral("mode"), awakeModeName(mode)}},
        QStringLiteral("Couldn’t change Stay awake. "), true);
}

void AwakeActions::extendBackpack(ActionCalls& calls)
{
    change(calls, QJsonObject{{QStringLiteral("extend"), true}}, QStringLiteral("Couldn’t extend Backpack. "), false);
}

void AwakeActions::setMinBattery(ActionCalls& calls, int percent)
{
    change(calls, QJsonObject{{QStringLiteral("minBattery"), percent}},
        QStringLiteral("Couldn’t change the battery level. "), false);
}

void AwakeActions::setupBackpack(ActionCalls& calls)
{
    if (m_busy)
        return;
    setBusy(true);
    const auto fail = [this](const QString& sentence) {
        Q_EMIT failed(QStringLiteral("Backpack mode isn’t set up. ") + sentence);
        setBusy(false);
        Q_EMIT panelWanted();
    };
    // The calls belong to the model that owns this object too, and go no sooner than it does.
    QTimer::singleShot(kPanelClosesMs, this, [this, &calls, fail] {
        offMainThread<BackpackSetup::Outcome>(
            this,
            [environment = m_environment] { return BackpackSetup::install(environment, account::userName(), true); },
            [this, &calls, fail](BackpackSetup::Outcome outcome) {
                if (outcome && outcome->kind == BackpackSetup::Failure::Kind::Cancelled) {
                    setBusy(false);
                    return;
                }
                if (outcome) {
                    fail(outcome->sentence);
                    return;
                }
                calls.runWith<AwakeReply>(
                    ServiceCalls::setAwake(QJsonObject{{QStringLiteral("mode"), QStringLiteral("backpack")}}),
                    [this](AwakeReply reply) {
                        if (reply.awake)
                            Q_EMIT taken(*reply.awake);
                        setBusy(false);
                        Q_EMIT panelWanted();
                    },
                    [fail](const DaemonError& error) { fail(error.errorDescription()); });
            });
    });
}

void AwakeActions::removeBackpack()
{
    if (m_busy)
        return;
    setBusy(true);
    offMainThread<BackpackSetup::Outcome>(
        this, [environment = m_environment] { return BackpackSetup::remove(environment, true); },
        [this](BackpackSetup::Outcome outcome) {
            setBusy(false);
            if (outcome && outcome->kind == BackpackSetup::Failure::Kind::Failed)
                Q_EMIT failed(QStringLiteral("Couldn’t remove Backpack mode’s permission. ") + outcome->sentence);
            Q_EMIT readWanted();
        });
}
