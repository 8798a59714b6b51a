#ifndef VINDAL_REPOSITORYLAYOUT_P_H
#define VINDAL_REPOSITORYLAYOUT_P_H

#include "packageindex_p.h"

#include <QtCore/QString>

namespace Vindal {

// Where things lie in a repository, relative to its base: the publisher and
// the client must agree on exactly these paths.
namespace RepositoryLayout {

inline QString folder(PackageIndex::Kind kind, const QString &module)
{
    return kind == PackageIndex::Module ? QLatin1String("modules/") + module : QStringLiteral("upgrades");
}

inline QString index(PackageIndex::Kind kind, const QString &module)
{
    return folder(kind, module) + QLatin1String("/index.json");
}

inline QString signature(PackageIndex::Kind kind, const QString &module)
{
    return index(kind, module) + QLatin1String(".sig");
}

// The repository's key statements, numbered from 1, and their signatures
// (one per line).
inline QString keyStatement(int number)
{
    return QStringLiteral("keys/%1.json").arg(number);
}

inline QString keyStatementSignatures(int number)
{
    return keyStatement(number) + QLatin1String(".sig");
}

// Names no package file may take: the files of the layout beside it, and
// the companions a client writes beside a downloaded package. Compared as
// Windows compares names: without case, and without the trailing dots and
// spaces it drops ("Index.JSON." is the index there).
inline bool isReservedFileName(const QString &name)
{
    QString lower = name.toLower();
    while (lower.endsWith(QLatin1Char('.')) || lower.endsWith(QLatin1Char(' ')))
        lower.chop(1);
    return lower == QLatin1String("index.json") || lower == QLatin1String("index.json.sig")
        || lower.endsWith(QLatin1String(".part")) || lower.endsWith(QLatin1String(".part.json"))
        || lower.endsWith(QLatin1String(".verify"));
}

// Documents larger than this are not indexes; the client never reads more.
// Parsing takes about seven times a document's size in memory, so this keeps
// the worst a server can send within the client's 64 MiB (over 15,000
// versions fit).
const qint64 MaxIndexBytes = 4 * 1024 * 1024;
const qint64 MaxSignatureBytes = 1024;
// A statement names at most 32 keys, each signing it in a line of 89 bytes.
const qint64 MaxStatementBytes = 64 * 1024;
const qint64 MaxStatementSignaturesBytes = 4096;

} // namespace RepositoryLayout

} // namespace Vindal

#endif // VINDAL_REPOSITORYLAYOUT_P_H
