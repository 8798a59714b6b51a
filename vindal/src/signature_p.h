#ifndef VINDAL_SIGNATURE_P_H
#define VINDAL_SIGNATURE_P_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Vindal {

// Detached Ed25519 signatures over a document's exact bytes. Keys and
// signatures travel as base64 text.
class Signature
{
public:
    // A base64 public key of the right length, decoded; empty otherwise.
    static QByteArray decodePublicKey(const QString &base64);
    static QByteArray decodeSecretKey(const QByteArray &base64);

    static bool verify(const QByteArray &document, const QByteArray &signatureBase64, const QByteArray &publicKey);
    // The base64 signature followed by a line break; empty on failure.
    static QByteArray sign(const QByteArray &document, const QByteArray &secretKey);
    static bool generateKeyPair(QByteArray *publicKey, QByteArray *secretKey);
    // The public half of a secret key.
    static QByteArray publicKeyOf(const QByteArray &secretKey);
};

} // namespace Vindal

#endif // VINDAL_SIGNATURE_P_H
