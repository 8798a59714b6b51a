#include "repositorykeys_p.h"

#include "repositoryfiles_p.h"
#include "repositorylayout_p.h"
#include "signature_p.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QRegularExpression>

namespace Vindal {

namespace {

const int MaxExpiryDays = 3650;

Outcome refused(const QString &message, const QString &subject = QString())
{
    return Outcome::failure(Error::ConfigError, message, subject);
}

QString base64(const QByteArray &key)
{
    return QString::fromLatin1(key.toBase64());
}

} // namespace

Outcome RepositoryKeys::read(const QString &repoFolder, RepositoryKeys *keys)
{
    *keys = RepositoryKeys();
    keys->m_folder = repoFolder;
    QStringList modules = QDir(keys->path(QStringLiteral("modules"))).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (QString &module : modules)
        module = RepositoryLayout::index(PackageIndex::Module, module);
    for (const QString &index : modules << RepositoryLayout::index(PackageIndex::Upgrades, QString())) {
        if (QFileInfo::exists(keys->path(index)))
            keys->m_indexes.append(index);
        if (QFileInfo::exists(keys->path(index + QLatin1String(".sig"))))
            keys->m_signed.append(index);
    }

    // Statements are numbered without gaps; the newest says who signs now.
    static const QRegularExpression numbered(QStringLiteral("^([1-9][0-9]{0,8})\\.json$"));
    int newest = 0;
    for (const QString &name : QDir(keys->path(QStringLiteral("keys"))).entryList(QDir::Files))
        newest = qMax(newest, numbered.match(name).captured(1).toInt());
    for (int number = 1; number <= newest; ++number) {
        const QString file = keys->path(RepositoryLayout::keyStatement(number));
        if (!QFileInfo::exists(file))
            return Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 is missing, so the key statements after it cannot be followed")
                                                             .arg(KeyStatement::describe(number)), file);
    }
    if (newest == 0)
        return Outcome::success();
    QByteArray document;
    const QString file = keys->path(RepositoryLayout::keyStatement(newest));
    const Outcome read = readFile(file, RepositoryLayout::MaxStatementBytes, &document);
    if (!read)
        return read;
    QString error;
    if (!keys->m_statement.parse(QJsonDocument::fromJson(document).object(), &error) || keys->m_statement.number != newest)
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 is not a valid key statement: %2")
                                                         .arg(KeyStatement::describe(newest), error.isEmpty() ? QStringLiteral("another number") : error),
                                file);
    return Outcome::success();
}

QString RepositoryKeys::path(const QString &relative) const
{
    return QDir(m_folder).filePath(relative);
}

Outcome RepositoryKeys::admits(const QByteArray &secretKey, const QString &keyFile) const
{
    if (secretKey.isEmpty()) {
        if (m_statement.number == 0 && m_signed.isEmpty())
            return Outcome::success();
        return refused(QStringLiteral("\"%1\" is a signed repository: without its key the index would lose its signature and every "
                                      "client configured with a key would refuse it; give the key")
                           .arg(QDir::toNativeSeparators(m_folder)),
                       m_folder);
    }
    const QByteArray publicKey = Signature::publicKeyOf(secretKey);
    if (m_statement.number > 0) {
        if (m_statement.keys.contains(publicKey))
            return Outcome::success();
        return refused(QStringLiteral("the key \"%1\" is not named by the repository's %2; sign with one of its keys, or name this one "
                                      "with rotate-key first")
                           .arg(keyFile, KeyStatement::describe(m_statement.number)),
                       keyFile);
    }
    for (const QString &index : m_signed) {
        QByteArray document;
        QByteArray signature;
        if (!readFile(path(index), RepositoryLayout::MaxIndexBytes, &document)
            || !readFile(path(index + QLatin1String(".sig")), RepositoryLayout::MaxSignatureBytes, &signature)
            || !Signature::verify(document, signature, publicKey))
            return refused(QStringLiteral("the key \"%1\" is not the one that signed %2, which the repository's clients trust; sign with "
                                          "that key, or move to this one with rotate-key first")
                               .arg(keyFile, index),
                           keyFile);
    }
    return Outcome::success();
}

Outcome RepositoryKeys::follow(KeyStatement *trusted) const
{
    for (int number = trusted->number + 1; number <= m_statement.number; ++number) {
        QByteArray document;
        QByteArray signatures;
        Outcome outcome = readFile(path(RepositoryLayout::keyStatement(number)), RepositoryLayout::MaxStatementBytes, &document);
        if (outcome)
            readFile(path(RepositoryLayout::keyStatementSignatures(number)), RepositoryLayout::MaxStatementSignaturesBytes, &signatures);
        KeyStatement next;
        if (outcome)
            outcome = trusted->follow(number, document, signatures, &next);
        if (!outcome)
            return outcome;
        *trusted = next;
    }
    if (trusted->isExpired())
        return Outcome::failure(Error::IndexExpired, QStringLiteral("%1 expired on %2; rotate (or renew) the keys")
                                                         .arg(KeyStatement::describe(trusted->number), trusted->expires.toUTC().toString(Qt::ISODate)));
    return Outcome::success();
}

Outcome RepositoryKeys::currentKeys(const QList<QByteArray> &secrets, const QStringList &files, KeyStatement *current) const
{
    *current = m_statement;
    QList<QByteArray> signers;
    for (int i = 0; i < secrets.size(); ++i) {
        const Outcome admitted = admits(secrets.at(i), files.at(i));
        if (!admitted)
            return admitted;
        if (!signers.contains(Signature::publicKeyOf(secrets.at(i))))
            signers.append(Signature::publicKeyOf(secrets.at(i)));
    }
    if (m_statement.number == 0) // the clients' configured key: the one that made the signatures
        current->keys = signers;
    if (signers.size() < current->threshold)
        return refused(QStringLiteral("%1 needs %2 of its keys to sign the next statement, %3 given")
                           .arg(KeyStatement::describe(m_statement.number))
                           .arg(current->threshold)
                           .arg(signers.size()));
    return Outcome::success();
}

Outcome RepositoryKeys::nextStatement(const KeyStatement &current, const QList<QByteArray> &secrets,
                                      const Repository::KeyRotation &rotation, KeyStatement *accepted, QByteArray *document,
                                      QByteArray *signatures) const
{
    KeyStatement next = current;
    next.number = current.number + 1;
    const QStringList changes = rotation.retire + rotation.add;
    for (int i = 0; i < changes.size(); ++i) {
        const QString &text = changes.at(i);
        const QByteArray key = Signature::decodePublicKey(text);
        if (key.isEmpty())
            return refused(QStringLiteral("\"%1\" is not a base64 Ed25519 public key").arg(text), text);
        const bool retire = i < rotation.retire.size();
        if (!retire && next.retired.contains(key))
            return refused(QStringLiteral("the key %1 is retired; a retired key is never named again").arg(text), text);
        next.keys.removeAll(key);
        if (retire && !next.retired.contains(key))
            next.retired.append(key);
        if (!retire)
            next.keys.append(key);
    }
    if (next.keys.isEmpty())
        return refused(QStringLiteral("the rotation retires every key; name the new key in the same rotation"));
    next.threshold = rotation.threshold > 0 ? rotation.threshold : qMin(current.threshold, next.keys.size());
    next.expires = rotation.expiresInDays > 0 ? QDateTime::currentDateTimeUtc().addDays(rotation.expiresInDays) : QDateTime();
    *document = QJsonDocument(next.toJson()).toJson();
    signatures->clear();
    for (const QByteArray &secret : secrets)
        signatures->append(Signature::sign(*document, secret));
    // What every client will check, checked before anything is written.
    const Outcome followed = current.follow(next.number, *document, *signatures, accepted);
    if (!followed || accepted->number != next.number)
        return refused(followed.message);
    return Outcome::success();
}

Outcome RepositoryKeys::rotate(const Repository::KeyRotation &rotation) const
{
    if (rotation.expiresInDays < 0 || rotation.expiresInDays > MaxExpiryDays)
        return refused(QStringLiteral("the expiry must be 1 to %1 days, not %2").arg(MaxExpiryDays).arg(rotation.expiresInDays));
    if (rotation.signingKeyFiles.isEmpty())
        return refused(QStringLiteral("a rotation is signed with the current key; give its secret key file"));
    QList<QByteArray> secrets;
    for (const QString &file : rotation.signingKeyFiles) {
        QByteArray secret;
        const Outcome read = readSecretKey(file, &secret);
        if (!read)
            return read;
        secrets.append(secret);
    }
    KeyStatement current;
    KeyStatement next;
    Outcome outcome = currentKeys(secrets, rotation.signingKeyFiles, &current);
    QByteArray document;
    QByteArray signatures;
    if (outcome)
        outcome = nextStatement(current, secrets, rotation, &next, &document, &signatures);
    QByteArray indexKey;
    if (outcome && !rotation.signIndexesWith.isEmpty())
        outcome = readSecretKey(rotation.signIndexesWith, &indexKey);
    if (!outcome)
        return outcome;

    // No index may stay signed only with a key its clients stop accepting.
    if (!indexKey.isEmpty() && !next.keys.contains(Signature::publicKeyOf(indexKey)))
        return refused(QStringLiteral("\"%1\" is not one of the keys the new statement names").arg(rotation.signIndexesWith),
                       rotation.signIndexesWith);
    QList<QByteArray> indexes;
    for (const QString &index : m_indexes) {
        QByteArray bytes;
        QByteArray signature;
        outcome = readFile(path(index), RepositoryLayout::MaxIndexBytes, &bytes);
        if (!outcome)
            return outcome;
        indexes.append(bytes);
        if (indexKey.isEmpty() && m_signed.contains(index)
            && (!readFile(path(index + QLatin1String(".sig")), RepositoryLayout::MaxSignatureBytes, &signature) || !next.signs(bytes, signature)))
            return refused(QStringLiteral("%1 is signed with a key the new statement does not name, so clients would refuse it; sign the "
                                          "indexes with a new key in the same rotation")
                               .arg(index),
                           index);
    }

    // The signatures first: a client that finds the statement finds them too.
    const QString file = path(RepositoryLayout::keyStatement(next.number));
    if (!QDir().mkpath(QFileInfo(file).absolutePath()))
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot create \"%1\"").arg(QFileInfo(file).absolutePath()));
    outcome = writeFile(path(RepositoryLayout::keyStatementSignatures(next.number)), signatures);
    if (outcome)
        outcome = writeFile(file, document);
    for (int i = 0; outcome && !indexKey.isEmpty() && i < m_indexes.size(); ++i)
        outcome = writeFile(path(m_indexes.at(i) + QLatin1String(".sig")), Signature::sign(indexes.at(i), indexKey));
    if (!outcome)
        return outcome;
    QStringList named;
    for (const QByteArray &key : next.keys)
        named.append(base64(key));
    return Outcome::success(QStringLiteral("wrote %1: keys %2 (%3 to sign the next), %4 retired%5")
                                .arg(KeyStatement::describe(next.number), named.join(QLatin1String(", ")))
                                .arg(next.threshold)
                                .arg(next.retired.size())
                                .arg(indexKey.isEmpty() ? QString() : QStringLiteral(", %1 index(es) signed again").arg(m_indexes.size())));
}

Outcome Repository::rotateKey(const QString &repoFolder, const KeyRotation &rotation)
{
    RepositoryKeys keys;
    const Outcome read = RepositoryKeys::read(repoFolder, &keys);
    return read ? keys.rotate(rotation) : read;
}

} // namespace Vindal
