#ifndef VINDAL_SUFFIXARRAY_P_H
#define VINDAL_SUFFIXARRAY_P_H

#include <QtCore/QtGlobal>

#include <vector>

namespace Vindal {

// The suffixes of a byte string in sorted order, for finding where a piece
// of a new file occurs in the old one. Built by induced sorting (SA-IS) in
// linear time: five bytes per byte of text, and at most half as much again,
// briefly, for the reduced problem. Our own code, as no suffix sorting
// library is available on every platform we build for.
class SuffixArray
{
public:
    // text must outlive the array; size below 2^31.
    SuffixArray(const uchar *text, qint32 size);

    // The length of the longest prefix of needle found in the text, and
    // where (*position; 0 when nothing matches).
    qint32 longestMatch(const uchar *needle, qint64 size, qint32 *position) const;

private:
    const uchar *m_text;
    const qint32 m_size;
    std::vector<qint32> m_suffixes;
};

} // namespace Vindal

#endif // VINDAL_SUFFIXARRAY_P_H
