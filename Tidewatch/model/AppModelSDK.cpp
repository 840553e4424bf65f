// Claude Code's SDK in the installed service's folder: its state for the
// notice, and the Fetch behind it. npm blocks for up to three minutes, so the
// fetch runs off the main thread and comes back here to set the flags.

#include "model/AppModel.h"

#include "model/OffMainThread.h"

#include <QFileInfo>

namespace {

/// The state, when the folder holds a service installed by the app (its lock says so).
std::optional<ClaudeSDK::State> sdkState(const QString& daemonFolder)
{
    if (!QFileInfo::exists(daemonFolder + QStringLiteral("/package-lock.json")))
        return std::nullopt;
    return ClaudeSDK::state(daemonFolder);
}

struct FetchResult {
    ClaudeSDK::Outcome outcome;
    std::optional<ClaudeSDK::State> state;
};

} // namespace

void AppModel::checkSDK()
{
    if (m_source->isSample())
        return;
    offMainThread<std::optional<ClaudeSDK::State>>(
        this, [build = m_buildInstaller] { return sdkState(build().environment().daemonFolder()); },
        [this](std::optional<ClaudeSDK::State> state) {
            m_sdkLooked = true;
            assign(m_claudeSDK, std::move(state), &AppModel::claudeSDKChanged);
        });
}

void AppModel::fetchSDK()
{
    m_source->act([this](ActionCalls&) {
        if (m_fetchingSDK || refusedHere())
            return;
        assign(m_fetchingSDK, true, &AppModel::fetchingSDKChanged);
        offMainThread<FetchResult>(
            this,
            [build = m_buildInstaller] {
                const ServiceInstaller installer = build();
                // The installer's own environment decides the folder, so a test copy reaches only its own.
                if (const std::optional<QString> refused = installer.refusal())
                    return FetchResult{{std::nullopt, *refused}, std::nullopt};
                const QString folder = installer.environment().daemonFolder();
                const ClaudeSDK::Outcome outcome = ClaudeSDK::fetch(
                    installer.environment(), folder, installer.installedNodePath().value_or(QString()));
                return FetchResult{outcome, sdkState(folder)};
            },
            [this](const FetchResult& result) {
                assign(m_fetchingSDK, false, &AppModel::fetchingSDKChanged);
                m_sdkFetchFailed = !result.outcome.ready;
                assign(m_claudeSDK, result.state, &AppModel::claudeSDKChanged);
                if (!result.outcome.ready)
                    showNote(QStringLiteral("Claude Code’s SDK didn’t download. ") + result.outcome.failure);
            });
    });
}
