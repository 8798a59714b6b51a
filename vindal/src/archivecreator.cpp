#include "archivecreator_p.h"

#include "archiveextractor_p.h"
#include "fspath_p.h"
#include "utf8locale_p.h"

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QHash>
#include <QtCore/QSaveFile>

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <system_error>
#include <memory>

namespace Vindal {

namespace {

struct Item
{
    QString relative;
    QByteArray key; // the UTF-8 name, the sort key
    QFileInfo info;
};

la_ssize_t writeToSaveFile(struct archive *a, void *self, const void *buffer, size_t length)
{
    auto *file = static_cast<QSaveFile *>(self);
    const qint64 n = file->write(static_cast<const char *>(buffer), qint64(length));
    if (n != qint64(length)) {
        archive_set_error(a, EIO, "%s", file->errorString().toUtf8().constData());
        return -1;
    }
    return la_ssize_t(n);
}

int modeOf(const QFileInfo &info)
{
    const QFileDevice::Permissions p = info.permissions();
    int mode = 0;
    const struct { QFileDevice::Permission permission; int bit; } bits[] = {
        {QFileDevice::ReadOwner, 0400}, {QFileDevice::WriteOwner, 0200}, {QFileDevice::ExeOwner, 0100},
        {QFileDevice::ReadGroup, 0040}, {QFileDevice::WriteGroup, 0020}, {QFileDevice::ExeGroup, 0010},
        {QFileDevice::ReadOther, 0004}, {QFileDevice::WriteOther, 0002}, {QFileDevice::ExeOther, 0001},
    };
    for (const auto &b : bits) {
        if (p & b.permission)
            mode |= b.bit;
    }
    return mode;
}

Outcome failure(const QString &message, const QString &subject = QString())
{
    return Outcome::failure(Error::DiskFull, message, subject);
}

} // namespace

ArchiveCreator::ArchiveCreator(const QString &folder, const QString &packageFile, Package::Format format)
    : m_folder(folder)
    , m_package(packageFile)
    , m_format(format)
{
}

Outcome ArchiveCreator::run(const ProgressCallback &progress)
{
    const Utf8Locale utf8;
    const QFileInfo root(m_folder);
    if (!root.isDir())
        return Outcome::failure(Error::NotFound, QStringLiteral("\"%1\" is not a folder").arg(m_folder), m_folder);
    const QDir rootDir(root.absoluteFilePath());
    const QString packagePath = QFileInfo(m_package).absoluteFilePath();

    QList<Item> items;
    qint64 total = 0;
    QDirIterator it(rootDir.path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        if (info.absoluteFilePath() == packagePath)
            continue; // the package being written inside the folder it packs
        const QString relative = rootDir.relativeFilePath(info.absoluteFilePath());
        if (!info.isSymLink() && !info.isDir() && !info.isFile())
            return Outcome::failure(Error::UnsafeArchive, QStringLiteral("\"%1\" is neither a file, a folder nor a link").arg(relative),
                                    relative);
        if (info.isFile() && !info.isSymLink())
            total += info.size();
        items.append(Item{relative, relative.toUtf8(), info});
    }
    // Names are stored in Unicode normalisation form C: two names that differ
    // only in their form (an NFC and an NFD "café") would unpack into one file.
    QHash<QString, QString> byForm;
    for (const Item &item : qAsConst(items)) {
        const QString form = item.relative.normalized(QString::NormalizationForm_C);
        if (byForm.contains(form))
            return Outcome::failure(Error::UnsafeArchive,
                                    QStringLiteral("\"%1\" and \"%2\" are one name once normalised; one would be lost")
                                        .arg(byForm.value(form), item.relative),
                                    item.relative);
        byForm.insert(form, item.relative);
    }
    // Byte order of the UTF-8 names: the same on every system and locale.
    std::sort(items.begin(), items.end(), [](const Item &a, const Item &b) { return a.key < b.key; });

    QSaveFile out(m_package);
    if (!out.open(QIODevice::WriteOnly))
        return failure(QStringLiteral("cannot write \"%1\": %2").arg(m_package, out.errorString()), m_package);

    std::unique_ptr<struct archive, int (*)(struct archive *)> writer(archive_write_new(), &archive_write_free);
    switch (m_format) {
    case Package::Zip:
        archive_write_set_format_zip(writer.get());
        break;
    case Package::TarZstd:
        archive_write_set_format_pax_restricted(writer.get());
        archive_write_add_filter_zstd(writer.get());
        break;
    case Package::TarGzip:
        archive_write_set_format_pax_restricted(writer.get());
        archive_write_add_filter_gzip(writer.get());
        break;
    case Package::Tar:
        archive_write_set_format_pax_restricted(writer.get());
        break;
    }
    archive_write_set_bytes_in_last_block(writer.get(), 1);
    if (archive_write_open2(writer.get(), &out, nullptr, &writeToSaveFile, nullptr, nullptr) != ARCHIVE_OK)
        return failure(QString::fromUtf8(archive_error_string(writer.get())), m_package);

    std::unique_ptr<struct archive_entry, void (*)(struct archive_entry *)> entry(archive_entry_new(), &archive_entry_free);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 done = 0;
    for (const Item &item : qAsConst(items)) {
        archive_entry_clear(entry.get());
        archive_entry_set_pathname_utf8(entry.get(), item.relative.toUtf8().constData());
        archive_entry_set_mtime(entry.get(), item.info.lastModified().toSecsSinceEpoch(), 0);
        if (item.info.isSymLink()) {
            // The link as written on disk; one that leaves the folder would be
            // refused when unpacked, so it is refused here already.
            std::error_code error;
            const QString target = fromFsPath(std::filesystem::read_symlink(toFsPath(item.info.absoluteFilePath()), error));
            if (error || !ArchiveExtractor::linkStaysInside(item.relative.split(QLatin1Char('/')), target))
                return Outcome::failure(Error::UnsafeArchive,
                                        QStringLiteral("the link \"%1\" to \"%2\" leaves the folder").arg(item.relative, target),
                                        item.relative);
            archive_entry_set_filetype(entry.get(), AE_IFLNK);
            archive_entry_set_perm(entry.get(), 0777);
            archive_entry_set_symlink_utf8(entry.get(), target.toUtf8().constData());
            if (archive_write_header(writer.get(), entry.get()) < ARCHIVE_WARN)
                return failure(QString::fromUtf8(archive_error_string(writer.get())), item.relative);
            continue;
        }
        if (item.info.isDir()) {
            archive_entry_set_filetype(entry.get(), AE_IFDIR);
            archive_entry_set_perm(entry.get(), mode_t(modeOf(item.info) | 0700));
            if (archive_write_header(writer.get(), entry.get()) < ARCHIVE_WARN)
                return failure(QString::fromUtf8(archive_error_string(writer.get())), item.relative);
            continue;
        }
        QFile file(item.info.absoluteFilePath());
        if (!file.open(QIODevice::ReadOnly))
            return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\": %2").arg(item.relative, file.errorString()),
                                    item.relative);
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), mode_t(modeOf(item.info)));
        archive_entry_set_size(entry.get(), file.size());
        if (archive_write_header(writer.get(), entry.get()) < ARCHIVE_WARN)
            return failure(QString::fromUtf8(archive_error_string(writer.get())), item.relative);
        qint64 left = file.size();
        while (left > 0) {
            const qint64 n = file.read(buffer.data(), qMin<qint64>(left, buffer.size()));
            if (n <= 0)
                return Outcome::failure(Error::NotFound, QStringLiteral("\"%1\" changed while it was packed").arg(item.relative),
                                        item.relative);
            if (archive_write_data(writer.get(), buffer.constData(), size_t(n)) != la_ssize_t(n))
                return failure(QString::fromUtf8(archive_error_string(writer.get())), item.relative);
            left -= n;
            done += n;
            if (progress && !progress(done, total))
                return Outcome::failure(Error::Cancelled, QStringLiteral("packing was cancelled"));
        }
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        return failure(QString::fromUtf8(archive_error_string(writer.get())), m_package);
    if (!out.commit())
        return failure(QStringLiteral("cannot write \"%1\": %2").arg(m_package, out.errorString()), m_package);
    if (progress)
        progress(total, total);
    return Outcome::success();
}

} // namespace Vindal
