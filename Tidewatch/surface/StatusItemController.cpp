#include "surface/StatusItemController.h"

#include "model/Agents.h"
#include "model/AppModel.h"

StatusItemController::StatusItemController(AppModel& model, const Environment& environment, QObject* parent)
    : StatusItemController(model, environment, &StatusButton::create, Clock::system(), true, parent)
{
}

StatusItemController::StatusItemController(
    AppModel& model, const Environment& environment, ButtonMaker makeButton, const Clock& clock, QObject* parent)
    : StatusItemController(model, environment, std::move(makeButton), clock, false, parent)
{
}

StatusItemController::StatusItemController(AppModel& model, const Environment& environment, ButtonMaker makeButton,
    const Clock& clock, bool listens, QObject* parent)
    : QObject(parent)
    , m_model(model)
    , m_autosaveName(autosaveName(environment))
    , m_makeButton(std::move(makeButton))
    , m_listens(listens)
    , m_icon(clock)
{
}

StatusItemController::~StatusItemController() = default;

QString StatusItemController::autosaveName(const Environment& environment)
{
    return environment.isTestCopy() ? QStringLiteral("TidewatchTest") : QStringLiteral("Tidewatch");
}

void StatusItemController::install()
{
    if (m_button)
        return;
    m_button = m_makeButton(m_autosaveName);
    connect(m_button.get(), &StatusButton::clicked, this, &StatusItemController::clicked);
    m_icon.setButton(m_button.get());
    m_icon.show(true);
    m_icon.setOnWidth([button = m_button.get()](bool wide) { button->setWide(wide); });

    for (auto changed : {&AppModel::healthChanged, &AppModel::feedLiveChanged, &AppModel::firstPollDoneChanged,
             &AppModel::snapshotChanged, &AppModel::statusChanged, &AppModel::answeredChanged,
             &AppModel::claudeLookChanged})
        connect(&m_model, changed, this, &StatusItemController::queueSync);
    connect(&m_screen, &ScreenWatch::changed, this, &StatusItemController::queueSync);
    if (m_listens)
        m_screen.listen();
    sync();
}

void StatusItemController::queueSync()
{
    // A burst of model changes in one turn of the event loop costs one sync.
    if (m_syncQueued)
        return;
    m_syncQueued = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_syncQueued = false;
            sync();
        },
        Qt::QueuedConnection);
}

MenuBarIconAnimator::Look StatusItemController::currentLook() const
{
    const std::optional<Snapshot>& snapshot = m_model.snapshot();
    const std::optional<LocalStatus>& status = m_model.status();
    MenuBarIconAnimator::Inputs in;
    in.alive = m_model.serviceUp();
    in.firstPollDone = m_model.firstPollDone();
    if (snapshot)
        in.sessions = snapshot->sessions.items;
    else if (status)
        in.sessions = status->sessions.items;
    in.approvals = m_model.waitingApprovals();
    in.agents = m_model.agentsInUse();
    if (snapshot)
        in.account = snapshot->account;
    in.codex = Agents::trustedCodex({snapshot, status, in.alive, false, false, std::nullopt});
    in.reduceMotion = m_screen.reduceMotion();
    in.seen = m_screen.seen();
    return MenuBarIconAnimator::lookOf(in);
}

void StatusItemController::sync()
{
    m_icon.apply(currentLook());
}

void StatusItemController::setPanelOpen(bool open)
{
    if (open == m_panelOpen)
        return;
    m_panelOpen = open;
    if (m_button)
        m_button->setHighlighted(open);
}
