#include "archiveextractor_p.h"

#include "archivesource_p.h"
#include "fspath_p.h"
#include "logging_p.h"
#include "plainfile_p.h"
#include "utf8locale_p.h"

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryFile>

#include <archive.h>
#include <archive_entry.h>

#include <cstring>
#include <memory>
#include <system_error>

namespace Vindal {

namespace {

// Small archives may always unpack to this much, whatever their ratio.
const qint64 MinimumBytesCap = Q_INT64_C(32) * 1024 * 1024;
// Entries allowed on top of one per 16 bytes of archive.
const qint64 BaseEntries = 10000;
// Files being written are hidden under this prefix until they are complete.
const char TemporaryPrefix[] = ".vindal-";

} // namespace

QFileDevice::Permissions ArchiveExtractor::permissionsOf(int mode, bool folder)
{
    // Only permission bits; setuid, setgid and sticky are dropped, and so is
    // write access for group and others: any local user could otherwise
    // replace a program that root installed. The owner always keeps read and
    // write (and entry for folders) so that a later update can replace what
    // this one wrote.
    mode = (mode & 0755) | 0600 | (folder ? 0100 : 0);
    QFileDevice::Permissions permissions;
    const struct { int bit; QFileDevice::Permission permission; } bits[] = {
        {0400, QFileDevice::ReadOwner}, {0200, QFileDevice::WriteOwner}, {0100, QFileDevice::ExeOwner},
        {0040, QFileDevice::ReadGroup}, {0020, QFileDevice::WriteGroup}, {0010, QFileDevice::ExeGroup},
        {0004, QFileDevice::ReadOther}, {0002, QFileDevice::WriteOther}, {0001, QFileDevice::ExeOther},
    };
    for (const auto &b : bits) {
        if (mode & b.bit)
            permissions |= b.permission;
    }
    return permissions;
}

namespace {

QString entryName(struct archive_entry *entry)
{
    if (const char *utf8 = archive_entry_pathname_utf8(entry))
        return QString::fromUtf8(utf8);
    if (const char *raw = archive_entry_pathname(entry))
        return QString::fromLocal8Bit(raw);
    return QString();
}

QString linkTarget(struct archive_entry *entry)
{
    if (const char *utf8 = archive_entry_symlink_utf8(entry))
        return QString::fromUtf8(utf8);
    if (const char *raw = archive_entry_symlink(entry))
        return QString::fromLocal8Bit(raw);
    return QString();
}

// libarchive gives this warning the same error number as damage; only its
// text tells them apart. The entry's name is still known (see entryName()),
// so the locale does not matter here.
bool onlyNameUnconvertible(struct archive *reader, const QString &name)
{
    const char *why = archive_error_string(reader);
    return !name.isEmpty() && why && std::strstr(why, "converted from") && std::strstr(why, "to current locale");
}

Outcome unsafe(const QString &name, const QString &why)
{
    return Outcome::failure(Error::UnsafeArchive, QStringLiteral("unsafe entry \"%1\": %2").arg(name, why), name);
}

Outcome corrupt(const QString &name, const QString &why)
{
    return Outcome::failure(Error::CorruptArchive,
                            name.isEmpty() ? QStringLiteral("corrupt archive: %1").arg(why)
                                           : QStringLiteral("corrupt archive at entry \"%1\": %2").arg(name, why),
                            name);
}

Outcome writeError(const QString &name, const QString &path, const QString &why)
{
    return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\" for entry \"%2\": %3").arg(path, name, why),
                            name);
}

} // namespace

ArchiveExtractor::ArchiveExtractor(const QString &archiveFile, const QString &targetFolder, const ExtractLimits &limits)
    : m_archive(archiveFile)
    , m_target(targetFolder)
    , m_limits(limits)
{
}

bool ArchiveExtractor::splitEntryPath(const QString &path, QStringList *parts, QString *reason)
{
    QString normal = path;
    normal.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (normal.startsWith(QLatin1Char('/'))) {
        *reason = QStringLiteral("absolute path");
        return false;
    }
    if (normal.size() >= 2 && normal.at(1) == QLatin1Char(':') && normal.at(0).isLetter()) {
        *reason = QStringLiteral("path with a drive letter");
        return false;
    }
    parts->clear();
    for (const QString &part : normal.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            *reason = QStringLiteral("path leaves the target folder (\"..\")");
            return false;
        }
        parts->append(part);
    }
    return true;
}

bool ArchiveExtractor::linkStaysInside(const QStringList &linkParts, const QString &target)
{
    QString normal = target;
    normal.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (normal.isEmpty() || normal.startsWith(QLatin1Char('/'))
        || (normal.size() >= 2 && normal.at(1) == QLatin1Char(':')))
        return false;
    // ".." after a named part could climb out of a folder that is itself a
    // link; only leading ones have a meaning that does not depend on the disk.
    int up = 0;
    bool named = false;
    for (const QString &part : normal.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (named)
                return false;
            ++up;
        } else {
            named = true;
        }
    }
    return up <= linkParts.size() - 1;
}

bool ArchiveExtractor::reportProgress(const ProgressCallback &progress)
{
    return !progress || progress(m_source->position(), m_archiveSize);
}

std::unique_ptr<struct archive, int (*)(struct archive *)> ArchiveExtractor::newReader()
{
    std::unique_ptr<struct archive, int (*)(struct archive *)> reader(archive_read_new(), &archive_read_free);
    // Exactly the formats and filters a package may use; every other reader
    // stays out of reach of untrusted input.
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_filter_zstd(reader.get());
    return reader;
}

Outcome ArchiveExtractor::run(const ProgressCallback &progress)
{
    const Utf8Locale utf8;
    if (!QDir().mkpath(m_target))
        return writeError(QString(), m_target, QStringLiteral("the target folder cannot be created"));
    m_root = QFileInfo(m_target).canonicalFilePath();
    if (m_root.isEmpty())
        return writeError(QString(), m_target, QStringLiteral("the target folder cannot be resolved"));
    removeLeftovers();

    const std::unique_ptr<struct archive, int (*)(struct archive *)> reader = newReader();

    ArchiveSource source(m_archive);
    if (!source.open(reader.get()))
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot open package \"%1\": %2").arg(m_archive, source.errorString()),
                                m_archive);
    m_source = &source;
    m_archiveSize = source.size();
    const qint64 byRatio = m_archiveSize > m_limits.maxTotalBytes / qMax<qint64>(1, m_limits.maxRatio)
        ? m_limits.maxTotalBytes
        : m_archiveSize * m_limits.maxRatio;
    m_maxBytes = qMin(m_limits.maxTotalBytes, qMax(byRatio, MinimumBytesCap));
    m_maxEntries = qMin(m_limits.maxEntries, BaseEntries + m_archiveSize / 16);

    if (archive_read_open1(reader.get()) != ARCHIVE_OK)
        return corrupt(QString(), QString::fromUtf8(archive_error_string(reader.get())));

    qint64 entries = 0;
    QString last;
    for (;;) {
        struct archive_entry *entry = nullptr;
        const int r = archive_read_next_header(reader.get(), &entry);
        if (r == ARCHIVE_EOF)
            break;
        if (r < ARCHIVE_WARN) {
            const QString why = QString::fromUtf8(archive_error_string(reader.get()));
            return corrupt(QString(), last.isEmpty() ? why : QStringLiteral("after \"%1\": %2").arg(last, why));
        }
        const QString name = entryName(entry);
        // A warning on a header is damage the reader chose to read past
        // (a malformed attribute, an inconsistent size); nothing of it is
        // trusted. The one exception is harmless: a name the current locale
        // cannot show (a "C" locale, say) whose UTF-8 form is known.
        if (r != ARCHIVE_OK && !onlyNameUnconvertible(reader.get(), name))
            return corrupt(name, QString::fromUtf8(archive_error_string(reader.get())));
        if (++entries > m_maxEntries)
            return unsafe(name, QStringLiteral("more than %1 entries for an archive of %2 bytes").arg(m_maxEntries).arg(m_archiveSize));
        const Outcome outcome = extractEntry(reader.get(), entry, name, progress);
        if (!outcome)
            return outcome;
        last = name;
    }
    if (progress && !progress(m_archiveSize, m_archiveSize))
        return Outcome::failure(Error::Cancelled, QStringLiteral("unpacking was cancelled"));
    qCDebug(lcVindal) << "unpacked" << entries << "entries," << m_written << "bytes into" << m_root;
    return Outcome::success();
}

void ArchiveExtractor::removeLeftovers()
{
    // The names QTemporaryFile gives writeFile()'s files; links are not followed.
    QDirIterator it(m_root, {QString::fromLatin1(TemporaryPrefix) + QLatin1String("??????")},
                    QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString leftover = it.next();
        if (QFile::remove(leftover))
            qCDebug(lcVindal) << "removed what an interrupted unpack left" << leftover;
    }
}

Outcome ArchiveExtractor::makeFolders(const QStringList &parts, int count, const QString &name)
{
    QString path = m_root;
    for (int i = 0; i < count; ++i) {
        path += QLatin1Char('/') + parts.at(i);
        if (m_folders.contains(path))
            continue;
        const QFileInfo info(path);
        if (info.isSymLink())
            return unsafe(name, QStringLiteral("path goes through the symbolic link \"%1\"").arg(path));
        if (info.exists() && !info.isDir())
            return writeError(name, path, QStringLiteral("a file stands where a folder is needed"));
        if (!info.exists() && !QDir().mkdir(path))
            return writeError(name, path, QStringLiteral("the folder cannot be created"));
        m_folders.insert(path);
    }
    return Outcome::success();
}

Outcome ArchiveExtractor::extractEntry(struct archive *reader, struct archive_entry *entry, const QString &name,
                                       const ProgressCallback &progress)
{
    QStringList parts;
    QString reason;
    if (name.isEmpty())
        return unsafe(name, QStringLiteral("empty name"));
    if (!splitEntryPath(name, &parts, &reason))
        return unsafe(name, reason);
    if (archive_entry_hardlink(entry))
        return unsafe(name, QStringLiteral("hard link"));
    if (archive_entry_is_encrypted(entry))
        return corrupt(name, QStringLiteral("encrypted entries are not supported"));
    const mode_t type = archive_entry_filetype(entry);
    if (type == AE_IFCHR || type == AE_IFBLK)
        return unsafe(name, QStringLiteral("device file"));
    if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK)
        return unsafe(name, QStringLiteral("special file"));
    if (parts.isEmpty()) {
        if (type == AE_IFDIR)
            return Outcome::success(); // "./", the root itself
        return unsafe(name, QStringLiteral("no name inside the target folder"));
    }

    const QString path = m_root + QLatin1Char('/') + parts.join(QLatin1Char('/'));
    if (type == AE_IFDIR) {
        const Outcome made = makeFolders(parts, parts.size(), name);
        if (made)
            QFile::setPermissions(path, permissionsOf(int(archive_entry_perm(entry)), true));
        return made;
    }

    const Outcome parents = makeFolders(parts, parts.size() - 1, name);
    if (!parents)
        return parents;
    const QFileInfo existing(path);
    if (existing.isDir() && !existing.isSymLink())
        return writeError(name, path, QStringLiteral("a folder stands where a file is needed"));

    if (type == AE_IFLNK) {
        const QString target = linkTarget(entry);
        if (!linkStaysInside(parts, target))
            return unsafe(name, QStringLiteral("symbolic link to \"%1\" leaves the target folder").arg(target));
        // A link cannot be replaced atomically by portable means; it is
        // removed and made again.
        if ((existing.exists() || existing.isSymLink()) && !QFile::remove(path))
            return writeError(name, path, QStringLiteral("the existing file cannot be removed"));
        std::error_code error;
        std::filesystem::create_symlink(toFsPath(target), toFsPath(path), error);
        if (error)
            return writeError(name, path, QString::fromLocal8Bit(error.message().c_str()));
        return reportProgress(progress) ? Outcome::success()
                                        : Outcome::failure(Error::Cancelled, QStringLiteral("unpacking was cancelled"));
    }
    return writeFile(reader, entry, name, path, progress);
}

Outcome ArchiveExtractor::writeFile(struct archive *reader, struct archive_entry *entry, const QString &name,
                                    const QString &path, const ProgressCallback &progress)
{
    const qint64 declared = archive_entry_size_is_set(entry) ? archive_entry_size(entry) : 0;
    if (declared > m_maxBytes - m_written)
        return unsafe(name, QStringLiteral("unpacks to more than %1 bytes (decompression bomb)").arg(m_maxBytes));

    // Written under a temporary name beside the target and renamed over it:
    // a reader sees the old file or the new one, never half of one, and a
    // link in the way is replaced, not followed. No sync per file: an
    // installer writes thousands of them.
    // (Held by pointer: QTemporaryFile::close() leaves the file open, and
    // Windows renames no open file, so the object goes before the rename.)
    auto temporary = std::make_unique<QTemporaryFile>(QFileInfo(path).absolutePath() + QLatin1Char('/')
                                                      + QLatin1String(TemporaryPrefix) + QLatin1String("XXXXXX"));
    QTemporaryFile &file = *temporary;
    if (!file.open())
        return writeError(name, path, file.errorString());
    qint64 position = 0;
    for (;;) {
        const void *block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        const int r = archive_read_data_block(reader, &block, &size, &offset);
        if (r == ARCHIVE_EOF)
            break;
        // libarchive reports a ZIP entry whose CRC does not match as a mere
        // warning on its last block: the bytes are wrong all the same.
        if (r != ARCHIVE_OK)
            return corrupt(name, QString::fromUtf8(archive_error_string(reader)));
        if (offset < 0 || offset > m_maxBytes)
            return corrupt(name, QStringLiteral("block outside the file"));
        m_written += qint64(size) + qMax<qint64>(0, offset - position);
        if (m_written > m_maxBytes)
            return unsafe(name, QStringLiteral("unpacks to more than %1 bytes (decompression bomb)").arg(m_maxBytes));
        if (offset != position && !file.seek(offset)) // a hole of a sparse file
            return writeError(name, path, file.errorString());
        if (size > 0 && file.write(static_cast<const char *>(block), qint64(size)) != qint64(size))
            return writeError(name, path, file.errorString());
        position = offset + qint64(size);
        if (!reportProgress(progress))
            return Outcome::failure(Error::Cancelled, QStringLiteral("unpacking was cancelled"), name);
    }
    if (position < declared && !file.resize(declared)) // a hole at the end
        return writeError(name, path, file.errorString());
    if (!file.flush())
        return writeError(name, path, file.errorString());
    file.setFileTime(QDateTime::fromSecsSinceEpoch(archive_entry_mtime(entry)), QFileDevice::FileModificationTime);
    file.setPermissions(permissionsOf(int(archive_entry_perm(entry)), false));
    file.setAutoRemove(false);
    const QString written = file.fileName();
    temporary.reset();
    QString error;
    if (PlainFile::replace(written, path, &error))
        return Outcome::success();
    QFile::remove(written);
    return writeError(name, path, error);
}

} // namespace Vindal
