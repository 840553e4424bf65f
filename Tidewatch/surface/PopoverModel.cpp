#include "surface/PopoverModel.h"

#include "awake/BackpackSetup.h"
#include "base/UserAccount.h"
#include "model/AppModel.h"
#include "surface/PopoverPage.h"
#include "surface/PopoverPages.h"
#include "surface/words/DeviceWords.h"
#include "surface/words/ModelChip.h"
#include "surface/words/RowAction.h"
#include "surface/words/SettingsWords.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QTimer>
#include <QUrl>

PopoverModel::PopoverModel(AppModel& model, DismissedNotices& dismissed, const Clock& clock, QObject* parent)
    : QObject(parent)
    , m_model(model)
    , m_dismissed(dismissed)
    , m_clock(clock)
    , m_tick(new QTimer(this))
    , m_pages(new PopoverPages(model, clock, this))
{
    m_tick->setInterval(1000);
    connect(m_tick, &QTimer::timeout, this, &PopoverModel::refresh);
    for (auto changed : {&AppModel::snapshotChanged, &AppModel::statusChanged, &AppModel::healthChanged,
             &AppModel::answeredChanged, &AppModel::noteChanged, &AppModel::feedLiveChanged,
             &AppModel::firstPollDoneChanged, &AppModel::serviceInstalledChanged, &AppModel::serviceNodeGoneChanged,
             &AppModel::lastErrorChanged, &AppModel::signingInChanged, &AppModel::dialogChanged,
             &AppModel::dialogWorkingChanged, &AppModel::awakeChoiceChanged, &AppModel::backpackBusyChanged,
             &AppModel::deviceListChanged, &AppModel::claudeLookChanged, &AppModel::serviceUpdateChanged,
             &AppModel::restartingChanged, &AppModel::updatingServiceChanged, &AppModel::repairingChanged,
             &AppModel::automationsPausedChoiceChanged, &AppModel::claudeSDKChanged, &AppModel::fetchingSDKChanged})
        connect(&m_model, changed, this, &PopoverModel::queueRefresh);
    for (auto changed : {&AppModel::codexBusyChanged, &AppModel::codexErrorChanged})
        connect(&m_model, changed, this, &PopoverModel::queueRefresh);
    connect(&m_dismissed, &DismissedNotices::changed, this, &PopoverModel::queueRefresh);
    refresh();
}

void PopoverModel::queueRefresh()
{
    // A read changes several things at once; the page is built once for all of them.
    if (m_queued)
        return;
    m_queued = true;
    QTimer::singleShot(0, this, [this] {
        m_queued = false;
        refresh();
    });
}

void PopoverModel::refresh()
{
    // Without a locale of its own (C, as on a bare server) times read as in the United States, not with seconds.
    QLocale locale;
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    const QVariantMap page = PopoverPage::build({m_model, m_dismissed, m_clock.now(), locale, account::homeDirectory(),
        BackpackSetup::isInstalled(m_model.environment())});
    if (page == m_page)
        return;
    m_page = page;
    Q_EMIT pageChanged();
}

void PopoverModel::setTicking(bool on)
{
    if (on)
        m_tick->start();
    else
        m_tick->stop();
}

void PopoverModel::decide(const QString& approvalId, const QString& decision)
{
    for (const Approval& approval : m_model.waitingApprovals()) {
        if (approval.id == approvalId) {
            m_model.decide(approval, decision);
            return;
        }
    }
}

void PopoverModel::noticeAction(const QString& id)
{
    if (id == u"error")
        m_model.restartService();
    else if (id == u"update")
        m_model.updateService();
    else if (id == u"sdk")
        m_model.fetchSDK();
    else if (id == u"key")
        fixTailscaleKey();
    else if (id == u"setup") {
        for (const Notice& notice : PopoverPage::currentNotices(m_model, m_clock.now())) {
            if (notice.id == id && PopoverPage::opensPairing(notice))
                m_pages->show(PopoverPages::kPair);
        }
    }
}

void PopoverModel::serviceAction(const QString& act)
{
    if (act == u"repair")
        m_model.repairService();
    else if (act == u"restart")
        m_model.restartService();
}

void PopoverModel::openTerminal(const QString& sessionId)
{
    m_model.openTerminal(sessionId);
}

void PopoverModel::rowAction(const QString& sessionId, int act)
{
    switch (RowAction::Act(act)) {
    case RowAction::Act::Continue:
    case RowAction::Act::ContinueNow:
        m_model.continueSession(sessionId);
        return;
    case RowAction::Act::ArmResume:
        m_model.setAutoContinue(sessionId, true);
        return;
    case RowAction::Act::CancelResume:
        m_model.setAutoContinue(sessionId, false);
        return;
    case RowAction::Act::TryAgain:
        checkProviderOf(sessionId);
        return;
    case RowAction::Act::TopUp:
    case RowAction::Act::FixKey:
        // The providers' window owns these; the page draws no button for them.
        return;
    }
}

void PopoverModel::dismissNotice(const QString& id)
{
    // The dismissal keeps the notice's own key, so the same trouble stays away.
    for (const Notice& notice : PopoverPage::currentNotices(m_model, m_clock.now())) {
        if (notice.id == id)
            m_dismissed.dismiss(notice);
    }
}

void PopoverModel::chooseNotice(const QString& id, const QString& choice)
{
    for (const Notice& notice : PopoverPage::currentNotices(m_model, m_clock.now())) {
        if (notice.id == id && notice.ask && notice.choices.contains(choice))
            m_model.answerAsk(*notice.ask, choice);
    }
}

void PopoverModel::resumeAutomations()
{
    m_model.setAutomationsPaused(false);
}

void PopoverModel::undoDismiss()
{
    m_dismissed.undoDismiss();
}

void PopoverModel::signIn()
{
    m_model.signIn();
}

void PopoverModel::accountAction()
{
    const QVariantMap account = m_page.value(QStringLiteral("account")).toMap();
    const QString act = account.value(QStringLiteral("act")).toString();
    if (act == PopoverPage::kAccountOpen)
        QDesktopServices::openUrl(QUrl(account.value(QStringLiteral("url")).toString()));
    else if (act == PopoverPage::kAccountSignIn)
        m_model.signIn();
}

void PopoverModel::quickAction(const QString& id)
{
    if (id == u"checklist")
        QDesktopServices::openUrl(QUrl(m_model.environment().localBase() + QStringLiteral("/checklist")));
    else
        m_pages->show(id);
}

void PopoverModel::checkProviderOf(const QString& sessionId)
{
    if (!m_model.snapshot())
        return;
    const Snapshot& snapshot = *m_model.snapshot();
    for (const Session& session : snapshot.sessions.items) {
        if (session.id != sessionId)
            continue;
        if (const Provider* provider = SessionWords::providerOf(session, snapshot.providers.items))
            m_model.checkProvider(provider->id, provider->name);
        return;
    }
}

void PopoverModel::setAwake(const QString& mode)
{
    if (const std::optional<Awake::Mode> chosen = awakeModeFromName(mode))
        m_model.setAwake(*chosen);
}

void PopoverModel::extendBackpack()
{
    m_model.extendBackpack();
}

void PopoverModel::setMinBattery(int percent)
{
    m_model.setMinBattery(percent);
}

void PopoverModel::setupBackpack()
{
    m_model.setupBackpack();
}

void PopoverModel::confirmDialog(bool option)
{
    m_model.confirmDialog(option);
}

void PopoverModel::cancelDialog()
{
    m_model.cancelDialog();
}

void PopoverModel::dialogSecondary()
{
    m_model.dialogSecondary();
}

void PopoverModel::quit()
{
    QCoreApplication::quit();
}

void PopoverModel::signInCodex()
{
    m_model.signInCodex();
}

void PopoverModel::dismissCodexCard()
{
    if (const std::optional<Notice> card = PopoverPage::codexCardNotice(m_model, m_clock.now()))
        m_dismissed.dismiss(*card);
}

void PopoverModel::chooseBuiltInTailscale(bool on)
{
    m_model.setBuiltInTailscale(on);
}

void PopoverModel::signOutTailscale()
{
    m_model.signOutTailscale();
}

void PopoverModel::fixTailscaleKey()
{
    QDesktopServices::openUrl(QUrl(TailscaleStatus::adminConsole));
}

void PopoverModel::forgetDevice(const QString& deviceId)
{
    if (!m_model.status())
        return;
    const QList<Device>& devices = m_model.status()->devices.items;
    for (const Device& device : devices) {
        if (device.id != deviceId)
            continue;
        const DeviceWords::Row row = DeviceWords::row(device, devices);
        const DeviceWords::Forget words = DeviceWords::forget(row);
        GlassDialog question;
        question.title = words.title;
        question.line = words.line;
        question.more = words.help;
        question.secondary = words.keep;
        question.primary = words.forget;
        m_model.askForgetDevice(deviceId, row.name, std::move(question));
        return;
    }
}

void PopoverModel::setBrowseOutsideProjects(bool on)
{
    m_model.setBrowseOutsideProjects(on, SettingsWords::filesChanged(on));
}

void PopoverModel::setPrivateName(bool on)
{
    m_model.setNameService(on);
}

void PopoverModel::uninstall()
{
    m_model.askUninstall();
}
