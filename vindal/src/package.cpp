#include <vindal/filedigest.h>
#include <vindal/package.h>

#include "archivecreator_p.h"
#include "archiveextractor_p.h"
#include "deltaapplier_p.h"
#include "plainfile_p.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace Vindal {

namespace {

QString verifyFileOf(const QString &packageFile)
{
    return packageFile + QLatin1String(".verify");
}

} // namespace

Outcome Package::create(const QString &folder, const QString &packageFile, Format format, const ProgressCallback &progress)
{
    return ArchiveCreator(folder, packageFile, format).run(progress);
}

Outcome Package::writeVerifyFile(const QString &packageFile)
{
    const QString md5 = FileDigest::md5Of(packageFile);
    if (md5.isEmpty())
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\"").arg(packageFile), packageFile);
    const QString path = verifyFileOf(packageFile);
    QString error;
    if (!PlainFile::write(path, md5.toLatin1(), &error))
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(path, error), path);
    return Outcome::success(md5);
}

Outcome Package::verify(const QString &packageFile)
{
    const QString path = verifyFileOf(packageFile);
    QFile companion(path);
    if (!companion.open(QIODevice::ReadOnly))
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\": %2").arg(path, companion.errorString()), path);
    // The companion holds exactly the digest; anything longer cannot match.
    const QByteArray expected = companion.read(64);
    const QString actual = FileDigest::md5Of(packageFile);
    if (actual.isEmpty())
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\"").arg(packageFile), packageFile);
    if (expected != actual.toLatin1()) {
        return Outcome::failure(Error::ChecksumMismatch,
                                QStringLiteral("MD5 of \"%1\" is %2, \"%3\" says \"%4\"")
                                    .arg(packageFile, actual, path, QString::fromLatin1(expected.left(40))),
                                packageFile);
    }
    return Outcome::success(actual);
}

Outcome Package::extract(const QString &packageFile, const QString &targetFolder, const ProgressCallback &progress,
                         const ExtractLimits &limits)
{
    // An unpack interrupted half-way through a delta's renames is completed first.
    DeltaApplier::recover(targetFolder);
    if (DeltaApplier::isDelta(packageFile))
        return DeltaApplier(packageFile, targetFolder, limits).run(progress);
    return ArchiveExtractor(packageFile, targetFolder, limits).run(progress);
}

QString Package::formatName(Format format)
{
    switch (format) {
    case TarZstd: return QStringLiteral("zstd");
    case TarGzip: return QStringLiteral("gzip");
    case Tar: return QStringLiteral("tar");
    case Zip: return QStringLiteral("zip");
    }
    return QString();
}

bool Package::formatFromName(const QString &name, Format *format)
{
    for (Format f : {TarZstd, TarGzip, Tar, Zip}) {
        if (formatName(f) == name) {
            *format = f;
            return true;
        }
    }
    return false;
}

} // namespace Vindal
