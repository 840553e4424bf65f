// The model's hands on the service itself: restart, repair, update and
// uninstall. The installer blocks, so each job runs on the keeper's worker and
// comes back here, on the main thread, to set the flags the views show.

#include "model/AppModel.h"

#include "model/ActionCalls.h"
#include "model/OffMainThread.h"
#include "setup/ServiceKeeper.h"
#include "setup/Uninstaller.h"

void AppModel::setServiceInstaller(std::function<ServiceInstaller()> build)
{
    m_buildInstaller = build;
    m_keeper->setBuild(std::move(build));
}

void AppModel::checkServiceNode(bool serviceAnswered)
{
    if (serviceAnswered || !m_serviceInstalled) {
        assign(m_serviceNodeGone, std::nullopt, &AppModel::serviceNodeGoneChanged);
        return;
    }
    offMainThread<std::optional<QString>>(
        this, [build = m_buildInstaller] { return build().serviceNodeGone(); },
        [this](std::optional<QString> gone) {
            assign(m_serviceNodeGone, std::move(gone), &AppModel::serviceNodeGoneChanged);
        });
}

void AppModel::checkServiceUpdate()
{
    offMainThread<bool>(
        this, [build = m_buildInstaller] { return build().updateAvailable(); },
        [this](bool available) { assign(m_serviceUpdate, available, &AppModel::serviceUpdateChanged); });
}

bool AppModel::refusedHere()
{
    const std::optional<QString> refused = m_environment.refusalSentence();
    if (refused)
        showNote(*refused);
    return refused.has_value();
}

void AppModel::afterServiceJob(const std::optional<QString>& note)
{
    if (note)
        showNote(*note);
    checkServiceUpdate();
    checkSDK();
    read(true);
}

void AppModel::restartService()
{
    m_source->act([this](ActionCalls&) {
        if (m_restarting || refusedHere())
            return;
        if (!m_keeper->restart([this](const ServiceKeeper::Note& note) {
                assign(m_restarting, false, &AppModel::restartingChanged);
                afterServiceJob(note);
            }))
            return;
        assign(m_restarting, true, &AppModel::restartingChanged);
    });
}

void AppModel::repairService()
{
    m_source->act([this](ActionCalls&) {
        if (m_repairing || refusedHere())
            return;
        const bool started = m_keeper->repair(
            [this](const ServiceInstaller::Progress& progress) {
                if (m_repairing)
                    assign(m_repairing, progress, &AppModel::repairingChanged);
            },
            [this](const ServiceKeeper::Note& note) {
                assign(m_repairing, std::nullopt, &AppModel::repairingChanged);
                afterServiceJob(note);
            });
        // Choosing Node.js comes first; its own progress replaces this at once when one must be fetched.
        if (started)
            assign(m_repairing, ServiceInstaller::Progress{ServiceInstaller::Progress::Step::GettingNode, std::nullopt},
                &AppModel::repairingChanged);
    });
}

void AppModel::updateService()
{
    m_source->act([this](ActionCalls&) {
        if (m_updatingService || refusedHere())
            return;
        if (!m_keeper->update([this](const ServiceKeeper::Note& note, bool loginItem) {
                if (!note)
                    assign(m_loginItemEnabled, loginItem, &AppModel::loginItemEnabledChanged);
                assign(m_updatingService, false, &AppModel::updatingServiceChanged);
                afterServiceJob(note);
            }))
            return;
        assign(m_updatingService, true, &AppModel::updatingServiceChanged);
    });
}

void AppModel::askUninstall()
{
    m_source->act([this](ActionCalls&) {
        GlassDialog dialog;
        dialog.title = Uninstaller::dialogTitle();
        dialog.line = Uninstaller::dialogText(agentsInUse().claude);
        if (m_status && m_status->tsnet && m_status->tsnet->mode == QLatin1StringView("builtIn"))
            dialog.line += Uninstaller::builtInNodeRemark();
        dialog.option = Uninstaller::deleteDataChoice();
        dialog.accent = Tone::Danger;
        dialog.secondary = QStringLiteral("Keep");
        dialog.primary = QStringLiteral("Uninstall");
        dialog.busy = QStringLiteral("Uninstalling…");
        dialog.confirm = [this](bool deleteData, const GlassDialog::Finish& finish) {
            const bool started = m_keeper->uninstall(deleteData, [this, finish](const QStringList& notes) {
                finish(std::nullopt);
                GlassDialog end;
                end.title = Uninstaller::endTitle(notes);
                end.line = Uninstaller::endText(notes);
                end.primary = QStringLiteral("Quit");
                end.confirm = [this](bool, const GlassDialog::Finish& done) {
                    done(std::nullopt);
                    Q_EMIT quitWanted();
                };
                // Nothing is left to run against, however the dialog goes.
                end.cancel = [this] { Q_EMIT quitWanted(); };
                showDialog(std::move(end));
            });
            if (!started)
                finish(QStringLiteral("Tidewatch is busy with the service. Try again when it’s done."));
        };
        showDialog(std::move(dialog));
    });
}
