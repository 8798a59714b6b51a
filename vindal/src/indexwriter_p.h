#ifndef VINDAL_INDEXWRITER_P_H
#define VINDAL_INDEXWRITER_P_H

#include <vindal/outcome.h>

#include "packageindex_p.h"

#include <functional>

namespace Vindal {

// The publishing side's one way to change an index: read it, change it,
// write it atomically with its expiry, then sign it (or remove a signature
// that would no longer match). Publishing a package and moving a release
// between channels and shares all go through here.
namespace IndexWriter {

// The secret key of a key file; nothing for a null name, ConfigError for a
// name that is given but empty (never a request to publish unsigned).
// Refused too when the repository's clients do not trust the key, or when
// the repository is signed and no key is given.
Outcome readKey(const QString &repoFolder, const QString &secretKeyFile, QByteArray *secretKey);

// As expiresInDays: the index keeps the expiry it has (a change that is not
// a publication, such as its deltas).
const int KeepExpiry = -1;

// Loads the index of name (a module, or the upgrades document), lets change
// alter it (a failure leaves the files as they were), and writes it; how
// receives "signed" or "unsigned".
Outcome update(PackageIndex::Kind kind, const QString &repoFolder, const QString &name, const QByteArray &secretKey,
               int expiresInDays, const std::function<Outcome(PackageIndex &)> &change, QString *how);

} // namespace IndexWriter

} // namespace Vindal

#endif // VINDAL_INDEXWRITER_P_H
