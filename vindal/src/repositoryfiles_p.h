#ifndef VINDAL_REPOSITORYFILES_P_H
#define VINDAL_REPOSITORYFILES_P_H

#include <vindal/outcome.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Vindal {

class PackageIndex;

// Reading and writing a repository folder's files (repository.cpp).
namespace RepositoryFiles {

Outcome readFile(const QString &path, qint64 limit, QByteArray *bytes);
// Through a temporary file renamed over path.
Outcome writeFile(const QString &path, const QByteArray &bytes, bool ownerOnly = false);
// An index that does not exist loads as an empty one.
Outcome loadIndex(const QString &path, PackageIndex *index);
Outcome readSecretKey(const QString &path, QByteArray *key);

} // namespace RepositoryFiles

} // namespace Vindal

#endif // VINDAL_REPOSITORYFILES_P_H
