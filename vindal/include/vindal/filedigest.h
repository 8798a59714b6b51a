#ifndef VINDAL_FILEDIGEST_H
#define VINDAL_FILEDIGEST_H

#include <vindal/vindal_export.h>

#include <QtCore/QString>

namespace Vindal {

// Size and digests of a file, the digests as lower-case hexadecimal text.
struct VINDAL_EXPORT FileDigest
{
    qint64 size = -1;
    QString md5;
    QString sha256;

    bool isValid() const { return size >= 0; }

    // Reads the file once in fixed-size pieces; an invalid record (size -1)
    // when it cannot be read.
    static FileDigest ofFile(const QString &path);
    // The MD5 alone, empty when the file cannot be read.
    static QString md5Of(const QString &path);
};

} // namespace Vindal

#endif // VINDAL_FILEDIGEST_H
