#include "repositoryfiles_p.h"

#include "signature_p.h"

#include <QtCore/QFile>
#include <QtCore/QSaveFile>

namespace Vindal {

Outcome readFile(const QString &path, qint64 limit, QByteArray *bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\": %2").arg(path, file.errorString()), path);
    if (file.size() > limit)
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("\"%1\" is larger than %2 bytes").arg(path).arg(limit), path);
    *bytes = file.readAll();
    return Outcome::success();
}

Outcome writeFile(const QString &path, const QByteArray &bytes, bool ownerOnly)
{
    QSaveFile file(path);
    bool ok = file.open(QIODevice::WriteOnly);
    if (ok && ownerOnly)
        ok = file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    if (!ok || file.write(bytes) != bytes.size() || !file.commit())
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(path, file.errorString()), path);
    return Outcome::success();
}

Outcome readSecretKey(const QString &path, QByteArray *key)
{
    QByteArray text;
    const Outcome read = readFile(path, 1024, &text);
    if (!read)
        return read;
    *key = Signature::decodeSecretKey(text);
    if (key->isEmpty())
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not an Ed25519 secret key").arg(path), path);
    return Outcome::success();
}

} // namespace Vindal
