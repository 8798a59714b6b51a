#include <vindal/filedigest.h>

#include <QtCore/QCryptographicHash>
#include <QtCore/QFile>

namespace Vindal {

namespace {

// Feeds the file to each hash in 1 MiB pieces; the size, -1 on failure.
qint64 hashFile(const QString &path, QCryptographicHash *md5, QCryptographicHash *sha256)
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
        md5->addData(buffer.constData(), int(n));
        if (sha256)
            sha256->addData(buffer.constData(), int(n));
        total += n;
    }
}

} // namespace

FileDigest FileDigest::ofFile(const QString &path)
{
    FileDigest digest;
    QCryptographicHash md5(QCryptographicHash::Md5);
    QCryptographicHash sha256(QCryptographicHash::Sha256);
    const qint64 size = hashFile(path, &md5, &sha256);
    if (size < 0)
        return digest;
    digest.size = size;
    digest.md5 = QString::fromLatin1(md5.result().toHex());
    digest.sha256 = QString::fromLatin1(sha256.result().toHex());
    return digest;
}

QString FileDigest::md5Of(const QString &path)
{
    QCryptographicHash md5(QCryptographicHash::Md5);
    return hashFile(path, &md5, nullptr) < 0 ? QString() : QString::fromLatin1(md5.result().toHex());
}

} // namespace Vindal
