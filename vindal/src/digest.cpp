#include "digest_p.h"

#include <QtCore/QFile>

#include <openssl/evp.h>

namespace Vindal {

namespace {

const EVP_MD *algorithmOf(Digest::Algorithm algorithm)
{
    return algorithm == Digest::Md5 ? EVP_md5() : EVP_sha256();
}

} // namespace

Digest::Digest(Algorithm algorithm)
    : m_algorithm(algorithm)
    , m_context(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(m_context, algorithmOf(algorithm), nullptr);
}

Digest::~Digest()
{
    EVP_MD_CTX_free(m_context);
}

void Digest::add(const char *data, qint64 size)
{
    EVP_DigestUpdate(m_context, data, size_t(size));
}

void Digest::reset()
{
    EVP_DigestInit_ex(m_context, algorithmOf(m_algorithm), nullptr);
}

QString Digest::hex() const
{
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    unsigned char result[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_MD_CTX_copy_ex(copy, m_context);
    EVP_DigestFinal_ex(copy, result, &length);
    EVP_MD_CTX_free(copy);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(result), int(length)).toHex());
}

QString Digest::sha256OfFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();
    Digest sha256(Sha256);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 n = file.read(buffer.data(), buffer.size());
        if (n < 0)
            return QString();
        if (n == 0)
            return sha256.hex();
        sha256.add(buffer.constData(), n);
    }
}

} // namespace Vindal
