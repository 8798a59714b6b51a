#ifndef VINDAL_REPOSITORYFILES_P_H
#define VINDAL_REPOSITORYFILES_P_H

#include <vindal/outcome.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Vindal {

class PackageIndex;

// The publisher's reading and writing of a repository folder's small files
// (indexes, signatures, key statements, keys), shared by publishing, deltas
// and key rotation. Every file is written atomically.

// Reads at most limit bytes; a larger file is refused (InvalidIndex).
Outcome readFile(const QString &path, qint64 limit, QByteArray *bytes);
Outcome writeFile(const QString &path, const QByteArray &bytes, bool ownerOnly = false);
// A base64 Ed25519 secret key file, decoded.
Outcome readSecretKey(const QString &path, QByteArray *key);
// An index that does not exist loads as an empty one (repository.cpp).
Outcome loadIndex(const QString &path, PackageIndex *index);

} // namespace Vindal

#endif // VINDAL_REPOSITORYFILES_P_H
