#include "../plainfile_p.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vindal {

namespace {

QByteArray identityOf(const struct stat &status)
{
    return QByteArray::number(quint64(status.st_dev)) + ':' + QByteArray::number(quint64(status.st_ino));
}

bool systemError(QString *error, const QString &path)
{
    const int code = errno;
    *error = code == ELOOP ? QStringLiteral("\"%1\" is a link").arg(path)
                           : QStringLiteral("\"%1\": %2").arg(path, QString::fromLocal8Bit(std::strerror(code)));
    return false;
}

} // namespace

bool PlainFile::open(QFile *file, const QString &path, QIODevice::OpenMode mode, QString *error)
{
    int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK; // a FIFO must not block the open
    if (mode & QIODevice::WriteOnly)
        flags |= O_WRONLY | O_CREAT | (mode & QIODevice::Append ? O_APPEND : 0);
    const int fd = ::open(QFile::encodeName(path).constData(), flags, 0644);
    if (fd < 0)
        return systemError(error, path);
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != ::geteuid()) {
        ::close(fd);
        *error = QStringLiteral("\"%1\" is not a plain file of this user with a single name").arg(path);
        return false;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    if (!file->open(fd, mode, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        *error = file->errorString();
        return false;
    }
    return true;
}

QByteArray PlainFile::identity(const QFile &file)
{
    struct stat status;
    return file.handle() >= 0 && ::fstat(file.handle(), &status) == 0 ? identityOf(status) : QByteArray();
}

QByteArray PlainFile::identityAt(const QString &path)
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISREG(status.st_mode) ? identityOf(status) : QByteArray();
}

bool PlainFile::replace(const QString &from, const QString &to, QString *error)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0 || systemError(error, to);
}

} // namespace Vindal
