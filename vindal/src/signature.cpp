#include "signature_p.h"

#include <sodium.h>

namespace Vindal {

namespace {

bool ready()
{
    // sodium_init() is thread-safe and idempotent; 1 means "already done".
    static const bool ok = sodium_init() >= 0;
    return ok;
}

QByteArray decode(const QByteArray &base64, int length)
{
    const auto result = QByteArray::fromBase64Encoding(base64.trimmed(), QByteArray::AbortOnBase64DecodingErrors);
    if (!result || result.decoded.size() != length)
        return QByteArray();
    return result.decoded;
}

} // namespace

QByteArray Signature::decodePublicKey(const QString &base64)
{
    return decode(base64.toLatin1(), crypto_sign_PUBLICKEYBYTES);
}

QByteArray Signature::decodeSecretKey(const QByteArray &base64)
{
    return decode(base64, crypto_sign_SECRETKEYBYTES);
}

bool Signature::verify(const QByteArray &document, const QByteArray &signatureBase64, const QByteArray &publicKey)
{
    const QByteArray signature = decode(signatureBase64, crypto_sign_BYTES);
    if (!ready() || signature.isEmpty() || publicKey.size() != crypto_sign_PUBLICKEYBYTES)
        return false;
    return crypto_sign_verify_detached(reinterpret_cast<const unsigned char *>(signature.constData()),
                                       reinterpret_cast<const unsigned char *>(document.constData()),
                                       quint64(document.size()),
                                       reinterpret_cast<const unsigned char *>(publicKey.constData())) == 0;
}

QByteArray Signature::sign(const QByteArray &document, const QByteArray &secretKey)
{
    if (!ready() || secretKey.size() != crypto_sign_SECRETKEYBYTES)
        return QByteArray();
    QByteArray signature(crypto_sign_BYTES, Qt::Uninitialized);
    crypto_sign_detached(reinterpret_cast<unsigned char *>(signature.data()), nullptr,
                         reinterpret_cast<const unsigned char *>(document.constData()), quint64(document.size()),
                         reinterpret_cast<const unsigned char *>(secretKey.constData()));
    return signature.toBase64() + '\n';
}

bool Signature::generateKeyPair(QByteArray *publicKey, QByteArray *secretKey)
{
    if (!ready())
        return false;
    publicKey->resize(crypto_sign_PUBLICKEYBYTES);
    secretKey->resize(crypto_sign_SECRETKEYBYTES);
    return crypto_sign_keypair(reinterpret_cast<unsigned char *>(publicKey->data()),
                               reinterpret_cast<unsigned char *>(secretKey->data())) == 0;
}

QByteArray Signature::publicKeyOf(const QByteArray &secretKey)
{
    if (!ready() || secretKey.size() != crypto_sign_SECRETKEYBYTES)
        return QByteArray();
    QByteArray publicKey(crypto_sign_PUBLICKEYBYTES, Qt::Uninitialized);
    crypto_sign_ed25519_sk_to_pk(reinterpret_cast<unsigned char *>(publicKey.data()),
                                 reinterpret_cast<const unsigned char *>(secretKey.constData()));
    return publicKey;
}

} // namespace Vindal
