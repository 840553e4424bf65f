#include "base/Shell.h"
#include "platform/Platform.h"

namespace platform {

AdminRun runAsAdministrator(const QString& script, const QString&, bool)
{
    // polkit's agent asks for the password; 126 is its answer when the person dismisses it.
    const ShellResult result = Shell::run(QStringLiteral("/usr/bin/pkexec"),
        {QStringLiteral("/bin/sh"), QStringLiteral("-c"), script}, std::nullopt, QString(), 300);
    if (!result.timedOut && result.status == 0)
        return {AdminRun::Result::Done, {}};
    if (!result.timedOut && result.status == 126)
        return {AdminRun::Result::Cancelled, {}};
    return {AdminRun::Result::Failed, result.combined()};
}

} // namespace platform
