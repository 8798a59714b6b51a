#include "suffixdiff_p.h"

#include "binarypatch_p.h"
#include "suffixarray_p.h"

#include <QtCore/QFile>
#include <QtCore/QtEndian>

#include <zstd.h>

#include <array>
#include <cstring>
#include <memory>
#include <vector>

namespace Vindal {

namespace {

// The body is a series of chunks. Each holds a piece of three zstd streams,
// each stream flushed at the chunk's end so that its piece decodes on its
// own (the streams still compress against everything before):
// - control: per run, as variable-length integers, the length copied from
//   the old file, the length of new bytes after it, and how far the old
//   position then moves (zigzag: backwards too);
// - diff: for each copied byte, the new byte minus the old one;
// - extra: the new bytes.
// A chunk starts with, per stream, its size decoded and compressed (each a
// 32-bit little-endian number).
enum Stream { Control, Diff, Extra, StreamCount };
constexpr int ChunkHeaderSize = StreamCount * 8;
// Runs are cut to this length, and a chunk ends once its diff and extra
// hold that much: so a chunk decodes to at most three times as much.
constexpr qint64 Piece = 1 << 20;
constexpr qint64 ControlPiece = 64 << 10;
// What applying accepts, whoever made the patch.
constexpr quint32 MaxRaw[StreamCount] = {1 << 20, 3 * Piece, 3 * Piece};
constexpr int WindowLog = 21; // per stream; the most applying allocates
constexpr int Level = 19;

struct ZstdFree
{
    void operator()(ZSTD_CCtx *c) const { ZSTD_freeCCtx(c); }
    void operator()(ZSTD_DCtx *d) const { ZSTD_freeDCtx(d); }
};

void putVarint(QByteArray *out, quint64 value)
{
    while (value >= 0x80) {
        out->append(char(value | 0x80));
        value >>= 7;
    }
    out->append(char(value));
}

bool getVarint(const QByteArray &in, int *at, quint64 *value)
{
    *value = 0;
    for (int shift = 0; shift < 64 && *at < in.size(); shift += 7) {
        const quint8 byte = quint8(in[(*at)++]);
        *value |= quint64(byte & 0x7f) << shift;
        if (!(byte & 0x80))
            return true;
    }
    return false;
}

// Gathers the runs, then compresses each stream whole and cuts it into the
// chunks' pieces: one compressor at a time, told the stream's size so that
// its tables are no larger than the stream needs.
class Writer
{
public:
    // copyLength bytes copied from oldBytes with a difference, then
    // extraLength new bytes of their own; the old position then moves by seek.
    void add(const uchar *oldBytes, const uchar *newBytes, qint64 copyLength, qint64 extraLength, qint64 seek)
    {
        while (copyLength > Piece || extraLength > Piece) {
            const qint64 copy = qMin(copyLength, Piece), extra = copy < Piece ? qMin(extraLength, Piece) : 0;
            run(oldBytes, newBytes, copy, extra, 0);
            oldBytes += copy;
            newBytes += copy + extra;
            copyLength -= copy;
            extraLength -= extra;
        }
        run(oldBytes, newBytes, copyLength, extraLength, seek);
    }

    bool finish(QByteArray *body, QString *error)
    {
        if (m_raw[Control].size() > (m_ends.empty() ? 0 : m_ends.back()[Control]))
            endChunk();
        std::array<std::vector<QByteArray>, StreamCount> parts;
        for (int s = 0; s < StreamCount; ++s)
            if (!compress(Stream(s), &parts[size_t(s)], error))
                return false;
        body->clear();
        for (size_t c = 0; c < m_ends.size(); ++c) {
            QByteArray header(ChunkHeaderSize, '\0');
            for (int s = 0; s < StreamCount; ++s) {
                qToLittleEndian<quint32>(quint32(m_ends[c][s] - (c ? m_ends[c - 1][s] : 0)), header.data() + 8 * s);
                qToLittleEndian<quint32>(quint32(parts[size_t(s)][c].size()), header.data() + 8 * s + 4);
            }
            body->append(header);
            for (int s = 0; s < StreamCount; ++s)
                body->append(parts[size_t(s)][c]);
        }
        return true;
    }

private:
    using Ends = std::array<int, StreamCount>;

    void run(const uchar *oldBytes, const uchar *newBytes, qint64 copyLength, qint64 extraLength, qint64 seek)
    {
        putVarint(&m_raw[Control], quint64(copyLength));
        putVarint(&m_raw[Control], quint64(extraLength));
        putVarint(&m_raw[Control], seek < 0 ? (quint64(-(seek + 1)) << 1) | 1 : quint64(seek) << 1);
        const int at = m_raw[Diff].size();
        m_raw[Diff].resize(at + int(copyLength));
        char *diff = m_raw[Diff].data() + at;
        for (qint64 i = 0; i < copyLength; ++i)
            diff[i] = char(newBytes[i] - oldBytes[i]);
        m_raw[Extra].append(reinterpret_cast<const char *>(newBytes + copyLength), int(extraLength));
        const Ends last = m_ends.empty() ? Ends{} : m_ends.back();
        if (m_raw[Diff].size() - last[Diff] + m_raw[Extra].size() - last[Extra] >= Piece
            || m_raw[Control].size() - last[Control] >= ControlPiece)
            endChunk();
    }

    void endChunk() { m_ends.push_back({m_raw[Control].size(), m_raw[Diff].size(), m_raw[Extra].size()}); }

    bool compress(Stream s, std::vector<QByteArray> *parts, QString *error) const
    {
        std::unique_ptr<ZSTD_CCtx, ZstdFree> context(ZSTD_createCCtx());
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, Level);
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, WindowLog);
        ZSTD_CCtx_setPledgedSrcSize(context.get(), quint64(m_raw[s].size()));
        int from = 0;
        for (const Ends &ends : m_ends) {
            const int to = ends[s];
            QByteArray part(int(ZSTD_compressBound(size_t(to - from))) + 1024, Qt::Uninitialized);
            ZSTD_inBuffer input{m_raw[s].constData() + from, size_t(to - from), 0};
            ZSTD_outBuffer output{part.data(), size_t(part.size()), 0};
            const ZSTD_EndDirective end = &ends == &m_ends.back() ? ZSTD_e_end : ZSTD_e_flush;
            size_t left;
            do
                left = ZSTD_compressStream2(context.get(), &output, &input, end);
            while (!ZSTD_isError(left) && left != 0 && output.pos < output.size);
            if (left != 0) {
                *error = QStringLiteral("cannot compress the patch: %1")
                             .arg(QLatin1String(ZSTD_isError(left) ? ZSTD_getErrorName(left) : "no room"));
                return false;
            }
            part.truncate(int(output.pos));
            parts->push_back(part);
            from = to;
        }
        return true;
    }

    std::array<QByteArray, StreamCount> m_raw;
    std::vector<Ends> m_ends; // where each chunk ends in each stream
};

// to[i] += from[i] for each byte, eight at a time: the sums of the low seven
// bits, then the top bits by exclusive or, so no carry crosses a byte.
void addBytes(char *to, const char *from, int size)
{
    constexpr quint64 Low = 0x7f7f7f7f7f7f7f7fULL;
    int i = 0;
    for (; i + 8 <= size; i += 8) {
        quint64 a, b;
        memcpy(&a, to + i, 8);
        memcpy(&b, from + i, 8);
        a = ((a & Low) + (b & Low)) ^ ((a ^ b) & ~Low);
        memcpy(to + i, &a, 8);
    }
    for (; i < size; ++i)
        to[i] = char(to[i] + from[i]);
}

// Decodes one stream's piece of a chunk into exactly raw.size() bytes.
bool decodePart(ZSTD_DCtx *context, const QByteArray &part, QByteArray *raw)
{
    // (Calls without input count against zstd's limit of calls that make
    // no progress: a stream with nothing in many chunks would reach it.)
    if (part.isEmpty())
        return raw->isEmpty();
    ZSTD_inBuffer input{part.constData(), size_t(part.size()), 0};
    ZSTD_outBuffer output{raw->data(), size_t(raw->size()), 0};
    while (input.pos < input.size || output.pos < output.size) {
        const size_t before = input.pos + output.pos;
        if (ZSTD_isError(ZSTD_decompressStream(context, &output, &input)))
            return false;
        if (input.pos + output.pos == before)
            return false; // the piece is shorter than announced
    }
    // Nothing may be left over for the next chunk.
    char more;
    ZSTD_outBuffer probe{&more, 1, 0};
    return !ZSTD_isError(ZSTD_decompressStream(context, &probe, &input)) && probe.pos == 0;
}

} // namespace

bool SuffixDiff::make(const QByteArray &oldData, const QByteArray &newData, QByteArray *body, QString *error)
{
    const auto *old = reinterpret_cast<const uchar *>(oldData.constData());
    const auto *now = reinterpret_cast<const uchar *>(newData.constData());
    const qint64 oldSize = oldData.size(), newSize = newData.size();
    const SuffixArray index(old, qint32(oldSize));
    const auto same = [&](qint64 oldAt, qint64 newAt) { return oldAt >= 0 && oldAt < oldSize && old[oldAt] == now[newAt]; };
    Writer writer;

    // Walk the new file looking for the longest exact match of each
    // position in the old file. A match is taken when it is clearly better
    // than going on with the previous alignment (lastOffset), whose bytes
    // may still mostly agree: then the previous run is closed, extended
    // forwards and the next backwards as far as they agree on more than
    // half their bytes, and what lies between is new.
    qint64 scan = 0, length = 0, position = 0, lastScan = 0, lastPosition = 0, lastOffset = 0;
    while (scan < newSize) {
        qint64 oldScore = 0;
        qint64 scored = scan += length;
        for (; scan < newSize; ++scan) {
            qint32 at;
            length = index.longestMatch(now + scan, newSize - scan, &at);
            position = at;
            for (; scored < scan + length; ++scored)
                oldScore += same(scored + lastOffset, scored);
            if ((length == oldScore && length != 0) || length > oldScore + 8)
                break;
            oldScore -= same(scan + lastOffset, scan);
        }
        if (length == oldScore && scan < newSize)
            continue;

        qint64 score = 0, best = 0, forward = 0;
        for (qint64 i = 0; lastScan + i < scan && lastPosition + i < oldSize;) {
            score += old[lastPosition + i] == now[lastScan + i];
            ++i;
            if (score * 2 - i > best * 2 - forward) {
                best = score;
                forward = i;
            }
        }
        qint64 backward = 0;
        if (scan < newSize) {
            score = best = 0;
            for (qint64 i = 1; scan >= lastScan + i && position >= i; ++i) {
                score += old[position - i] == now[scan - i];
                if (score * 2 - i > best * 2 - backward) {
                    best = score;
                    backward = i;
                }
            }
        }
        // The two extensions overlap: split where the bytes agree best.
        if (lastScan + forward > scan - backward) {
            const qint64 overlap = lastScan + forward - (scan - backward);
            qint64 split = 0;
            score = best = 0;
            for (qint64 i = 0; i < overlap; ++i) {
                score += now[lastScan + forward - overlap + i] == old[lastPosition + forward - overlap + i];
                score -= now[scan - backward + i] == old[position - backward + i];
                if (score > best) {
                    best = score;
                    split = i + 1;
                }
            }
            forward += split - overlap;
            backward -= split;
        }
        writer.add(old + lastPosition, now + lastScan, forward, scan - backward - (lastScan + forward),
                   position - backward - (lastPosition + forward));
        lastScan = scan - backward;
        lastPosition = position - backward;
        lastOffset = position - scan;
    }
    return writer.finish(body, error);
}

bool SuffixDiff::apply(QFile *oldFile, QIODevice *patch, qint64 newSize,
                       const std::function<bool(const char *, qint64)> &write)
{
    std::array<std::unique_ptr<ZSTD_DCtx, ZstdFree>, StreamCount> contexts;
    for (auto &d : contexts) {
        d.reset(ZSTD_createDCtx());
        ZSTD_DCtx_setParameter(d.get(), ZSTD_d_windowLogMax, WindowLog);
    }
    const qint64 oldSize = oldFile->size();
    qint64 oldPosition = 0, written = 0;
    std::array<QByteArray, StreamCount> raw;
    QByteArray header(ChunkHeaderSize, Qt::Uninitialized), part, scratch;
    while (written < newSize) {
        if (BinaryPatch::readFull(patch, header.data(), ChunkHeaderSize) != ChunkHeaderSize)
            return false;
        for (int s = 0; s < StreamCount; ++s) {
            const quint32 rawSize = qFromLittleEndian<quint32>(header.constData() + 8 * s);
            const quint32 packed = qFromLittleEndian<quint32>(header.constData() + 8 * s + 4);
            if (rawSize > MaxRaw[s] || packed > ZSTD_compressBound(rawSize) + 1024)
                return false;
            part.resize(int(packed));
            raw[s].resize(int(rawSize));
            if (BinaryPatch::readFull(patch, part.data(), packed) != packed || !decodePart(contexts[s].get(), part, &raw[s]))
                return false;
        }
        int at = 0, diffAt = 0, extraAt = 0;
        while (at < raw[Control].size()) {
            quint64 copy, extra, seek;
            if (!getVarint(raw[Control], &at, &copy) || !getVarint(raw[Control], &at, &extra)
                || !getVarint(raw[Control], &at, &seek))
                return false;
            if (copy > quint64(raw[Diff].size() - diffAt) || extra > quint64(raw[Extra].size() - extraAt)
                || oldPosition < 0 || oldPosition > oldSize || copy > quint64(oldSize - oldPosition))
                return false;
            scratch.resize(int(copy));
            if (copy && (!oldFile->seek(oldPosition) || oldFile->read(scratch.data(), qint64(copy)) != qint64(copy)))
                return false;
            addBytes(scratch.data(), raw[Diff].constData() + diffAt, int(copy));
            if (!write(scratch.constData(), qint64(copy)) || !write(raw[Extra].constData() + extraAt, qint64(extra)))
                return false;
            diffAt += int(copy);
            extraAt += int(extra);
            written += qint64(copy + extra);
            const qint64 move = seek & 1 ? -qint64(seek >> 1) - 1 : qint64(seek >> 1);
            if (move > oldSize || move < -oldSize)
                return false;
            oldPosition += qint64(copy) + move;
        }
        if (diffAt != raw[Diff].size() || extraAt != raw[Extra].size())
            return false;
    }
    return true;
}

} // namespace Vindal
