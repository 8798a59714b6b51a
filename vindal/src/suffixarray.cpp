#include "suffixarray_p.h"

#include <algorithm>
#include <cstring>

namespace Vindal {

namespace {

// Induced sorting of the suffixes of s (n symbols below k) into sa. The text
// ends in a virtual sentinel, smaller than every symbol, that is not stored.
// A suffix is S-type when it is smaller than the one after it, L-type when
// larger; an LMS position is an S-type one right after an L-type one.
template <typename Symbol>
class Sorter
{
public:
    Sorter(const Symbol *s, qint32 *sa, qint32 n, qint32 k)
        : s(s), sa(sa), n(n), k(k), stype(size_t(n), 0), bucket(size_t(k) + 1)
    {
    }

    void sort()
    {
        if (n <= 1) {
            if (n == 1)
                sa[0] = 0;
            return;
        }
        for (qint32 i = n - 2; i >= 0; --i) // the last suffix is L-type: the sentinel follows it
            stype[size_t(i)] = s[i] < s[i + 1] || (s[i] == s[i + 1] && stype[size_t(i) + 1]);

        // Sort the LMS substrings: LMS positions at their buckets' ends, then induce.
        std::fill(sa, sa + n, -1);
        bucketEnds();
        for (qint32 i = 1; i < n; ++i)
            if (isLms(i))
                sa[--bucket[size_t(s[i])]] = i;
        induce();

        // Name them in order, equal substrings alike, and sort the string of
        // names: that orders the LMS suffixes. The names go to the upper half
        // of sa (LMS positions are at least two apart), then to its end.
        qint32 count = 0;
        for (qint32 i = 0; i < n; ++i)
            if (isLms(sa[i]))
                sa[count++] = sa[i];
        std::fill(sa + count, sa + n, -1);
        qint32 names = 0;
        for (qint32 i = 0, previous = -1; i < count; ++i) {
            const qint32 position = sa[i];
            if (previous < 0 || !sameLmsSubstring(position, previous))
                ++names;
            previous = position;
            sa[count + position / 2] = names - 1;
        }
        for (qint32 i = n - 1, j = n - 1; i >= count; --i)
            if (sa[i] >= 0)
                sa[j--] = sa[i];
        qint32 *reduced = sa + n - count;
        if (names < count)
            Sorter<qint32>(reduced, sa, count, names).sort();
        else
            for (qint32 i = 0; i < count; ++i)
                sa[reduced[i]] = i;

        // The LMS suffixes, sorted, at their buckets' ends; inducing from
        // them sorts every suffix.
        for (qint32 i = 1, j = 0; i < n; ++i)
            if (isLms(i))
                reduced[j++] = i;
        for (qint32 i = 0; i < count; ++i)
            sa[i] = reduced[sa[i]];
        std::fill(sa + count, sa + n, -1);
        bucketEnds();
        for (qint32 i = count - 1; i >= 0; --i) {
            const qint32 position = sa[i];
            sa[i] = -1;
            sa[--bucket[size_t(s[position])]] = position;
        }
        induce();
    }

private:
    bool isLms(qint32 i) const { return i > 0 && stype[size_t(i)] && !stype[size_t(i) - 1]; }

    void bucketStarts()
    {
        std::fill(bucket.begin(), bucket.end(), 0);
        for (qint32 i = 0; i < n; ++i)
            ++bucket[size_t(s[i]) + 1];
        for (size_t c = 1; c < bucket.size(); ++c)
            bucket[c] += bucket[c - 1];
    }
    void bucketEnds()
    {
        bucketStarts();
        std::rotate(bucket.begin(), bucket.begin() + 1, bucket.end());
    }

    // L-type suffixes from left to right, after the sentinel's (which
    // precedes the last suffix); then S-type ones from right to left.
    void induce()
    {
        bucketStarts();
        put(n - 1);
        for (qint32 i = 0; i < n; ++i) {
            const qint32 j = sa[i] - 1;
            if (j >= 0 && !stype[size_t(j)])
                put(j);
        }
        bucketEnds();
        for (qint32 i = n - 1; i >= 0; --i) {
            const qint32 j = sa[i] - 1;
            if (j >= 0 && stype[size_t(j)])
                sa[--bucket[size_t(s[j])]] = j;
        }
    }
    void put(qint32 j) { sa[bucket[size_t(s[j])]++] = j; }

    // Whether the LMS substrings at a and b (up to and including the next
    // LMS position) are equal in symbols and types. The one that reaches the
    // sentinel equals no other.
    bool sameLmsSubstring(qint32 a, qint32 b) const
    {
        for (qint32 d = 0;; ++d) {
            if (a + d == n || b + d == n || s[a + d] != s[b + d] || stype[size_t(a + d)] != stype[size_t(b + d)])
                return false;
            if (d > 0 && isLms(a + d))
                return true;
        }
    }

    const Symbol *s;
    qint32 *sa;
    const qint32 n, k;
    std::vector<quint8> stype;
    std::vector<qint32> bucket;
};

// memcmp a block at a time: it stops at the first difference, also where
// memcmp itself is checked over its whole range first (the address
// sanitizer's), which made each step of a search cost the whole file.
int compare(const uchar *a, const uchar *b, qint64 length)
{
    for (qint64 at = 0; at < length; at += 4096) {
        const int order = memcmp(a + at, b + at, size_t(qMin<qint64>(4096, length - at)));
        if (order != 0)
            return order;
    }
    return 0;
}

} // namespace

SuffixArray::SuffixArray(const uchar *text, qint32 size)
    : m_text(text)
    , m_size(size)
    , m_suffixes(size_t(size))
{
    Sorter<uchar>(text, m_suffixes.data(), size, 256).sort();
}

qint32 SuffixArray::longestMatch(const uchar *needle, qint64 size, qint32 *position) const
{
    const auto common = [&](qint32 suffix) {
        const qint64 limit = qMin<qint64>(size, m_size - suffix);
        qint64 i = 0;
        while (i < limit && m_text[suffix + i] == needle[i])
            ++i;
        return qint32(i);
    };
    *position = 0;
    if (m_size == 0 || size == 0)
        return 0;
    // Bisect to the two neighbouring suffixes the needle sorts between; the
    // longest match is one of them.
    qint32 low = 0, high = m_size - 1;
    while (high - low > 1) {
        const qint32 middle = low + (high - low) / 2;
        const qint32 suffix = m_suffixes[size_t(middle)];
        const qint64 length = qMin<qint64>(size, m_size - suffix);
        const int order = compare(m_text + suffix, needle, length);
        if (order < 0 || (order == 0 && length < size))
            low = middle;
        else
            high = middle;
    }
    const qint32 lowLength = common(m_suffixes[size_t(low)]), highLength = common(m_suffixes[size_t(high)]);
    *position = m_suffixes[size_t(lowLength >= highLength ? low : high)];
    return qMax(lowLength, highLength);
}

} // namespace Vindal
