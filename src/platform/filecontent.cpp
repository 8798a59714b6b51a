#include "platform/filecontent.h"

#include <memory>

namespace Corbeth {

bool FileContent::copyBlocks(QFile &in, QFileDevice &out, qint64 blockSize)
{
    const std::unique_ptr<char[]> block(new char[blockSize]);
    qint64 length;
    while ((length = in.read(block.get(), blockSize)) > 0) {
        if (out.write(block.get(), length) != length)
            return false;
    }
    return length == 0;
}

} // namespace Corbeth
