#include "platform/filecontent.h"

namespace Corbeth {

bool FileContent::copy(QFile &in, QFileDevice &out, qint64 blockSize)
{
    return copyBlocks(in, out, blockSize);
}

} // namespace Corbeth
