#include "base/AtomicFile.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString failure(const QString& path)
{
    return QStringLiteral("Tidewatch couldn’t write %1: %2.").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
}

} // namespace

std::optional<QString> writeFileAtomically(const QString& path, const QByteArray& contents, std::optional<int> mode)
{
    const QByteArray target = QFile::encodeName(path);
    QByteArray temporary = target + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return failure(path);
    // mkstemp makes it 0600; a wider mode is given only when asked, an existing file's mode is kept otherwise.
    struct stat existing {
    };
    const int wanted
        = mode ? *mode : (::stat(target.constData(), &existing) == 0 ? int(existing.st_mode & 07777) : 0644);
    const auto abandon = [&] {
        const int saved = errno;
        ::close(fd);
        ::unlink(temporary.constData());
        errno = saved;
        return failure(path);
    };
    if (::fchmod(fd, mode_t(wanted)) != 0)
        return abandon();
    for (qsizetype written = 0; written < contents.size();) {
        const ssize_t step = ::write(fd, contents.constData() + written, size_t(contents.size() - written));
        if (step < 0 && errno == EINTR)
            continue;
        if (step <= 0)
            return abandon();
        written += step;
    }
    if (::fsync(fd) != 0)
        return abandon();
    if (::close(fd) != 0) {
        ::unlink(temporary.constData());
        return failure(path);
    }
    if (::rename(temporary.constData(), target.constData()) != 0) {
        const QString sentence = failure(path);
        ::unlink(temporary.constData());
        return sentence;
    }
    return std::nullopt;
}
