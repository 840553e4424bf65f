#include "base/UserAccount.h"

#include <QDir>

#include <pwd.h>
#include <unistd.h>

namespace account {

QString homeDirectory()
{
    const passwd* entry = getpwuid(getuid());
    if (entry && entry->pw_dir && entry->pw_dir[0] == '/')
        return QString::fromLocal8Bit(entry->pw_dir);
    return QDir::homePath();
}

QString userName()
{
    const passwd* entry = getpwuid(getuid());
    return entry && entry->pw_name ? QString::fromLocal8Bit(entry->pw_name) : QString();
}

} // namespace account
