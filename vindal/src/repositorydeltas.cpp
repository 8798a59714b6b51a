// The delta packages of a repository: made when a version is published,
// listed under it in the signed index, listed and pruned on request.
#include <vindal/filedigest.h>
#include <vindal/repository.h>

#include "deltabuilder_p.h"
#include "deltaref_p.h"
#include "indexwriter_p.h"
#include "packageindex_p.h"
#include "repositoryfiles_p.h"
#include "repositorylayout_p.h"
#include "signature_p.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSet>

#include <algorithm>

namespace Vindal {

namespace {

struct ModuleFolder
{
    QDir folder;
    QString indexPath;
    QString signaturePath;
    PackageIndex index;
};

Outcome openModule(const QString &repoFolder, const QString &module, ModuleFolder *m)
{
    if (!Repository::isValidModuleName(module))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid module name").arg(module), module);
    const QDir repo(repoFolder);
    m->folder = QDir(repo.filePath(RepositoryLayout::folder(PackageIndex::Module, module)));
    m->indexPath = repo.filePath(RepositoryLayout::index(PackageIndex::Module, module));
    m->signaturePath = repo.filePath(RepositoryLayout::signature(PackageIndex::Module, module));
    if (!QFileInfo::exists(m->indexPath))
        return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no index in \"%2\"").arg(module, repoFolder), m->indexPath);
    return loadIndex(m->indexPath, &m->index);
}

// Writes the index and signs it with the key, or, in an unsigned
// repository, removes a signature that would no longer match; the expiry
// stays as the index has it.
Outcome saveModule(const QString &repoFolder, const ModuleFolder &m, const QString &secretKeyFile)
{
    QByteArray secretKey;
    if (const Outcome key = IndexWriter::readKey(repoFolder, secretKeyFile, &secretKey); !key)
        return key;
    const QByteArray json = m.index.toJson();
    if (const Outcome written = writeFile(m.indexPath, json); !written)
        return written;
    if (secretKey.isEmpty()) {
        QFile::remove(m.signaturePath);
        return Outcome::success();
    }
    return writeFile(m.signaturePath, Signature::sign(json, secretKey));
}

QList<IndexEntry> newestFirst(const PackageIndex &index)
{
    QList<IndexEntry> entries = index.entries();
    std::stable_sort(entries.begin(), entries.end(),
                     [](const IndexEntry &a, const IndexEntry &b) { return PackageIndex::compareVersions(a.version, b.version) > 0; });
    return entries;
}

// Removes the files of deltas no longer listed by any version.
void removeUnlisted(const ModuleFolder &m, const QList<DeltaRef> &dropped)
{
    QSet<QString> listed;
    for (const IndexEntry &entry : m.index.entries()) {
        QList<DeltaRef> deltas;
        QString problem;
        DeltaRef::listOf(entry, &deltas, &problem);
        for (const DeltaRef &delta : qAsConst(deltas))
            listed.insert(delta.package.file);
        listed.insert(entry.file);
    }
    for (const DeltaRef &delta : dropped) {
        if (!listed.contains(delta.package.file))
            QFile::remove(m.folder.filePath(delta.package.file));
    }
}

} // namespace

Outcome Repository::publishDeltas(const QString &repoFolder, const QString &module, const QString &version, int count,
                                  const QString &secretKeyFile)
{
    ModuleFolder m;
    if (const Outcome opened = openModule(repoFolder, module, &m); !opened)
        return opened;
    const IndexEntry *found = m.index.find(version);
    if (!found)
        return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no version %2").arg(module, version));
    IndexEntry entry = *found;
    QList<DeltaRef> before;
    QString problem;
    DeltaRef::listOf(entry, &before, &problem);
    QList<DeltaRef> deltas;
    QStringList notes;
    int tried = 0;
    for (const IndexEntry &base : newestFirst(m.index)) {
        if (PackageIndex::compareVersions(base.version, version) >= 0)
            continue;
        if (tried++ >= count)
            break;
        const QString basePackage = m.folder.filePath(base.file);
        DeltaRef delta;
        delta.from = base.version;
        delta.package.version = version;
        delta.package.file = DeltaRef::fileName(module, base.version, version);
        const QString path = m.folder.filePath(delta.package.file);
        QString skip;
        FileDigest digest;
        if (!QFileInfo(basePackage).isFile()) {
            skip = QStringLiteral("its package is gone");
        } else if (!PackageIndex::isPlainFileName(delta.package.file)) {
            skip = QStringLiteral("the delta's file name would be too long");
        } else if (const Outcome made = DeltaBuilder::make(module, {basePackage, base.version}, {m.folder.filePath(entry.file), version}, path);
                   !made) {
            skip = made.message;
        } else if (digest = FileDigest::ofFile(path); digest.size >= entry.size) {
            skip = QStringLiteral("not smaller than the full package");
        }
        if (!skip.isEmpty()) {
            QFile::remove(path);
            notes.append(QStringLiteral("no delta from %1: %2").arg(base.version, skip));
            continue;
        }
        delta.package.size = digest.size;
        delta.package.md5 = digest.md5;
        delta.package.sha256 = digest.sha256;
        deltas.append(delta);
        notes.append(QStringLiteral("delta from %1: %2 bytes (%3% of %4)")
                         .arg(base.version).arg(digest.size).arg(100.0 * double(digest.size) / double(qMax<qint64>(1, entry.size)), 0, 'f', 1)
                         .arg(entry.size));
    }
    DeltaRef::setList(&entry, deltas);
    m.index.upsert(entry);
    if (const Outcome saved = saveModule(repoFolder, m, secretKeyFile); !saved)
        return saved;
    removeUnlisted(m, before);
    return Outcome::success(notes.isEmpty() ? QStringLiteral("no older version to make a delta from") : notes.join(QLatin1String("; ")));
}

Outcome Repository::listDeltas(const QString &repoFolder, const QString &module)
{
    ModuleFolder m;
    if (const Outcome opened = openModule(repoFolder, module, &m); !opened)
        return opened;
    QStringList lines;
    for (const IndexEntry &entry : newestFirst(m.index)) {
        QList<DeltaRef> deltas;
        QString problem;
        DeltaRef::listOf(entry, &deltas, &problem);
        for (const DeltaRef &delta : qAsConst(deltas)) {
            lines.append(QStringLiteral("%1 from %2: %3, %4 bytes (%5% of %6)%7")
                             .arg(entry.version, delta.from, delta.package.file).arg(delta.package.size)
                             .arg(100.0 * double(delta.package.size) / double(qMax<qint64>(1, entry.size)), 0, 'f', 1).arg(entry.size)
                             .arg(QFileInfo(m.folder.filePath(delta.package.file)).isFile() ? QString() : QStringLiteral(", file missing")));
        }
    }
    return Outcome::success(lines.join(QLatin1Char('\n')));
}

Outcome Repository::pruneDeltas(const QString &repoFolder, const QString &module, int keep, const QString &secretKeyFile)
{
    ModuleFolder m;
    if (const Outcome opened = openModule(repoFolder, module, &m); !opened)
        return opened;
    QList<DeltaRef> dropped;
    const QList<IndexEntry> entries = newestFirst(m.index);
    for (int i = qMax(0, keep); i < entries.size(); ++i) {
        IndexEntry entry = entries.at(i);
        QString problem;
        DeltaRef::listOf(entry, &dropped, &problem);
        DeltaRef::setList(&entry, {});
        m.index.upsert(entry);
    }
    if (dropped.isEmpty())
        return Outcome::success(QStringLiteral("no deltas to remove"));
    if (const Outcome saved = saveModule(repoFolder, m, secretKeyFile); !saved)
        return saved;
    removeUnlisted(m, dropped);
    return Outcome::success(QStringLiteral("removed %1 deltas").arg(dropped.size()));
}

} // namespace Vindal
