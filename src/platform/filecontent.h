#ifndef CORBETH_FILECONTENT_H
#define CORBETH_FILECONTENT_H

#include <QtCore/QFile>

namespace Corbeth {

// Copies the content of one open file into another in blocks of at most
// blockSize bytes, so memory stays bounded whatever the file. Where the system
// copies between files in the kernel (Linux), no block passes through this
// process at all.
class FileContent
{
public:
    static bool copy(QFile &in, QFileDevice &out, qint64 blockSize);

private:
    static bool copyBlocks(QFile &in, QFileDevice &out, qint64 blockSize);
};

} // namespace Corbeth

#endif // CORBETH_FILECONTENT_H
