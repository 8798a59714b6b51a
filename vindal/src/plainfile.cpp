#include "plainfile_p.h"

#include <QtCore/QTemporaryFile>

namespace Vindal {

bool PlainFile::write(const QString &path, const QByteArray &data, QString *error)
{
    // A temporary file is created exclusively: a link planted under its
    // name makes the creation fail, it is never followed.
    QString name;
    {
        QTemporaryFile temporary(path + QLatin1String(".XXXXXX"));
        if (!temporary.open() || temporary.write(data) != data.size() || !temporary.flush()
            || !temporary.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther)) {
            *error = temporary.errorString();
            return false;
        }
        temporary.setAutoRemove(false);
        name = temporary.fileName();
    } // QTemporaryFile::close() leaves the file open, and Windows renames no open file: it closes as it goes.
    if (replace(name, path, error))
        return true;
    QFile::remove(name);
    return false;
}

bool PlainFile::rename(QFile *file, const QString &from, const QString &to, QString *error)
{
    const QByteArray id = identity(*file);
    file->close();
    if (id.isEmpty() || identityAt(from) != id) {
        *error = QStringLiteral("\"%1\" was replaced while it was written").arg(from);
        return false;
    }
    if (!replace(from, to, error))
        return false;
    if (identityAt(to) == id)
        return true;
    QFile::remove(to);
    *error = QStringLiteral("\"%1\" was replaced while it was renamed").arg(to);
    return false;
}

} // namespace Vindal
