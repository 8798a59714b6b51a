#ifndef VINDAL_PLAINFILE_P_H
#define VINDAL_PLAINFILE_P_H

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QString>

namespace Vindal {

// The files a download keeps beside its package (the package itself,
// "<file>.part", "<file>.part.json", "<file>.verify") may lie in a folder
// another local user can write, while the client runs as root. So they are
// only ever opened as plain files of this user: never through a link, never
// a file that has a second name (a hard link to someone's file) or belongs
// to another user. Files are replaced by renaming a fresh file over the
// name, which replaces a link there instead of writing through it.
class PlainFile
{
public:
    // Opens path into file (unnamed; use path for later calls). For writing,
    // path is created when missing; with Append, writes go to its end.
    // False, with the reason in *error, for anything but a plain file.
    static bool open(QFile *file, const QString &path, QIODevice::OpenMode mode, QString *error);
    // Writes data under path: into a new file beside it, renamed over path.
    static bool write(const QString &path, const QByteArray &data, QString *error);
    // Closes file, opened from from, and gives it the name to, replacing
    // whatever is there. Refused when from no longer names file; a file
    // that is not file under to afterwards (a race) is removed again.
    static bool rename(QFile *file, const QString &from, const QString &to, QString *error);
    // Renames from to to in one step, replacing what to names (never
    // following it).
    static bool replace(const QString &from, const QString &to, QString *error);

private:
    // What tells a file from every other on this machine (device and
    // file number), empty when unknown.
    static QByteArray identity(const QFile &file);
    // The identity of the plain file at path; empty for a link, a folder,
    // anything else or nothing.
    static QByteArray identityAt(const QString &path);
};

} // namespace Vindal

#endif // VINDAL_PLAINFILE_P_H
