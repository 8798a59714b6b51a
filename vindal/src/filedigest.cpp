#include <vindal/filedigest.h>

#include <QtCore/QCryptographicHash>
#include <QtCore/QFile>

namespace Vindal {

FileDigest FileDigest::ofFile(const QString &path)
{
    FileDigest digest;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return digest;
    QCryptographicHash md5(QCryptographicHash::Md5);
    QCryptographicHash sha256(QCryptographicHash::Sha256);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 total = 0;
    for (;;) {
        const qint64 n = file.read(buffer.data(), buffer.size());
        if (n < 0)
            return digest;
        if (n == 0)
            break;
        md5.addData(buffer.constData(), int(n));
        sha256.addData(buffer.constData(), int(n));
        total += n;
    }
    digest.size = total;
    digest.md5 = QString::fromLatin1(md5.result().toHex());
    digest.sha256 = QString::fromLatin1(sha256.result().toHex());
    return digest;
}

} // namespace Vindal
