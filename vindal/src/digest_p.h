#ifndef VINDAL_DIGEST_P_H
#define VINDAL_DIGEST_P_H

#include <QtCore/QString>

class QIODevice;

struct evp_md_ctx_st;

namespace Vindal {

// An incremental MD5 or SHA-256. OpenSSL's implementations use the
// processor's SHA extensions where there are any: ten times the speed of
// QCryptographicHash's SHA-256, which would otherwise set the pace of a
// download.
class Digest
{
public:
    enum Algorithm { Md5, Sha256 };

    explicit Digest(Algorithm algorithm);
    ~Digest();
    Digest(const Digest &) = delete;
    Digest &operator=(const Digest &) = delete;

    void add(const char *data, qint64 size);
    // Adds the first size bytes of a file (all of it when size < 0); false
    // when it cannot be read or is shorter.
    bool addFile(const QString &path, qint64 size = -1);
    // The same from a device open for reading, from where it stands.
    bool addDevice(QIODevice *device, qint64 size = -1);
    void reset();
    // The digest of what was added so far, lower-case hex; adding may go on.
    QString hex() const;


private:
    Algorithm m_algorithm;
    evp_md_ctx_st *m_context;
};

} // namespace Vindal

#endif // VINDAL_DIGEST_P_H
