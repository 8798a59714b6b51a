#include "platform/filetrust.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace Corbeth {

QString FileTrust::whyUntrusted(const QString &path)
{
    QString current = QFileInfo(path).canonicalFilePath();
    if (current.isEmpty())
        return QStringLiteral("\"%1\" cannot be resolved").arg(path);
    for (bool above = false;; above = true) {
        struct stat st;
        if (::stat(QFile::encodeName(current).constData(), &st) != 0)
            return QStringLiteral("\"%1\": %2").arg(current, QString::fromLocal8Bit(std::strerror(errno)));
        if (st.st_uid != 0 && st.st_uid != ::geteuid())
            return QStringLiteral("\"%1\" belongs to another user (%2)").arg(current).arg(st.st_uid);
        // Others may add to a sticky folder but not rename or replace what is ours.
        const bool sticky = above && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX);
        if ((st.st_mode & (S_IWGRP | S_IWOTH)) && !sticky)
            return QStringLiteral("\"%1\" can be written by other users").arg(current);
        if (current == QLatin1String("/"))
            return QString();
        current = QFileInfo(current).path();
    }
}

} // namespace Corbeth
