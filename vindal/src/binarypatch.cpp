#include "binarypatch_p.h"

#include "digest_p.h"
#include "streamhasher_p.h"
#include "suffixdiff_p.h"

#include <QtCore/QFile>
#include <QtCore/QIODevice>
#include <QtCore/QtEndian>

#include <zstd.h>

#include <array>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

namespace Vindal {

namespace {

// A patch starts with a fixed header: the magic, the codec that made the
// rest, the sizes of the old and the new file, and the new file's SHA-256,
// which applying checks (so a patch applied to another file than the one it
// was made from is refused rather than producing something else).
constexpr char Magic[4] = {'V', 'D', 'B', 'P'};
constexpr int HeaderSize = 4 + 4 + 8 + 8 + 32;

struct Header
{
    BinaryPatch::Codec codec = BinaryPatch::Suffix;
    quint64 oldSize = 0;
    quint64 newSize = 0;
    QByteArray sha256;

    QByteArray encode() const
    {
        QByteArray out(HeaderSize, '\0');
        char *p = out.data();
        memcpy(p, Magic, 4);
        p[4] = char(codec);
        qToLittleEndian<quint64>(oldSize, p + 8);
        qToLittleEndian<quint64>(newSize, p + 16);
        memcpy(p + 24, sha256.constData(), 32);
        return out;
    }
    // False for a header no patch of ours has, or one announcing sizes
    // making would have refused.
    bool decode(const QByteArray &in)
    {
        const char *p = in.constData();
        if (memcmp(p, Magic, 4) != 0 || p[5] || p[6] || p[7])
            return false;
        codec = BinaryPatch::Codec(quint8(p[4]));
        oldSize = qFromLittleEndian<quint64>(p + 8);
        newSize = qFromLittleEndian<quint64>(p + 16);
        sha256 = in.mid(24, 32);
        const quint64 limit = quint64(BinaryPatch::maxDiffSize());
        if (oldSize > limit || newSize > limit) // (and their sum cannot wrap)
            return false;
        return codec == BinaryPatch::Suffix
            || (codec == BinaryPatch::ZstdPrefix && oldSize + newSize <= quint64(BinaryPatch::maxZstdSize()));
    }
};

// Making holds both files, the suffix array and the streams: about eight
// times the larger file at the peak. Applying holds neither.
constexpr qint64 DiffLimit = 64 << 20;
// The zstd codec holds the old file whole while it applies (the new file's
// matches reach back into it), and its window covers the old and the new:
// both together stay under this.
constexpr qint64 ZstdPrefixLimit = 40 << 20;
constexpr int ZstdLevel = 19;
// What applying holds of a large new file, waiting to be written and hashed.
constexpr qint64 HashThreadFrom = 16 << 20;
constexpr int OutputBatch = 1 << 20;
constexpr qint64 HashQueue = 4 << 20;

QByteArray sha256Of(const QByteArray &data)
{
    Digest digest(Digest::Sha256);
    digest.add(data.constData(), data.size());
    return QByteArray::fromHex(digest.hex().toLatin1());
}

// The smallest window that reaches from the end of the new file back to the
// start of the old one.
int windowLogFor(quint64 oldSize, quint64 newSize)
{
    int log = 10;
    while ((quint64(1) << log) < oldSize + newSize)
        ++log;
    return log;
}

bool readWhole(const QString &path, QByteArray *data, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    if (file.size() > BinaryPatch::maxDiffSize()) {
        *error = QStringLiteral("%1: %2 bytes, too large to diff (at most %3)")
                     .arg(path).arg(file.size()).arg(BinaryPatch::maxDiffSize());
        return false;
    }
    *data = file.read(file.size());
    if (data->size() != file.size() || !file.atEnd()) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

struct ZstdFree
{
    void operator()(ZSTD_CCtx *c) const { ZSTD_freeCCtx(c); }
    void operator()(ZSTD_DCtx *d) const { ZSTD_freeDCtx(d); }
};

bool makeZstdPrefix(const QByteArray &oldData, const QByteArray &newData, QByteArray *out, QString *error)
{
    std::unique_ptr<ZSTD_CCtx, ZstdFree> cctx(ZSTD_createCCtx());
    ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_compressionLevel, ZstdLevel);
    ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_windowLog, windowLogFor(oldData.size(), newData.size()));
    ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_enableLongDistanceMatching, 1);
    ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_contentSizeFlag, 1);
    ZSTD_CCtx_refPrefix(cctx.get(), oldData.constData(), size_t(oldData.size()));
    out->resize(int(ZSTD_compressBound(size_t(newData.size()))));
    const size_t n = ZSTD_compress2(cctx.get(), out->data(), size_t(out->size()), newData.constData(), size_t(newData.size()));
    if (ZSTD_isError(n)) {
        *error = QStringLiteral("cannot compress the patch: %1").arg(QLatin1String(ZSTD_getErrorName(n)));
        return false;
    }
    out->truncate(int(n));
    return true;
}

// Decompresses the one zstd frame that follows the header, against oldData,
// handing the bytes to write; false when the frame is damaged or does not
// announce the new file's size.
bool applyZstdPrefix(const QByteArray &oldData, const Header &header, QIODevice *patch,
                     const std::function<bool(const char *, qint64)> &write)
{
    std::unique_ptr<ZSTD_DCtx, ZstdFree> dctx(ZSTD_createDCtx());
    ZSTD_DCtx_setParameter(dctx.get(), ZSTD_d_windowLogMax, windowLogFor(header.oldSize, header.newSize));
    ZSTD_DCtx_refPrefix(dctx.get(), oldData.constData(), size_t(oldData.size()));
    QByteArray in(int(ZSTD_DStreamInSize()), Qt::Uninitialized);
    QByteArray buffer(int(ZSTD_DStreamOutSize()), Qt::Uninitialized);
    bool first = true;
    size_t pending = 1;
    while (pending != 0) {
        const qint64 n = BinaryPatch::readFull(patch, in.data(), in.size());
        if (n <= 0)
            return false;
        // A frame that does not announce the new file's size could make the
        // decoder size its buffers after a window of any size.
        if (first && ZSTD_getFrameContentSize(in.constData(), size_t(n)) != header.newSize)
            return false;
        first = false;
        ZSTD_inBuffer input{in.constData(), size_t(n), 0};
        ZSTD_outBuffer output{buffer.data(), size_t(buffer.size()), 0};
        // A full output buffer may leave more to flush without more input.
        while (pending != 0 && (input.pos < input.size || output.pos == output.size)) {
            output.pos = 0;
            pending = ZSTD_decompressStream(dctx.get(), &output, &input);
            if (ZSTD_isError(pending) || !write(buffer.constData(), qint64(output.pos)))
                return false;
        }
        if (input.pos < input.size)
            return false; // bytes after the frame
    }
    return true;
}

// Where a patched file goes: to the caller's device, hashed on the way,
// never beyond the size the patch announced. A large file is hashed on a
// thread of its own, beside the patching (it would otherwise take as long
// as all the rest), in batches whose buffers are used again once hashed:
// fresh ones would cost a page fault every 4 KiB, more than hashing a small
// file right away.
class HashedOutput
{
public:
    HashedOutput(QIODevice *out, quint64 size)
        : m_out(out)
        , m_size(size)
    {
        if (size >= quint64(HashThreadFrom)) {
            m_hasher = std::make_unique<StreamHasher>(HashQueue, [this] {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_room = true;
                m_roomAgain.notify_all();
            });
            m_batch.reserve(OutputBatch);
        }
    }

    bool write(const char *data, qint64 size)
    {
        if ((m_written += quint64(size)) > m_size)
            return false;
        if (!m_hasher) {
            m_digest.add(data, size);
            return put(data, size);
        }
        m_batch.append(data, int(size));
        return m_batch.size() < OutputBatch || flush();
    }
    // The SHA-256 of all that was written, once it is all there.
    bool finish(QString *sha256)
    {
        if (m_written != m_size || (m_hasher && !flush()))
            return false;
        if (!m_hasher) {
            *sha256 = m_digest.hex();
            return true;
        }
        std::promise<QString> hashed;
        m_hasher->whenHashed([&](const QString &hex) { hashed.set_value(hex); });
        *sha256 = hashed.get_future().get();
        return true;
    }
    QString error() const { return m_error; }

private:
    bool put(const char *data, qint64 size)
    {
        if (m_out->write(data, size) == size)
            return true;
        m_error = QStringLiteral("cannot write the patched file: %1").arg(m_out->errorString());
        return false;
    }
    bool flush()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_room = false;
        }
        if (!m_hasher->add(m_batch)) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_roomAgain.wait(lock, [this] { return m_room; });
        }
        const bool wrote = put(m_batch.constData(), m_batch.size());
        m_batch.swap(m_used[m_reuse]);
        m_reuse = (m_reuse + 1) % m_used.size();
        if (!m_batch.isDetached())
            m_batch = QByteArray();
        m_batch.reserve(OutputBatch); // (which also keeps the buffer when emptied)
        m_batch.resize(0);
        return wrote;
    }

    QIODevice *const m_out;
    const quint64 m_size;
    quint64 m_written = 0;
    QString m_error;
    Digest m_digest{Digest::Sha256};
    std::mutex m_mutex;
    std::condition_variable m_roomAgain;
    bool m_room = true;
    QByteArray m_batch;
    std::array<QByteArray, HashQueue / OutputBatch + 2> m_used;
    size_t m_reuse = 0;
    std::unique_ptr<StreamHasher> m_hasher; // last: its thread stops before the rest goes
};

} // namespace

qint64 BinaryPatch::maxDiffSize()
{
    return DiffLimit;
}

qint64 BinaryPatch::maxZstdSize()
{
    return ZstdPrefixLimit;
}

qint64 BinaryPatch::readFull(QIODevice *device, char *data, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const qint64 n = device->read(data + done, size - done);
        if (n < 0)
            return -1;
        if (n == 0 && !device->waitForReadyRead(30000))
            break;
        done += n;
    }
    return done;
}

bool BinaryPatch::make(const QString &oldFile, const QString &newFile, QIODevice *patch, QString *error, Codec codec)
{
    QByteArray oldData, newData;
    if (!readWhole(oldFile, &oldData, error) || !readWhole(newFile, &newData, error))
        return false;
    Header header;
    header.oldSize = quint64(oldData.size());
    header.newSize = quint64(newData.size());
    header.sha256 = sha256Of(newData);
    const bool zstdFits = oldData.size() + newData.size() <= maxZstdSize();
    if (codec == ZstdPrefix && !zstdFits) {
        *error = QStringLiteral("%1, %2: too large to diff with zstd").arg(oldFile, newFile);
        return false;
    }
    QByteArray body, other;
    if (codec != ZstdPrefix && !SuffixDiff::make(oldData, newData, &body, error))
        return false;
    if (codec != Suffix && zstdFits) {
        if (!makeZstdPrefix(oldData, newData, &other, error))
            return false;
        if (codec == ZstdPrefix || other.size() < body.size()) {
            body = other;
            header.codec = ZstdPrefix;
        }
    }
    const QByteArray head = header.encode();
    if (patch->write(head) == head.size() && patch->write(body) == body.size())
        return true;
    *error = QStringLiteral("cannot write the patch: %1").arg(patch->errorString());
    return false;
}

bool BinaryPatch::apply(const QString &oldFile, QIODevice *patch, QIODevice *out, QString *error, QString *sha256)
{
    Header header;
    QByteArray bytes(HeaderSize, Qt::Uninitialized);
    if (readFull(patch, bytes.data(), HeaderSize) != HeaderSize || !header.decode(bytes)) {
        *error = QStringLiteral("the patch is damaged");
        return false;
    }
    // Read where each run starts, straight into the codec's buffer.
    QFile file(oldFile);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        *error = QStringLiteral("%1: %2").arg(oldFile, file.errorString());
        return false;
    }
    if (quint64(file.size()) != header.oldSize) {
        *error = QStringLiteral("the patch does not fit %1").arg(oldFile);
        return false;
    }
    HashedOutput output(out, header.newSize);
    const auto write = [&](const char *data, qint64 size) { return output.write(data, size); };
    bool applied;
    if (header.codec == ZstdPrefix) {
        const QByteArray oldData = file.read(qint64(header.oldSize));
        if (quint64(oldData.size()) != header.oldSize) {
            *error = QStringLiteral("%1: %2").arg(oldFile, file.errorString());
            return false;
        }
        applied = applyZstdPrefix(oldData, header, patch, write);
    } else {
        applied = SuffixDiff::apply(&file, patch, qint64(header.newSize), write);
    }
    char more;
    QString hex;
    if (!applied || readFull(patch, &more, 1) != 0 || !output.finish(&hex)) {
        *error = output.error().isEmpty() ? QStringLiteral("the patch is damaged") : output.error();
        return false;
    }
    if (QByteArray::fromHex(hex.toLatin1()) != header.sha256) {
        *error = QStringLiteral("the patch does not fit %1").arg(oldFile);
        return false;
    }
    if (sha256)
        *sha256 = hex;
    return true;
}

} // namespace Vindal
