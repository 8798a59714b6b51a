#ifndef VINDAL_ARCHIVEEXTRACTOR_P_H
#define VINDAL_ARCHIVEEXTRACTOR_P_H

#include <vindal/package.h>

#include <QtCore/QFileDevice>
#include <QtCore/QSet>
#include <QtCore/QStringList>

#include <memory>

struct archive;
struct archive_entry;

namespace Vindal {

class ArchiveSource;

// Unpacks a ZIP or tar (plain, gzip, zstd) archive into a folder, refusing
// anything that could write outside it or create what an installer must not
// create. Files are written through temporary files and renamed into place.
// Synchronous; runs on whatever thread calls run().
class ArchiveExtractor
{
public:
    ArchiveExtractor(const QString &archiveFile, const QString &targetFolder, const ExtractLimits &limits);

    // Progress is the archive's bytes read against its size.
    Outcome run(const ProgressCallback &progress);

    // The entry's path as relative parts, or false with the reason (absolute,
    // "..", drive letter). "\" counts as a separator.
    static bool splitEntryPath(const QString &path, QStringList *parts, QString *reason);
    // Whether a link at linkParts pointing to target resolves inside the
    // root: relative, and ".." only at its start, never climbing above it.
    static bool linkStaysInside(const QStringList &linkParts, const QString &target);
    // The permissions a file or folder of mode gets: no setuid, setgid or
    // sticky bit, no write access for group and others, the owner's read
    // and write always.
    static QFileDevice::Permissions permissionsOf(int mode, bool folder);
    // A reader of the formats and filters a package may use, and no other.
    static std::unique_ptr<struct archive, int (*)(struct archive *)> newReader();

private:
    Outcome extractEntry(struct archive *reader, struct archive_entry *entry, const QString &name,
                         const ProgressCallback &progress);
    Outcome writeFile(struct archive *reader, struct archive_entry *entry, const QString &name,
                      const QString &path, const ProgressCallback &progress);
    Outcome makeFolders(const QStringList &parts, int count, const QString &name);
    // Removes the temporary files an unpack into the same folder left when it
    // was killed: they would otherwise stay, hidden, for good.
    void removeLeftovers();
    bool reportProgress(const ProgressCallback &progress);

    QString m_archive;
    QString m_target;
    QString m_root;
    ExtractLimits m_limits;
    qint64 m_maxBytes = 0;
    qint64 m_maxEntries = 0;
    qint64 m_written = 0;
    qint64 m_archiveSize = 0;
    ArchiveSource *m_source = nullptr;
    QSet<QString> m_folders; // folders known to be real folders inside the root
};

} // namespace Vindal

#endif // VINDAL_ARCHIVEEXTRACTOR_P_H
