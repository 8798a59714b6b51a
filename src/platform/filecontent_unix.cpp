#include "platform/filecontent.h"

#include <cerrno>

#include <unistd.h>

namespace Corbeth {

bool FileContent::copy(QFile &in, QFileDevice &out, qint64 blockSize)
{
    const int from = in.handle();
    const int to = out.handle();
    ssize_t copied;
    while ((copied = ::copy_file_range(from, nullptr, to, nullptr, size_t(blockSize), 0)) > 0) {
    }
    if (copied == 0)
        return true;
    // Not possible between these files (another file system, an old kernel):
    // through this process, from where the kernel stopped.
    if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)
        return false;
    in.seek(::lseek(from, 0, SEEK_CUR));
    return copyBlocks(in, out, blockSize);
}

} // namespace Corbeth
