#include "archivesource_p.h"

#include <cerrno>
#include <cstdio>

namespace Vindal {

bool ArchiveSource::open(struct archive *reader)
{
    if (!m_file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;
    m_buffer.resize(256 * 1024);
    archive_read_set_seek_callback(reader, &ArchiveSource::seek);
    archive_read_set_read_callback(reader, &ArchiveSource::read);
    archive_read_set_skip_callback(reader, &ArchiveSource::skip);
    archive_read_set_callback_data(reader, this);
    return true;
}

la_ssize_t ArchiveSource::read(struct archive *a, void *self, const void **buffer)
{
    auto *source = static_cast<ArchiveSource *>(self);
    const qint64 n = source->m_file.read(source->m_buffer.data(), source->m_buffer.size());
    if (n < 0) {
        archive_set_error(a, EIO, "%s", source->m_file.errorString().toUtf8().constData());
        return ARCHIVE_FATAL;
    }
    *buffer = source->m_buffer.constData();
    return n;
}

la_int64_t ArchiveSource::skip(struct archive *, void *self, la_int64_t request)
{
    auto *source = static_cast<ArchiveSource *>(self);
    const qint64 target = qMin(source->m_file.pos() + request, source->m_file.size());
    const qint64 from = source->m_file.pos();
    if (target <= from || !source->m_file.seek(target))
        return 0;
    return target - from;
}

la_int64_t ArchiveSource::seek(struct archive *a, void *self, la_int64_t offset, int whence)
{
    auto *source = static_cast<ArchiveSource *>(self);
    qint64 target = offset;
    if (whence == SEEK_CUR)
        target += source->m_file.pos();
    else if (whence == SEEK_END)
        target += source->m_file.size();
    if (target < 0 || !source->m_file.seek(target)) {
        archive_set_error(a, EIO, "cannot seek");
        return ARCHIVE_FATAL;
    }
    return target;
}

} // namespace Vindal
