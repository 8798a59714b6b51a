#include "deltabuilder_p.h"

#include "binarypatch_p.h"
#include "deltamanifest_p.h"
#include "digest_p.h"
#include "fspath_p.h"

#include <vindal/filedigest.h>
#include <vindal/package.h>

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QMap>
#include <QtCore/QSaveFile>
#include <QtCore/QSet>
#include <QtCore/QTemporaryDir>

namespace Vindal {

namespace {

struct Tree
{
    QMap<QString, QString> states; // path -> state (see DeltaManifest)
    QMap<QString, int> modes;
    QSet<QString> folders;
};

Outcome readTree(const QString &root, Tree *tree)
{
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = QDir(root).relativeFilePath(path);
        if (info.isSymLink()) {
            std::error_code error;
            tree->states.insert(relative, DeltaManifest::linkState(fromFsPath(std::filesystem::read_symlink(toFsPath(path), error))));
        } else if (info.isDir()) {
            tree->folders.insert(relative);
        } else {
            Digest digest(Digest::Sha256);
            if (!digest.addFile(path))
                return Outcome::failure(Error::NotFound, QStringLiteral("cannot read \"%1\"").arg(path), path);
            tree->states.insert(relative, digest.hex());
            tree->modes.insert(relative, int(std::filesystem::status(toFsPath(path)).permissions()) & 0777);
        }
    }
    return Outcome::success();
}

// Diffs the file, keeping the patch only when it is smaller than the file.
bool makePatch(const QString &oldFile, const QString &newFile, const QString &patchFile)
{
    if (QFileInfo(oldFile).size() > BinaryPatch::maxDiffSize() || QFileInfo(newFile).size() > BinaryPatch::maxDiffSize())
        return false;
    QFile patch(patchFile);
    QString error;
    if (!patch.open(QIODevice::WriteOnly) || !BinaryPatch::make(oldFile, newFile, &patch, &error))
        return false;
    return patch.size() < QFileInfo(newFile).size();
}

} // namespace

Outcome DeltaBuilder::make(const QString &module, const Version &from, const Version &to, const QString &output)
{
    // Beside the output: the unpacked versions may be large, and the
    // delta's files are renamed, not copied, into place.
    QTemporaryDir scratch(QFileInfo(output).absolutePath() + QLatin1String("/.delta-XXXXXX"));
    if (!scratch.isValid())
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot create a scratch folder beside \"%1\"").arg(output), output);
    const QString oldRoot = scratch.filePath(QStringLiteral("old"));
    const QString newRoot = scratch.filePath(QStringLiteral("new"));
    const QString deltaRoot = scratch.filePath(QStringLiteral("delta"));
    Tree oldTree;
    Tree newTree;
    for (const auto &[package, root, tree] : {std::make_tuple(from.package, oldRoot, &oldTree), std::make_tuple(to.package, newRoot, &newTree)}) {
        Outcome outcome = Package::extract(package, root);
        if (outcome)
            outcome = readTree(root, tree);
        if (!outcome)
            return outcome;
    }
    const FileDigest digest = FileDigest::ofFile(to.package);
    DeltaManifest manifest;
    manifest.module = module;
    manifest.from = from.version;
    manifest.to = to.version;
    manifest.packageSha256 = digest.sha256;
    manifest.packageSize = digest.size;
    manifest.folders = QStringList(newTree.folders.cbegin(), newTree.folders.cend());
    manifest.folders.sort();
    for (const QString &folder : qAsConst(oldTree.folders)) {
        if (newTree.states.contains(folder))
            return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" turns from a folder into a file").arg(folder), folder);
        if (!newTree.folders.contains(folder))
            manifest.removedFolders.append(folder);
    }
    QMap<QString, QString> paths = oldTree.states;
    paths.insert(newTree.states);
    QDir().mkpath(deltaRoot + QLatin1String("/files"));
    for (auto it = paths.cbegin(); it != paths.cend(); ++it) {
        DeltaManifest::File file;
        file.path = it.key();
        file.oldState = oldTree.states.value(file.path);
        file.newState = newTree.states.value(file.path);
        file.mode = newTree.modes.value(file.path, 0644);
        if (newTree.folders.contains(file.path))
            return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" turns from a file into a folder").arg(file.path), file.path);
        const QString payload = deltaRoot + QLatin1Char('/') + DeltaManifest::payloadName(manifest.files.size());
        const QString newFile = newRoot + QLatin1Char('/') + file.path;
        if (file.newState == file.oldState) {
            file.how = DeltaManifest::Same;
        } else if (file.newState.isEmpty()) {
            file.how = DeltaManifest::Remove;
        } else if (DeltaManifest::isLinkState(file.newState)) {
            file.how = DeltaManifest::Link;
        } else {
            file.size = QFileInfo(newFile).size();
            const bool patched = !file.oldState.isEmpty() && !DeltaManifest::isLinkState(file.oldState)
                && makePatch(oldRoot + QLatin1Char('/') + file.path, newFile, payload);
            file.how = patched ? DeltaManifest::Patch : DeltaManifest::Whole;
            if (!patched && !(QFile::remove(payload), QFile::rename(newFile, payload)))
                return Outcome::failure(Error::DiskFull, QStringLiteral("cannot move \"%1\" into the delta").arg(newFile), newFile);
        }
        manifest.files.append(file);
    }
    const QByteArray json = manifest.toJson();
    if (json.size() > DeltaManifest::MaxBytes)
        return Outcome::failure(Error::ConfigError,
                                QStringLiteral("the manifest would be larger than %1 bytes (%2 paths)").arg(DeltaManifest::MaxBytes).arg(paths.size()));
    QSaveFile manifestFile(deltaRoot + QLatin1Char('/') + QLatin1String(DeltaManifest::ManifestName));
    if (!manifestFile.open(QIODevice::WriteOnly) || manifestFile.write(json) != json.size() || !manifestFile.commit())
        return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write the manifest: %1").arg(manifestFile.errorString()));
    // The files a delta carries are compressed (patches already are; the
    // archive's zstd finds little more in them).
    const Outcome created = Package::create(deltaRoot, output);
    if (!created)
        return created;
    return Outcome::success(QStringLiteral("%1 -> %2: %3 bytes").arg(from.version, to.version).arg(QFileInfo(output).size()));
}

} // namespace Vindal
