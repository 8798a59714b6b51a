#include <vindal/package.h>

namespace Vindal {

namespace {
Outcome notYet()
{
    return Outcome::failure(Error::ConfigError, QStringLiteral("not implemented yet"));
}
} // namespace

Outcome Package::create(const QString &, const QString &, Format, const ProgressCallback &)
{
    return notYet();
}

Outcome Package::writeVerifyFile(const QString &)
{
    return notYet();
}

Outcome Package::verify(const QString &)
{
    return notYet();
}

Outcome Package::extract(const QString &, const QString &, const ProgressCallback &, const ExtractLimits &)
{
    return notYet();
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
