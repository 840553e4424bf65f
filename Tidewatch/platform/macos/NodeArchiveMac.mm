#include "platform/Platform.h"

namespace platform {

NodeArchive nodeArchive()
{
    // Apple silicon only.
    return {QStringLiteral("darwin-arm64"), QStringLiteral("osx-arm64-tar")};
}

} // namespace platform
