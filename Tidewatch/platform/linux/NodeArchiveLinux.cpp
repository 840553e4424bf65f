#include "platform/Platform.h"

#include <QSysInfo>

namespace platform {

NodeArchive nodeArchive()
{
    if (QSysInfo::currentCpuArchitecture() == QLatin1StringView("arm64"))
        return {QStringLiteral("linux-arm64"), QStringLiteral("linux-arm64")};
    return {QStringLiteral("linux-x64"), QStringLiteral("linux-x64")};
}

} // namespace platform
