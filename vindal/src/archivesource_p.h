#ifndef VINDAL_ARCHIVESOURCE_P_H
#define VINDAL_ARCHIVESOURCE_P_H

#include <QtCore/QByteArray>
#include <QtCore/QFile>

#include <archive.h>

namespace Vindal {

// Feeds libarchive from a QFile, so that file names work the same on every
// platform and the bytes consumed can be reported as progress.
class ArchiveSource
{
public:
    explicit ArchiveSource(const QString &path) : m_file(path) {}

    // Opens the file and hands it to the archive reader; false with the
    // reason in errorString() when the file cannot be opened.
    bool open(struct archive *reader);
    QString errorString() const { return m_file.errorString(); }
    qint64 position() const { return m_file.pos(); }
    qint64 size() const { return m_file.size(); }

private:
    static la_ssize_t read(struct archive *a, void *self, const void **buffer);
    static la_int64_t skip(struct archive *a, void *self, la_int64_t request);
    static la_int64_t seek(struct archive *a, void *self, la_int64_t offset, int whence);

    QFile m_file;
    QByteArray m_buffer;
};

} // namespace Vindal

#endif // VINDAL_ARCHIVESOURCE_P_H
