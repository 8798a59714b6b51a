#include <vindal/filedigest.h>
#include <vindal/repository.h>

#include "indexwriter_p.h"
#include "packageindex_p.h"
#include "repositoryfiles_p.h"
#include "repositorykeys_p.h"
#include "releasechannels_p.h"
#include "repositorylayout_p.h"
#include "signature_p.h"

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QSaveFile>

namespace Vindal {

namespace {

// Ten years: an expiry is meant to be renewed by publishing again.
const int MaxExpiryDays = 3650;

// Copies through a temporary file in the destination folder, so a server
// never hands out half a package under its final name.
Outcome copyFile(const QString &from, const QString &to)
{
    if (QFileInfo(from).canonicalFilePath() == QFileInfo(to).canonicalFilePath())
        return Outcome::success();
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly))
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\": %2").arg(from, in.errorString()), from);
    QSaveFile out(to);
    if (!out.open(QIODevice::WriteOnly))
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(to, out.errorString()), to);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 n = in.read(buffer.data(), buffer.size());
        if (n < 0)
            return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\": %2").arg(from, in.errorString()), from);
        if (n == 0)
            break;
        if (out.write(buffer.constData(), n) != n)
            return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(to, out.errorString()), to);
    }
    if (!out.commit())
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(to, out.errorString()), to);
    return Outcome::success();
}

// release: the channel the version goes to; none leaves the entry without
// channels, which clients read as "stable" for everyone.
Outcome publishEntry(PackageIndex::Kind kind, const QString &packageFile, const QString &repoFolder, const QString &name,
                     const QString &version, const QString &secretKeyFile, int expiresInDays, const Rollout *release = nullptr)
{
    if (kind == PackageIndex::Module ? !Repository::isValidModuleName(name) : name.trimmed().isEmpty())
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid name").arg(name), name);
    if (!PackageIndex::isValidVersion(version))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid version").arg(version), version);
    const QString fileName = QFileInfo(packageFile).fileName();
    if (RepositoryLayout::isReservedFileName(fileName)) {
        return Outcome::failure(Error::ConfigError,
                                QStringLiteral("the package's file name \"%1\" is taken by the repository layout "
                                               "(index.json, index.json.sig, *.part, *.part.json, *.verify); rename the package")
                                    .arg(fileName),
                                packageFile);
    }
    if (!PackageIndex::isPlainFileName(fileName)) {
        return Outcome::failure(Error::ConfigError,
                                QStringLiteral("the package's file name \"%1\" must consist of letters, digits, \".\", \"_\", \"+\" and \"-\", "
                                               "not end in \".\" and not be a Windows device name")
                                    .arg(fileName),
                                packageFile);
    }
    QByteArray secretKey;
    const Outcome key = IndexWriter::readKey(repoFolder, secretKeyFile, &secretKey);
    if (!key)
        return key;
    const FileDigest digest = FileDigest::ofFile(packageFile);
    if (!digest.isValid())
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\"").arg(packageFile), packageFile);

    IndexEntry entry;
    entry.version = version;
    entry.modelCode = kind == PackageIndex::Upgrades ? name : QString();
    entry.file = fileName;
    entry.size = digest.size;
    entry.md5 = digest.md5;
    entry.sha256 = digest.sha256;
    if (release)
        ReleaseChannels::write(&entry, *release, true);
    const QString folder = QDir(repoFolder).filePath(RepositoryLayout::folder(kind, kind == PackageIndex::Module ? name : QString()));
    QString how;
    const Outcome updated = IndexWriter::update(kind, repoFolder, name, secretKey, expiresInDays, [&](PackageIndex &index) {
        for (const IndexEntry &other : index.entries()) {
            const bool same = PackageIndex::compareVersions(other.version, version) == 0 && other.modelCode == entry.modelCode;
            if (!same && other.file == fileName && other.sha256 != digest.sha256) {
                return Outcome::failure(Error::ConfigError,
                                        QStringLiteral("\"%1\" already holds version %2; give this package another file name")
                                            .arg(fileName, other.version),
                                        fileName);
            }
        }
        const Outcome copied = copyFile(packageFile, QDir(folder).filePath(fileName));
        if (copied)
            index.upsert(entry);
        return copied;
    }, &how);
    if (!updated)
        return updated;
    return Outcome::success(QStringLiteral("published %1 %2 (%3)").arg(name, version, how));
}

// Clients trust the keys the repository's key statement names, or without
// one the key that signed it so far: an index signed with another key, or
// left unsigned, would lock them out.
Outcome admitsKey(const QString &repoFolder, const QByteArray &secretKey, const QString &secretKeyFile)
{
    RepositoryKeys keys;
    const Outcome read = RepositoryKeys::read(repoFolder, &keys);
    return read ? keys.admits(secretKey, secretKeyFile) : read;
}

} // namespace

Outcome IndexWriter::readKey(const QString &repoFolder, const QString &secretKeyFile, QByteArray *secretKey)
{
    // A key named but empty is a mistake, never a request to publish unsigned.
    if (!secretKeyFile.isNull() && secretKeyFile.trimmed().isEmpty())
        return Outcome::failure(Error::ConfigError, QStringLiteral("the secret key file's name is empty"));
    if (!secretKeyFile.isEmpty()) {
        const Outcome read = readSecretKey(secretKeyFile, secretKey);
        if (!read)
            return read;
    }
    return admitsKey(repoFolder, *secretKey, secretKeyFile);
}

Outcome IndexWriter::update(PackageIndex::Kind kind, const QString &repoFolder, const QString &name, const QByteArray &secretKey,
                            int expiresInDays, const std::function<Outcome(PackageIndex &)> &change, QString *how)
{
    if (expiresInDays != KeepExpiry && (expiresInDays < 0 || expiresInDays > MaxExpiryDays))
        return Outcome::failure(Error::ConfigError, QStringLiteral("the expiry must be 1 to %1 days, not %2").arg(MaxExpiryDays).arg(expiresInDays));
    const QDir repo(repoFolder);
    const QString module = kind == PackageIndex::Module ? name : QString();
    const QString folder = repo.filePath(RepositoryLayout::folder(kind, module));
    const QString indexPath = repo.filePath(RepositoryLayout::index(kind, module));
    if (!QDir().mkpath(folder))
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot create \"%1\"").arg(folder), folder);

    PackageIndex index(kind);
    const Outcome loaded = loadIndex(indexPath, &index);
    if (!loaded)
        return loaded;
    const Outcome changed = change(index);
    if (!changed)
        return changed;
    if (kind == PackageIndex::Module)
        index.setModule(name);
    // Each publication states its own expiry; none when it gives none.
    if (expiresInDays != KeepExpiry)
        index.setExpires(expiresInDays > 0 ? QDateTime::currentDateTimeUtc().addDays(expiresInDays) : QDateTime());
    const QByteArray json = index.toJson();
    const Outcome written = writeFile(indexPath, json);
    if (!written)
        return written;
    const QString signaturePath = repo.filePath(RepositoryLayout::signature(kind, module));
    *how = secretKey.isEmpty() ? QStringLiteral("unsigned") : QStringLiteral("signed");
    if (secretKey.isEmpty()) {
        // An old signature would no longer match and make signed clients
        // refuse the repository.
        QFile::remove(signaturePath);
        return Outcome::success();
    }
    return writeFile(signaturePath, Signature::sign(json, secretKey));
}

Outcome loadIndex(const QString &path, PackageIndex *index)
{
    if (!QFileInfo::exists(path))
        return Outcome::success();
    QByteArray bytes;
    const Outcome read = readFile(path, RepositoryLayout::MaxIndexBytes, &bytes);
    if (!read)
        return read;
    QString error;
    if (!index->parse(bytes, &error))
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("\"%1\" is not a valid index: %2").arg(path, error), path);
    return Outcome::success();
}

Outcome Repository::publish(const QString &packageFile, const QString &repoFolder, const QString &module,
                            const QString &version, const QString &secretKeyFile, int expiresInDays)
{
    return publishEntry(PackageIndex::Module, packageFile, repoFolder, module, version, secretKeyFile, expiresInDays);
}

Outcome Repository::publish(const QString &packageFile, const QString &repoFolder, const QString &module,
                            const QString &version, const Rollout &release, const QString &secretKeyFile, int expiresInDays)
{
    if (!Rollout::isValidChannel(release.channel) || !Rollout::isValidPercent(release.percent))
        return Outcome::failure(Error::ConfigError, QStringLiteral("the channel must be a channel name and the rollout 0 to 100 percent"));
    return publishEntry(PackageIndex::Module, packageFile, repoFolder, module, version, secretKeyFile, expiresInDays, &release);
}

Outcome Repository::publishUpgrade(const QString &packageFile, const QString &repoFolder, const QString &modelCode,
                                   const QString &softVersion, const QString &secretKeyFile, int expiresInDays)
{
    return publishEntry(PackageIndex::Upgrades, packageFile, repoFolder, modelCode, softVersion, secretKeyFile, expiresInDays);
}

Outcome Repository::verifyPackage(const QString &packageFile, const QString &repoFolder, const QString &module,
                                  const QString &version, const QString &publicKey)
{
    if (!isValidModuleName(module))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid module name").arg(module), module);
    const QDir repo(repoFolder);
    const QString indexPath = repo.filePath(RepositoryLayout::index(PackageIndex::Module, module));
    QByteArray bytes;
    const Outcome read = readFile(indexPath, RepositoryLayout::MaxIndexBytes, &bytes);
    if (!read)
        return read;
    if (!publicKey.isNull()) {
        // Given but empty is refused: an empty key must not turn the check off.
        const QByteArray key = Signature::decodePublicKey(publicKey);
        if (key.isEmpty())
            return Outcome::failure(Error::ConfigError,
                                    publicKey.trimmed().isEmpty() ? QStringLiteral("the public key is empty")
                                                                  : QStringLiteral("the public key is not a base64 Ed25519 key"));
        // The key vouches for the keys of the repository's key statements.
        KeyStatement trusted(key);
        RepositoryKeys keys;
        Outcome followed = RepositoryKeys::read(repoFolder, &keys);
        if (!followed || !(followed = keys.follow(&trusted)))
            return followed;
        QByteArray signature;
        const QString signaturePath = repo.filePath(RepositoryLayout::signature(PackageIndex::Module, module));
        if (!readFile(signaturePath, RepositoryLayout::MaxSignatureBytes, &signature) || !trusted.signs(bytes, signature))
            return Outcome::failure(Error::SignatureInvalid, QStringLiteral("the index of %1 is unsigned or wrongly signed").arg(module),
                                    indexPath);
    }
    PackageIndex index;
    QString error;
    if (!index.parse(bytes, &error))
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("\"%1\" is not a valid index: %2").arg(indexPath, error), indexPath);
    if (index.isExpired())
        return Outcome::failure(Error::IndexExpired,
                                QStringLiteral("\"%1\" expired on %2; publish again").arg(indexPath, index.expires().toUTC().toString(Qt::ISODate)),
                                indexPath);
    const IndexEntry *entry = version.isEmpty() ? index.newest() : index.find(version);
    if (!entry)
        return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no version %2").arg(module, version.isEmpty() ? QStringLiteral("at all") : version));
    const FileDigest digest = FileDigest::ofFile(packageFile);
    if (!digest.isValid())
        return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\"").arg(packageFile), packageFile);
    if (digest.size != entry->size || digest.md5 != entry->md5 || digest.sha256 != entry->sha256) {
        return Outcome::failure(Error::ChecksumMismatch,
                                QStringLiteral("\"%1\" (%2 bytes, SHA-256 %3) is not %4 %5 (%6 bytes, SHA-256 %7)")
                                    .arg(packageFile).arg(digest.size).arg(digest.sha256, module, entry->version)
                                    .arg(entry->size).arg(entry->sha256),
                                packageFile);
    }
    return Outcome::success(QStringLiteral("%1 is %2 %3").arg(packageFile, module, entry->version));
}

Outcome Repository::keygen(const QString &name)
{
    const QString secretPath = name + QLatin1String(".key");
    const QString publicPath = name + QLatin1String(".pub");
    for (const QString &path : {secretPath, publicPath}) {
        if (QFileInfo::exists(path))
            return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" exists; keys are never overwritten").arg(path), path);
    }
    QByteArray publicKey;
    QByteArray secretKey;
    if (!Signature::generateKeyPair(&publicKey, &secretKey))
        return Outcome::failure(Error::ConfigError, QStringLiteral("no key pair could be generated"));
    const Outcome secret = writeFile(secretPath, secretKey.toBase64() + '\n', true);
    if (!secret)
        return secret;
    const Outcome pub = writeFile(publicPath, publicKey.toBase64() + '\n');
    if (!pub)
        return pub;
    return Outcome{Error::NoError, QStringLiteral("wrote %1 and %2").arg(secretPath, publicPath), QString::fromLatin1(publicKey.toBase64())};
}

bool Repository::isValidModuleName(const QString &name)
{
    // A folder of the repository: a plain file name, of fewer characters.
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9_][A-Za-z0-9._-]{0,127}")));
    return plain.match(name).hasMatch() && PackageIndex::isPlainFileName(name);
}

} // namespace Vindal
