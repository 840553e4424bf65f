#pragma once

#include "base/Clock.h"
#include "entry/Environment.h"
#include "link/Device.h"
#include "link/GuideState.h"
#include "link/Health.h"
#include "link/LiveFeed.h"
#include "link/LocalStatus.h"
#include "link/Snapshot.h"
#include "link/SttState.h"
#include "model/ActionCalls.h"
#include "model/Attention.h"
#include "model/DialogSlot.h"
#include "model/GlassDialog.h"
#include "model/ModelSource.h"
#include "model/Note.h"
#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"
#include "workflows/AutomationsState.h"

#include <QDateTime>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class AutomationActions;
class AwakeActions;
class ServiceKeeper;

/// The one object that knows what the app believes; every surface is a
/// function of it. Two sources feed it: a read loop that asks the service and
/// the live feed that tells. The feed keeps it current, the loop keeps it
/// honest, and either may fail. Both belong to its source, chosen when it is
/// built: the live service, or a sample that shows a picture. Main thread only.
///
/// Every observable write compares before it sets, so a read that finds
/// nothing new emits nothing.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool firstPollDone READ firstPollDone NOTIFY firstPollDoneChanged)
    Q_PROPERTY(bool serviceInstalled READ serviceInstalled NOTIFY serviceInstalledChanged)
    Q_PROPERTY(bool feedLive READ feedLive NOTIFY feedLiveChanged)
    Q_PROPERTY(bool signingIn READ signingIn NOTIFY signingInChanged)
    Q_PROPERTY(QString lastError READ lastErrorText NOTIFY lastErrorChanged)
    Q_PROPERTY(QString noteText READ noteText NOTIFY noteChanged)
    Q_PROPERTY(QString serviceNodeGone READ serviceNodeGoneText NOTIFY serviceNodeGoneChanged)
    Q_PROPERTY(bool dialogWorking READ dialogWorking NOTIFY dialogWorkingChanged)
    Q_PROPERTY(bool backpackBusy READ backpackBusy NOTIFY backpackBusyChanged)
    Q_PROPERTY(bool serviceUpdate READ serviceUpdate NOTIFY serviceUpdateChanged)
    Q_PROPERTY(bool restarting READ restarting NOTIFY restartingChanged)
    Q_PROPERTY(bool updatingService READ updatingService NOTIFY updatingServiceChanged)
    Q_PROPERTY(bool fetchingSDK READ fetchingSDK NOTIFY fetchingSDKChanged)

public:
    /// The last local look for Claude Code's binary.
    struct ClaudeLook {
        bool found = false;
        QDateTime at;
        bool operator==(const ClaudeLook&) const = default;
    };

    /// A sample instance shows what it is given: it does no reads, no
    /// actions, and ignores the feed.
    AppModel(Environment environment, const Clock& clock, LiveFeed::Timing feedTiming = {}, bool sample = false,
        QObject* parent = nullptr);
    ~AppModel() override;

    /// What a sample instance shows: a state as the reads and the feed would leave it.
    struct Picture {
        bool firstPollDone = true;
        bool serviceInstalled = true;
        bool feedLive = true;
        std::optional<Health> health;
        std::optional<LocalStatus> status;
        std::optional<Snapshot> snapshot;
        Attention::AnsweredMap answered;
        std::optional<QString> serviceNodeGone;
        bool signingIn = false;
        bool serviceUpdate = false;
        bool restarting = false;
        bool updatingService = false;
        std::optional<ServiceInstaller::Progress> repairing;
    };
    /// Puts a picture into a sample instance; a live one ignores it.
    void showPicture(const Picture& picture);

    /// Registers again the login item the person wants and the system lost,
    /// then starts the feed and the read loop, whose first read comes at once.
    /// Calling it again does nothing more.
    void start();
    /// The popover opened or closed: opening reads at once (status included)
    /// and may ask for fresh usage; either way the new pace holds from now.
    void setPopoverVisible(bool visible);
    bool popoverVisible() const { return m_popoverVisible; }

    /// One read of health, snapshot and (when asked, or none is held) the
    /// local status. Runs beside the loop's; readFinished() tells its end.
    void read(bool withStatus);
    /// A feed message on an incomplete picture asks for a read, at most every 2 seconds.
    void nudge();
    /// The one road of a failed action: a sentence shown for 6 seconds, unless a later one replaces it.
    void showNote(const QString& text);
    /// What the feed delivers; model tests deliver their own.
    void take(const LiveFeed::Event& event);

    const std::optional<Health>& health() const { return m_health; }
    const std::optional<LocalStatus>& status() const { return m_status; }
    const std::optional<Snapshot>& snapshot() const { return m_snapshot; }
    /// The sentence of the last failed snapshot read.
    const std::optional<QString>& lastError() const { return m_lastError; }
    QString lastErrorText() const { return m_lastError.value_or(QString()); }
    bool serviceInstalled() const { return m_serviceInstalled; }
    /// Set by the first finished read, whatever it found.
    bool firstPollDone() const { return m_firstPollDone; }
    bool feedLive() const { return m_feedLive; }
    /// The service answers its health probe, or else the feed lives.
    bool serviceUp() const { return m_health.has_value() || m_feedLive; }
    bool signingIn() const { return m_signingIn; }
    const Attention::AnsweredMap& answered() const { return m_answered; }
    /// What waits on the user now, answers of the last moment folded in place.
    QList<NeedsYouItem> needsYou() const;
    /// The open approvals not yet answered here.
    QList<Approval> waitingApprovals() const;
    /// Which agents this machine has, as far as the model knows.
    AgentsInUse agentsInUse() const;
    const std::optional<Note>& note() const { return m_note; }
    QString noteText() const { return m_note ? m_note->text : QString(); }
    /// None until the devices were read.
    const std::optional<QList<Device>>& deviceList() const { return m_deviceList; }
    /// The Node.js the installed service ran on, when it is gone.
    const std::optional<QString>& serviceNodeGone() const { return m_serviceNodeGone; }
    QString serviceNodeGoneText() const { return m_serviceNodeGone.value_or(QString()); }
    const std::optional<ClaudeLook>& claudeLook() const { return m_claudeLook; }
    /// The Stay awake mode picked and not yet confirmed by the service.
    const std::optional<Awake::Mode>& awakeChoice() const;
    /// Backpack's permission is being set up or removed.
    bool backpackBusy() const;
    /// A newer service than the installed one came with the app.
    bool serviceUpdate() const { return m_serviceUpdate; }
    bool restarting() const { return m_restarting; }
    bool updatingService() const { return m_updatingService; }
    /// Where a repair stands, while one runs.
    const std::optional<ServiceInstaller::Progress>& repairing() const { return m_repairing; }
    /// Claude Code's SDK in the installed service's folder; none while no service is installed there.
    const std::optional<ClaudeSDK::State>& claudeSDK() const { return m_claudeSDK; }
    bool fetchingSDK() const { return m_fetchingSDK; }
    /// The last fetch from here failed, and nothing has fetched it since.
    bool sdkFetchFailed() const { return m_sdkFetchFailed; }
    /// The SDK's state has been read once, whatever it found.
    bool sdkLooked() const { return m_sdkLooked; }
    /// Open at Login is on, as last read.
    bool loginItemEnabled() const { return m_loginItemEnabled; }
    /// The open dialog; a new one replaces it.
    const std::optional<GlassDialog>& dialog() const { return m_dialogs->dialog(); }
    /// The open dialog's work is under way.
    bool dialogWorking() const { return m_dialogs->working(); }
    /// The status read last counted this app's own feed among its connected clients.
    bool statusCountsFeed() const { return m_source->statusCountsFeed(); }
    /// Feed messages taken so far, but for `devices`.
    qint64 feedGeneration() const { return m_source->feedGeneration(); }
    /// Reads under way, the loop's and the actions' together.
    int reading() const { return m_source->reading(); }
    /// Since when reads fail while the feed is still believed.
    const std::optional<QDateTime>& failingSince() const { return m_source->failingSince(); }
    bool isSample() const { return m_source->isSample(); }
    const Environment& environment() const { return m_environment; }

    // The user's actions. Each does nothing in a sample; a failure shows
    // its fixed opening and the service's sentence as a note.

    /// Answers an approval: it folds at once, and comes back with a note when
    /// the answer doesn't reach the service. An approval is answered once.
    void decide(const Approval& approval, const QString& decision);

    /// Brings the session's terminal window forward; nothing is read after.
    void openTerminal(const QString& sessionId);
    void continueSession(const QString& sessionId);
    /// Arms the session to carry on by itself after its limit, or cancels that.
    void setAutoContinue(const QString& sessionId, bool on);
    /// `name` is the provider's, for the sentence.
    void checkProvider(const QString& providerId, const QString& name);
    /// Starts Claude Code's sign-in; `where` is "mac" or "phone".
    void signIn(const QString& where = QStringLiteral("mac"));
    /// `name` is the device's, for the sentence. The device list is read again after.
    void forgetDevice(const QString& deviceId, const QString& name);
    /// Asks first, with `question`'s words, whether to forget the device; the
    /// status is read again after, so the device leaves every list that shows it.
    void askForgetDevice(const QString& deviceId, const QString& name, GlassDialog question);

    /// Asks the service for another Stay awake mode; the picker shows the
    /// choice until the service answers.
    void setAwake(Awake::Mode mode);
    /// Gives Backpack more time, while the service offers it.
    void extendBackpack();
    /// The battery level at which Backpack lets go.
    void setMinBattery(int percent);
    /// Sets up Backpack's one permission with the system's password dialog,
    /// then switches Backpack on. The panel is wanted again after.
    void setupBackpack();
    void removeBackpack();

    /// What the app knows of automations, from the snapshot when it has them
    /// and the local status otherwise, with a pause or resume under way
    /// already in place; none when neither says.
    std::optional<AutomationsState> automations() const;
    /// Paused or not, as picked here and not yet confirmed by a read of the status.
    const std::optional<bool>& automationsPausedChoice() const;
    /// Pauses every automation, or lets them start by themselves again.
    void setAutomationsPaused(bool paused);
    /// Sends `answer` for a run waiting at an ask; the state is read at once after.
    void answerAsk(const WFAskItem& ask, const QString& answer);

    /// Puts up a dialog in the one slot, replacing whatever was there.
    void showDialog(GlassDialog dialog) { m_dialogs->show(std::move(dialog)); }
    /// The primary button: the dialog stays, working, until its work ends;
    /// a failure closes it and goes to the note line.
    void confirmDialog(bool option = false) { m_dialogs->confirm(option); }
    /// The dialog was dismissed.
    void cancelDialog() { m_dialogs->cancel(); }
    void dialogSecondary() { m_dialogs->secondary(); }
    /// Reads the paired devices into deviceList(); a failure passes in silence.
    void readDevices();
    /// Asks the service to read usage afresh; a failure passes in silence.
    void refreshUsage();
    void setCodexEnabled(bool on);
    /// Asks the service to look at Codex afresh; a failure passes in silence.
    void refreshCodex();

    // Codex's sign-in, which runs in a terminal window of its own.

    /// The Codex record to believe; none while the service is down.
    std::optional<Codex> trustedCodex() const;
    /// Opens a terminal window running codex login on a script of our own.
    /// Once it opened, Codex is looked at again whenever the app comes to
    /// the front or the panel opens, so the signed-in account shows.
    void signInCodex();
    /// The terminal for Codex's sign-in is being opened.
    bool codexBusy() const { return m_codexBusy; }
    /// Why the terminal for Codex's sign-in didn't open.
    const std::optional<QString>& codexError() const { return m_codexError; }
    /// A terminal for Codex's sign-in was opened in this run.
    bool codexSignInOpened() const { return m_codexSignInOpened; }
    /// The application came to the front.
    void applicationBecameActive();
    void setBuiltInTailscale(bool on);
    /// `changed` is the note that tells what the new rule means.
    void setBrowseOutsideProjects(bool on, const QString& changed);
    /// The private name for this machine, on or off.
    void setNameService(bool on);
    /// Signs the built-in Tailscale node out.
    void signOutTailscale();
    /// Open at Login on or off, remembered as the person's wish; a test copy
    /// never touches the item. A failure goes to the output, never the screen.
    void setLoginItem(bool on);

    // The service itself. Each is refused with the copy's sentence where it
    // may not manage a service, runs off the main thread, and reads after.

    /// Restarts the service through its manager and waits for it to answer.
    void restartService();
    /// Installs the service again with Node.js chosen afresh.
    void repairService();
    /// Installs the newer service that came with the app.
    void updateService();
    /// Fetches Claude Code's SDK into the installed service's folder with
    /// the npm of the Node.js it runs on; a failure's sentence goes to the note line.
    void fetchSDK();
    /// Reads the SDK's state in the installed service's folder again.
    void checkSDK();
    /// Asks first, in a dialog, whether to take Tidewatch off this machine;
    /// the closing dialog tells how it went and quits the app.
    void askUninstall();

    /// Replaces what builds the service installer (it runs off the main
    /// thread); tests point it at their own tools and service bundle.
    void setServiceInstaller(std::function<ServiceInstaller()> build);

    /// Replaces the local look for Claude Code's binary (it runs off the main
    /// thread); tests and tools that must not look at this machine set their own.
    void setClaudeLook(std::function<bool()> look) { m_lookForClaude = std::move(look); }

Q_SIGNALS:
    void healthChanged();
    void statusChanged();
    void snapshotChanged();
    void lastErrorChanged();
    void serviceInstalledChanged();
    void firstPollDoneChanged();
    void feedLiveChanged();
    void signingInChanged();
    void answeredChanged();
    void noteChanged();
    void deviceListChanged();
    void serviceNodeGoneChanged();
    void claudeLookChanged();
    void dialogChanged();
    void awakeChoiceChanged();
    void automationsPausedChoiceChanged();
    void backpackBusyChanged();
    void serviceUpdateChanged();
    void restartingChanged();
    void updatingServiceChanged();
    void repairingChanged();
    void claudeSDKChanged();
    void fetchingSDKChanged();
    void loginItemEnabledChanged();
    void codexBusyChanged();
    void codexErrorChanged();
    /// The uninstall has ended and been told: the app is to quit.
    void quitWanted();
    /// The panel should open again, after the system's dialog took it away.
    void panelWanted();
    void dialogWorkingChanged();
    /// A read has ended, whatever it found.
    void readFinished();
    /// The glasses' guide, for the lens guide model.
    void guideReceived(const GuideState& guide);
    /// The guide is to be opened, and why ("phone" when unsaid).
    void guideShowRequested(const GuideState& guide, const QString& reason);
    /// Speech-to-text's state, for the voice model.
    void sttReceived(const SttState& stt);

private:
    friend class ReadLoop;

    /// An action's call, through the source: on failure the note of `opening`
    /// and the error's sentence, or silence without an opening.
    template <class T>
    void run(const ServiceCall<T>& call, std::optional<QString> opening, std::function<void(T)> onSuccess);
    /// The one compare-then-set: a value equal to the held one emits nothing.
    template <class T, class U> bool assign(T& field, U&& value, void (AppModel::*changed)());

    /// A feed message, counted already: it patches the snapshot and goes to its listeners.
    void takeMessage(const Feed::Message& message);
    void checkServiceNode(bool serviceAnswered);
    /// Looks again at the installed service beside the app's: an update waits when they differ.
    void checkServiceUpdate();
    /// A copy that may not manage a service says so in the note line: true then.
    bool refusedHere();
    /// A keeper's job has ended: its note, if any, and a read at once.
    void afterServiceJob(const std::optional<QString>& note);
    void setFeedLive(bool live);
    void setSnapshotPart(const std::function<bool(Snapshot&)>& change);
    /// Replaces one record of the snapshot, when one is held and the record differs.
    template <class F> void setSnapshotField(std::optional<F> Snapshot::*field, const std::optional<F>& value)
    {
        setSnapshotPart([&](Snapshot& snapshot) {
            if (snapshot.*field == value)
                return false;
            snapshot.*field = value;
            return true;
        });
    }
    /// The service's word on Stay awake, as an action's reply carried it.
    void takeAwake(const Awake& awake);
    void pruneAnswered();
    void noteSignInProgress();

    Environment m_environment;
    const Clock& m_clock;
    std::function<bool()> m_lookForClaude;
    std::function<ServiceInstaller()> m_buildInstaller;
    ServiceKeeper* m_keeper;
    AwakeActions* m_awake;
    DialogSlot* m_dialogs;
    AutomationActions* m_automations;

    // Observable.
    std::optional<Health> m_health;
    std::optional<LocalStatus> m_status;
    std::optional<Snapshot> m_snapshot;
    std::optional<QString> m_lastError;
    bool m_serviceInstalled = false;
    bool m_firstPollDone = false;
    bool m_feedLive = false;
    bool m_signingIn = false;
    Attention::AnsweredMap m_answered;
    std::optional<Note> m_note;
    std::optional<QList<Device>> m_deviceList;
    std::optional<QString> m_serviceNodeGone;
    std::optional<ClaudeLook> m_claudeLook;
    bool m_serviceUpdate = false;
    bool m_restarting = false;
    bool m_updatingService = false;
    std::optional<ServiceInstaller::Progress> m_repairing;
    std::optional<ClaudeSDK::State> m_claudeSDK;
    bool m_fetchingSDK = false;
    bool m_sdkFetchFailed = false;
    bool m_sdkLooked = false;
    bool m_loginItemEnabled = false;
    bool m_popoverVisible = false;
    bool m_codexBusy = false;
    std::optional<QString> m_codexError;
    bool m_codexSignInOpened = false;
    /// The account's state when the sign-in began; a move away from it ends `signingIn`.
    std::optional<QString> m_signInFrom;

    /// Last, so that it goes first: its replies and feed events hold the rest.
    std::unique_ptr<ModelSource> m_source;
};

template <class T, class U> bool AppModel::assign(T& field, U&& value, void (AppModel::*changed)())
{
    if (field == value)
        return false;
    field = std::forward<U>(value);
    Q_EMIT(this->*changed)();
    return true;
}

template <class T>
void AppModel::run(const ServiceCall<T>& call, std::optional<QString> opening, std::function<void(T)> onSuccess)
{
    m_source->act([&](ActionCalls& calls) { calls.run<T>(call, std::move(opening), std::move(onSuccess)); });
}
