#include "awake/BackpackSteps.h"

#include "awake/BackpackSetup.h"

#include <QFile>

namespace BackpackSteps {

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;

QString noRuleOnThisSystem()
{
    return QStringLiteral("OK: nothing to do: Linux keeps a closed laptop awake through logind, without a sudo rule");
}

int finish(const BackpackSetup::Outcome& outcome, const QString& success, const Print& print)
{
    if (!outcome) {
        print(success);
        return kDone;
    }
    print(QStringLiteral("FAILED: ")
        + (outcome->kind == BackpackSetup::Failure::Kind::Cancelled
                ? QStringLiteral("The password dialog was dismissed.")
                : outcome->sentence));
    return kFailed;
}

// Before anything else: a copy that must leave the rule alone, or a system that needs none, ends here.
std::optional<int> endsBeforeTheRule(const Environment& environment, const Print& print)
{
    if (const std::optional<QString> refused = BackpackSetup::refusal(environment)) {
        print(QStringLiteral("FAILED: ") + *refused);
        return kFailed;
    }
    if (!BackpackSetup::ruleNeeded(environment)) {
        print(noRuleOnThisSystem());
        return kDone;
    }
    return std::nullopt;
}

} // namespace

int setUp(const Environment& environment, const QString& user, const Print& print)
{
    if (const std::optional<int> code = endsBeforeTheRule(environment, print))
        return *code;
    print(QStringLiteral("Setting up Backpack mode: a sudoers rule for exactly pmset -a disablesleep 0 and 1…"));
    print(QStringLiteral("  rule  ") + BackpackSetup::path(environment));
    if (BackpackSetup::isInstalled(environment)) {
        print(QStringLiteral("OK: already set up"));
        return kDone;
    }
    return finish(BackpackSetup::install(environment, user, false),
        QStringLiteral("OK: set up (choose Backpack in the menu bar, on the phone or on the glasses)"), print);
}

int remove(const Environment& environment, const Print& print)
{
    if (const std::optional<int> code = endsBeforeTheRule(environment, print))
        return *code;
    if (!BackpackSetup::isInstalled(environment)) {
        print(QStringLiteral("OK: not set up"));
        return kDone;
    }
    print(QStringLiteral("Removing Backpack mode’s rule (") + BackpackSetup::path(environment) + QStringLiteral(")…"));
    QFile file(BackpackSetup::awakeFile(environment));
    const BackpackSetup::Saved saved
        = BackpackSetup::Saved::fromAwakeFile(file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray());
    if (saved.applied && saved.prev && (*saved.prev == 0 || *saved.prev == 1))
        print(QStringLiteral("  SleepDisabled back to %1, as Backpack found it").arg(*saved.prev));
    return finish(BackpackSetup::remove(environment, false), QStringLiteral("OK: removed"), print);
}

} // namespace BackpackSteps
