#pragma once

#include "entry/Environment.h"

#include <QString>

#include <optional>
#include <variant>

/// The one sudo rule Backpack mode needs: it lets this account switch the
/// Mac's sleep off and back on, and nothing else. The one place where
/// Tidewatch acts as root, so every inserted value is checked and quoted, the
/// rule is validated before it lands, and a test copy never reaches sudo's folder.
namespace BackpackSetup {

/// Why it didn't happen: a sentence, or the person dismissed the password dialog.
struct Failure {
    enum class Kind { Failed, Cancelled };
    Kind kind = Kind::Failed;
    QString sentence;

    static Failure failed(QString sentence) { return {Kind::Failed, std::move(sentence)}; }
    static Failure cancelled() { return {Kind::Cancelled, {}}; }
    bool operator==(const Failure&) const = default;
};
using Outcome = std::optional<Failure>;

/// What the service saved about Backpack in awake.json.
struct Saved {
    /// SleepDisabled as Backpack found it.
    std::optional<qint64> prev;
    /// Backpack has switched it and not yet put it back.
    bool applied = false;

    static Saved fromAwakeFile(const QByteArray& contents);
};

inline constexpr const char* realPath = "/private/etc/sudoers.d/tidewatch";

QString path(const Environment& environment);
/// Where the service keeps its Stay awake state.
QString awakeFile(const Environment& environment);
/// Whether this system needs the rule at all: Linux keeps a closed laptop awake
/// through logind without root, so there only a scratch path brings it into play.
bool ruleNeeded(const Environment& environment);
bool isRealPath(const Environment& environment);
/// Why this copy must leave the rule alone; none when it may go ahead.
std::optional<QString> refusal(const Environment& environment);
bool isInstalled(const Environment& environment);

/// The failure's sentence when an account name can't stand in sudo's rules.
std::optional<QString> accountProblem(const QString& user);

/// A value as one single-quoted shell word.
QString quoted(const QString& value);

QString installScript(const QString& user, const QString& path, bool chown);
/// pmset: the program that puts SleepDisabled back; none writes no such line.
QString removeScript(const QString& path, const Saved& saved, const std::optional<QString>& pmset);
QString appleScript(const QString& script, const QString& prompt);

QString installPrompt();
QString removePrompt();

/// The text of --backpack-scripts for this account, and whether the account can be named at all.
std::pair<QString, bool> printScripts(const QString& user);

/// Runs a script as root (or, for a scratch path, as it is), asking for the
/// password the system's way. inApp: from inside the running program rather
/// than a headless step.
Outcome runPrivileged(const Environment& environment, const QString& script, const QString& prompt, bool inApp);

/// Installs the rule; nothing to do when it is there.
Outcome install(const Environment& environment, const QString& user, bool inApp);
/// Removes the rule, putting sleep back as Backpack found it; nothing to do when it isn't there.
Outcome remove(const Environment& environment, bool inApp);

/// awake.json without Backpack, for when the service can't be told: a
/// Backpack mode becomes "working". None when the contents aren't a JSON object.
std::optional<QByteArray> awakeFileWithoutBackpack(const QByteArray& contents);

} // namespace BackpackSetup
