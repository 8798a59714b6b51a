#ifndef VINDAL_DELTAREF_P_H
#define VINDAL_DELTAREF_P_H

#include "packageindex_p.h"

#include <QtCore/QList>
#include <QtCore/QVariantMap>

namespace Vindal {

// A delta package as a module index lists it, under the version it makes:
//   "deltas": [ { "from": "1.1", "file": "app-1.1-to-1.2.delta.tolmpkg",
//                 "size": 123, "md5": "...", "sha256": "..." } ]
// The index is signed as a whole, so a delta's digests are as trusted as
// the package's own.
struct DeltaRef
{
    QString from;
    IndexEntry package; // file, size, md5 and sha256 of the delta; version: the one it makes

    // The entry's deltas; false, with the reason in *problem, when the list
    // is malformed (one bad delta refuses the index like any bad entry).
    static bool listOf(const IndexEntry &entry, QList<DeltaRef> *deltas, QString *problem);
    static void setList(IndexEntry *entry, const QList<DeltaRef> &deltas);
    // The delta from installed to entry, when one is listed and smaller
    // than the full package.
    static bool pick(const IndexEntry &entry, const QString &installed, DeltaRef *delta);
    // The download's description of the delta (from describing it as a
    // package) with "delta": from, to, file, size, fullSize, bytesSaved and the
    // full package's file, size and SHA-256, which a fall-back fetches.
    static QVariantMap describe(QVariantMap info, const IndexEntry &full, const DeltaRef &delta);
    // The file name publishing gives the delta between two versions.
    static QString fileName(const QString &module, const QString &from, const QString &to);
};

} // namespace Vindal

#endif // VINDAL_DELTAREF_P_H
