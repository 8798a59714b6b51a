#include <vindal/filedigest.h>

#include "digest_p.h"

#include <QtCore/QFile>

namespace Vindal {

namespace {

// Feeds the file to each digest in 1 MiB pieces; the size, -1 on failure.
qint64 hashFile(const QString &path, Digest *md5, Digest *sha256)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return -1;
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 total = 0;
    for (;;) {
        const qint64 n = file.read(buffer.data(), buffer.size());
        if (n < 0)
            return -1;
        if (n == 0)
            return total;
        md5->add(buffer.constData(), n);
        if (sha256)
            sha256->add(buffer.constData(), n);
        total += n;
    }
}

} // namespace

FileDigest FileDigest::ofFile(const QString &path)
{
    FileDigest digest;
    Digest md5(Digest::Md5);
    Digest sha256(Digest::Sha256);
    const qint64 size = hashFile(path, &md5, &sha256);
    if (size < 0)
        return digest;
    digest.size = size;
    digest.md5 = md5.hex();
    digest.sha256 = sha256.hex();
    return digest;
}

QString FileDigest::md5Of(const QString &path)
{
    Digest md5(Digest::Md5);
    return hashFile(path, &md5, nullptr) < 0 ? QString() : md5.hex();
}

} // namespace Vindal
