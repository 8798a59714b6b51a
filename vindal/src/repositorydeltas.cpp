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

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSet>

#include <algorithm>

namespace Vindal {

namespace {

// The module's folder; its index must exist already.
Outcome openModule(const QString &repoFolder, const QString &module, QDir *folder)
{
    if (!Repository::isValidModuleName(module))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid module name").arg(module), module);
    const QDir repo(repoFolder);
    *folder = QDir(repo.filePath(RepositoryLayout::folder(PackageIndex::Module, module)));
    const QString indexPath = repo.filePath(RepositoryLayout::index(PackageIndex::Module, module));
    if (!QFileInfo::exists(indexPath))
        return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no index in \"%2\"").arg(module, repoFolder), indexPath);
    return Outcome::success();
}

Outcome loadModule(const QString &repoFolder, const QString &module, QDir *folder, PackageIndex *index)
{
    const Outcome opened = openModule(repoFolder, module, folder);
    return opened ? loadIndex(QDir(repoFolder).filePath(RepositoryLayout::index(PackageIndex::Module, module)), index) : opened;
}

// Changes the module's index through the one way indexes are written, signed
// with the key (which a signed repository requires); the expiry stays.
Outcome changeIndex(const QString &repoFolder, const QString &module, const QString &secretKeyFile,
                    const std::function<Outcome(PackageIndex &)> &change)
{
    QByteArray secretKey;
    if (const Outcome key = IndexWriter::readKey(repoFolder, secretKeyFile, &secretKey); !key)
        return key;
    QString how;
    return IndexWriter::update(PackageIndex::Module, repoFolder, module, secretKey, IndexWriter::KeepExpiry, change, &how);
}

QList<IndexEntry> newestFirst(const PackageIndex &index)
{
    QList<IndexEntry> entries = index.entries();
    std::stable_sort(entries.begin(), entries.end(),
                     [](const IndexEntry &a, const IndexEntry &b) { return PackageIndex::compareVersions(a.version, b.version) > 0; });
    return entries;
}

// Removes the files of deltas no longer listed by any version.
void removeUnlisted(const QDir &folder, const PackageIndex &index, const QList<DeltaRef> &dropped)
{
    QSet<QString> listed;
    for (const IndexEntry &entry : index.entries()) {
        QList<DeltaRef> deltas;
        QString problem;
        DeltaRef::listOf(entry, &deltas, &problem);
        for (const DeltaRef &delta : qAsConst(deltas))
            listed.insert(delta.package.file);
        listed.insert(entry.file);
    }
    for (const DeltaRef &delta : dropped) {
        if (!listed.contains(delta.package.file))
            QFile::remove(folder.filePath(delta.package.file));
    }
}

} // namespace

Outcome Repository::publishDeltas(const QString &repoFolder, const QString &module, const QString &version, int count,
                                  const QString &secretKeyFile)
{
    QDir folder;
    if (const Outcome opened = openModule(repoFolder, module, &folder); !opened)
        return opened;
    QList<DeltaRef> before;
    QStringList notes;
    PackageIndex written;
    const Outcome changed = changeIndex(repoFolder, module, secretKeyFile, [&](PackageIndex &index) {
        const IndexEntry *found = index.find(version);
        if (!found)
            return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no version %2").arg(module, version));
        IndexEntry entry = *found;
        QString problem;
        DeltaRef::listOf(entry, &before, &problem);
        QList<DeltaRef> deltas;
        int tried = 0;
        for (const IndexEntry &base : newestFirst(index)) {
            if (PackageIndex::compareVersions(base.version, version) >= 0)
                continue;
            if (tried++ >= count)
                break;
            const QString basePackage = folder.filePath(base.file);
            DeltaRef delta;
            delta.from = base.version;
            delta.package.version = version;
            delta.package.file = DeltaRef::fileName(module, base.version, version);
            const QString path = folder.filePath(delta.package.file);
            QString skip;
            FileDigest digest;
            if (!QFileInfo(basePackage).isFile()) {
                skip = QStringLiteral("its package is gone");
            } else if (!PackageIndex::isPlainFileName(delta.package.file)) {
                skip = QStringLiteral("the delta's file name would be too long");
            } else if (const Outcome made = DeltaBuilder::make(module, {basePackage, base.version}, {folder.filePath(entry.file), version}, path);
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
        index.upsert(entry);
        written = index;
        return Outcome::success();
    });
    if (!changed)
        return changed;
    removeUnlisted(folder, written, before);
    return Outcome::success(notes.isEmpty() ? QStringLiteral("no older version to make a delta from") : notes.join(QLatin1String("; ")));
}

Outcome Repository::listDeltas(const QString &repoFolder, const QString &module)
{
    QDir folder;
    PackageIndex index;
    if (const Outcome loaded = loadModule(repoFolder, module, &folder, &index); !loaded)
        return loaded;
    QStringList lines;
    for (const IndexEntry &entry : newestFirst(index)) {
        QList<DeltaRef> deltas;
        QString problem;
        DeltaRef::listOf(entry, &deltas, &problem);
        for (const DeltaRef &delta : qAsConst(deltas)) {
            lines.append(QStringLiteral("%1 from %2: %3, %4 bytes (%5% of %6)%7")
                             .arg(entry.version, delta.from, delta.package.file).arg(delta.package.size)
                             .arg(100.0 * double(delta.package.size) / double(qMax<qint64>(1, entry.size)), 0, 'f', 1).arg(entry.size)
                             .arg(QFileInfo(folder.filePath(delta.package.file)).isFile() ? QString() : QStringLiteral(", file missing")));
        }
    }
    return Outcome::success(lines.join(QLatin1Char('\n')));
}

Outcome Repository::pruneDeltas(const QString &repoFolder, const QString &module, int keep, const QString &secretKeyFile)
{
    QDir folder;
    PackageIndex index;
    if (const Outcome loaded = loadModule(repoFolder, module, &folder, &index); !loaded)
        return loaded;
    const auto older = [keep](const PackageIndex &index) { return newestFirst(index).mid(qMax(0, keep)); };
    QList<DeltaRef> dropped;
    for (const IndexEntry &entry : older(index)) {
        QString problem;
        DeltaRef::listOf(entry, &dropped, &problem);
    }
    if (dropped.isEmpty())
        return Outcome::success(QStringLiteral("no deltas to remove"));
    const Outcome changed = changeIndex(repoFolder, module, secretKeyFile, [&](PackageIndex &current) {
        for (IndexEntry entry : older(current)) {
            DeltaRef::setList(&entry, {});
            current.upsert(entry);
        }
        index = current;
        return Outcome::success();
    });
    if (!changed)
        return changed;
    removeUnlisted(folder, index, dropped);
    return Outcome::success(QStringLiteral("removed %1 deltas").arg(dropped.size()));
}

} // namespace Vindal
