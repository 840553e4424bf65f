#include "ScratchFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

ScratchFolder::ScratchFolder()
    : m_folder(QDir::tempPath() + QStringLiteral("/tidewatch-test-XXXXXX"))
{
}

QString ScratchFolder::file(const QString& relative) const
{
    const QString full = m_folder.filePath(relative);
    QDir().mkpath(QFileInfo(full).path());
    return full;
}

QString ScratchFolder::write(const QString& relative, const QByteArray& contents, int mode) const
{
    const QString full = file(relative);
    QFile out(full);
    if (out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        out.write(contents);
    out.close();
    ::chmod(QFile::encodeName(full).constData(), mode_t(mode));
    return full;
}

int fileMode(const QString& path)
{
    struct stat info {
    };
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}
