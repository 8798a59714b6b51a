#include "keystatement_p.h"

#include "repositorylayout_p.h"
#include "signature_p.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

namespace Vindal {

namespace {

const int FormatVersion = 1;

QJsonArray toArray(const QList<QByteArray> &keys)
{
    QJsonArray array;
    for (const QByteArray &key : keys)
        array.append(QString::fromLatin1(key.toBase64()));
    return array;
}

// A list of distinct base64 public keys, at most MaxKeys of them.
bool keyList(const QJsonValue &value, const QString &name, QList<QByteArray> *keys, QString *error)
{
    if (!value.isArray() || value.toArray().size() > KeyStatement::MaxKeys) {
        *error = QStringLiteral("\"%1\" is not a list of at most %2 keys").arg(name).arg(KeyStatement::MaxKeys);
        return false;
    }
    for (const QJsonValue &item : value.toArray()) {
        const QByteArray key = Signature::decodePublicKey(item.toString());
        if (key.isEmpty() || keys->contains(key)) {
            *error = QStringLiteral("\"%1\" holds %2, which is not a base64 Ed25519 key or is listed twice")
                         .arg(name, item.toString().left(64));
            return false;
        }
        keys->append(key);
    }
    return true;
}

} // namespace

QJsonObject KeyStatement::toJson() const
{
    QJsonObject object{{QStringLiteral("format"), FormatVersion},
                       {QStringLiteral("version"), number},
                       {QStringLiteral("keys"), toArray(keys)},
                       {QStringLiteral("threshold"), threshold},
                       {QStringLiteral("retired"), toArray(retired)}};
    if (expires.isValid())
        object.insert(QStringLiteral("expires"), expires.toUTC().toString(Qt::ISODate));
    return object;
}

bool KeyStatement::parse(const QJsonObject &object, QString *error)
{
    *this = KeyStatement();
    if (object.value(QStringLiteral("format")).toInt(FormatVersion) > FormatVersion) {
        *error = QStringLiteral("format %1 is newer than this client understands").arg(object.value(QStringLiteral("format")).toInt());
        return false;
    }
    number = object.value(QStringLiteral("version")).toInt(-1);
    if (number < 1) {
        *error = QStringLiteral("\"version\" is not a number from 1 up");
        return false;
    }
    if (!keyList(object.value(QStringLiteral("keys")), QStringLiteral("keys"), &keys, error)
        || !keyList(object.value(QStringLiteral("retired")).isUndefined() ? QJsonArray() : object.value(QStringLiteral("retired")),
                    QStringLiteral("retired"), &retired, error))
        return false;
    threshold = object.value(QStringLiteral("threshold")).toInt(1);
    if (keys.isEmpty() || threshold < 1 || threshold > keys.size()) {
        *error = QStringLiteral("names %1 key(s) with a threshold of %2; at least one key and a threshold from 1 to their number are needed")
                     .arg(keys.size()).arg(threshold);
        return false;
    }
    for (const QByteArray &key : keys) {
        if (retired.contains(key)) {
            *error = QStringLiteral("names the retired key %1").arg(QString::fromLatin1(key.toBase64()));
            return false;
        }
    }
    if (object.contains(QStringLiteral("expires"))) {
        expires = QDateTime::fromString(object.value(QStringLiteral("expires")).toString(), Qt::ISODate);
        if (!expires.isValid()) {
            *error = QStringLiteral("\"expires\" is not an ISO 8601 date and time");
            return false;
        }
    }
    return true;
}

int KeyStatement::signers(const QByteArray &document, const QByteArray &signatures) const
{
    const QList<QByteArray> lines = signatures.split('\n').mid(0, MaxKeys + 1);
    int count = 0;
    for (const QByteArray &key : keys) {
        for (const QByteArray &line : lines) {
            if (!line.trimmed().isEmpty() && Signature::verify(document, line, key)) {
                ++count;
                break;
            }
        }
    }
    return count;
}

bool KeyStatement::signs(const QByteArray &document, const QByteArray &signature) const
{
    for (const QByteArray &key : keys) {
        if (Signature::verify(document, signature, key))
            return true;
    }
    return false;
}

Outcome KeyStatement::follow(int next, const QByteArray &document, const QByteArray &signatures, KeyStatement *trusted) const
{
    *trusted = *this;
    const int signedBy = signers(document, signatures);
    if (signedBy < threshold) {
        const QString why = QStringLiteral("%1 is signed by %2 of the keys trusted so far, %3 needed").arg(describe(next)).arg(signedBy).arg(threshold);
        // Before its first statement a client knows only its own key: the
        // statements before that key took part are not its to judge.
        if (number == 0)
            return Outcome::success(why + QStringLiteral("; skipped"));
        return Outcome::failure(Error::SignatureInvalid, why);
    }
    KeyStatement candidate;
    QString error;
    const QJsonDocument json = QJsonDocument::fromJson(document);
    if (!json.isObject() || !candidate.parse(json.object(), &error))
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 is not a valid key statement: %2").arg(describe(next), error));
    // A statement moved to another number (a replay) is refused.
    if (candidate.number != next)
        return Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 holds statement %2").arg(describe(next)).arg(candidate.number));
    for (const QByteArray &key : retired) {
        if (!candidate.retired.contains(key))
            return Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 takes back the retirement of the key %2")
                                                             .arg(describe(next), QString::fromLatin1(key.toBase64())));
    }
    *trusted = candidate;
    return Outcome::success();
}

QString KeyStatement::describe(int number)
{
    return QStringLiteral("key statement %1 (%2)").arg(number).arg(RepositoryLayout::keyStatement(number));
}

} // namespace Vindal
