#include "digest_p.h"

#include <QtCore/QFile>

#include <openssl/evp.h>

#include <limits>

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

bool Digest::addFile(const QString &path, qint64 size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly | QIODevice::Unbuffered) && addDevice(&file, size);
}

bool Digest::addDevice(QIODevice *device, qint64 size)
{
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (qint64 left = size < 0 ? std::numeric_limits<qint64>::max() : size; left > 0;) {
        const qint64 n = device->read(buffer.data(), qMin<qint64>(left, buffer.size()));
        if (n < 0 || (n == 0 && size >= 0))
            return false;
        if (n == 0)
            return true;
        add(buffer.constData(), n);
        left -= n;
    }
    return true;
}

} // namespace Vindal
