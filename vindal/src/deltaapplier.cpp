#include "deltaapplier_p.h"

#include "archiveextractor_p.h"
#include "archivesource_p.h"
#include "binarypatch_p.h"
#include "digest_p.h"
#include "fspath_p.h"
#include "logging_p.h"
#include "plainfile_p.h"

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QSaveFile>
#include <QtCore/QThread>

#include <archive_entry.h>

#include <memory>
#include <system_error>

namespace Vindal {

namespace {

const char WorkFolder[] = ".vindal-delta";
const char TemporaryPrefix[] = ".vindal-delta-";
const char JournalName[] = "journal.json";
// A patch may make a file this large whatever its own size (beyond the old
// file's size); beyond it, at most the unpacking's ratio times the patch.
const qint64 MinimumPatchOutput = Q_INT64_C(32) * 1024 * 1024;
// Progress runs on this scale: unpacking the delta, checking the installed
// files and writing the new ones are shares of one bar.
const qint64 Scale = 1000000;

// The new file as it is written: never more bytes than the manifest
// announced. (Its SHA-256 the patch itself checks.)
class CheckedFile : public QFile
{
public:
    CheckedFile(const QString &path, qint64 limit) : QFile(path), m_limit(limit) {}
    qint64 written() const { return m_written; }

protected:
    qint64 writeData(const char *data, qint64 size) override
    {
        if (size > m_limit - m_written) {
            setErrorString(QStringLiteral("the patch makes more than the %1 bytes the manifest names").arg(m_limit));
            return -1;
        }
        m_written += size;
        return QFile::writeData(data, size);
    }

private:
    qint64 m_limit;
    qint64 m_written = 0;
};

Outcome refused(const QString &why, const QString &subject = QString())
{
    return Outcome::failure(Error::CorruptArchive, QStringLiteral("delta refused: %1").arg(why), subject);
}

Outcome writeError(const QString &path, const QString &why)
{
    return Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(path, why), path);
}

// The state of root/relative as the manifest writes states; "?" for a
// folder, a special file, a path through a link, or a file that cannot be
// read: none of them is a state a delta starts from.
QString stateOf(const QString &root, const QString &relative)
{
    const QStringList parts = relative.split(QLatin1Char('/'));
    QString path = root;
    for (int i = 0; i < parts.size(); ++i) {
        path += QLatin1Char('/') + parts.at(i);
        const QFileInfo info(path);
        if (info.isSymLink()) {
            if (i + 1 < parts.size())
                return QStringLiteral("?");
            std::error_code error;
            const auto target = std::filesystem::read_symlink(toFsPath(path), error);
            return error ? QStringLiteral("?") : DeltaManifest::linkState(fromFsPath(target));
        }
        if (!info.exists())
            return QString();
        if (i + 1 < parts.size() && !info.isDir())
            return QStringLiteral("?");
    }
    if (!QFileInfo(path).isFile())
        return QStringLiteral("?");
    Digest digest(Digest::Sha256);
    return digest.addFile(path) ? digest.hex() : QStringLiteral("?");
}

QString temporaryOf(const QString &root, const DeltaManifest::File &file, int index)
{
    const QString folder = QFileInfo(root + QLatin1Char('/') + file.path).path();
    return folder + QLatin1Char('/') + QLatin1String(TemporaryPrefix) + QString::number(index);
}

// Makes the folders of relative below root, refusing to go through a link.
bool makeFolders(const QString &root, const QString &relative, QString *error)
{
    QString path = root;
    for (const QString &part : relative.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        path += QLatin1Char('/') + part;
        const QFileInfo info(path);
        if (info.isSymLink() || (info.exists() && !info.isDir())) {
            *error = QStringLiteral("\"%1\" is in the way of a folder").arg(path);
            return false;
        }
        if (!info.exists() && !QDir().mkdir(path)) {
            *error = QStringLiteral("\"%1\" cannot be created").arg(path);
            return false;
        }
    }
    return true;
}

// A folder the user made where a removed file was stays theirs.
bool removeEntry(const QString &path)
{
    const QFileInfo info(path);
    return !(info.isSymLink() || info.isFile()) || QFile::remove(path);
}

// Runs the journal's renames; a rename already done has no temporary file
// left and is skipped, so a journal can be run any number of times.
bool runJournal(const QString &root, const QJsonObject &journal)
{
    bool ok = true;
    const QByteArray hold = qgetenv("VINDAL_TEST_HOLD_RENAMES"); // a test kills the process here
    int done = 0;
    for (const QJsonValue &move : journal.value(QStringLiteral("moves")).toArray()) {
        const QString from = root + QLatin1Char('/') + move.toArray().at(0).toString();
        const QString to = root + QLatin1Char('/') + move.toArray().at(1).toString();
        if (!QFileInfo(from).exists() && !QFileInfo(from).isSymLink())
            continue;
        QString error;
        if (QFileInfo(to).isDir() && !QFileInfo(to).isSymLink()) {
            qCWarning(lcVindal).noquote() << "a folder stands where" << to << "goes";
            ok = false;
            continue;
        }
        if (!PlainFile::replace(from, to, &error)) {
            qCWarning(lcVindal).noquote() << "cannot rename" << from << "to" << to << error;
            ok = false;
        }
        if (++done == 1 && !hold.isEmpty()) {
            PlainFile::write(QString::fromLocal8Bit(hold), "renaming", &error);
            for (;;)
                QThread::sleep(1);
        }
    }
    for (const QJsonValue &gone : journal.value(QStringLiteral("remove")).toArray())
        ok = removeEntry(root + QLatin1Char('/') + gone.toString()) && ok;
    // Deepest first; a folder that still holds something (the user's) stays.
    QStringList folders;
    for (const QJsonValue &folder : journal.value(QStringLiteral("removedFolders")).toArray())
        folders.append(folder.toString());
    std::sort(folders.begin(), folders.end(), [](const QString &a, const QString &b) { return a.size() > b.size(); });
    for (const QString &folder : qAsConst(folders))
        QDir(root).rmdir(folder);
    return ok;
}

} // namespace

DeltaApplier::DeltaApplier(const QString &deltaFile, const QString &targetFolder, const ExtractLimits &limits)
    : m_delta(deltaFile)
    , m_target(targetFolder)
    , m_limits(limits)
{
}

void DeltaApplier::expect(const QString &module, const QString &version, const QString &packageSha256)
{
    m_expectModule = module;
    m_expectVersion = version;
    m_expectSha256 = packageSha256;
}

bool DeltaApplier::isDelta(const QString &packageFile)
{
    const auto reader = ArchiveExtractor::newReader();
    ArchiveSource source(packageFile);
    struct archive_entry *entry = nullptr;
    if (!source.open(reader.get()) || archive_read_open1(reader.get()) != ARCHIVE_OK
        || archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK)
        return false;
    const char *name = archive_entry_pathname(entry);
    return name && qstrcmp(name, DeltaManifest::ManifestName) == 0;
}

void DeltaApplier::removeDropped(const DeltaManifest &manifest, const QString &targetFolder)
{
    const QString root = QFileInfo(targetFolder).canonicalFilePath();
    QJsonArray removals;
    for (const DeltaManifest::File &file : manifest.files) {
        if (file.how == DeltaManifest::Remove && stateOf(root, file.path) == file.oldState)
            removals.append(file.path);
    }
    if (!root.isEmpty())
        runJournal(root, QJsonObject{{QStringLiteral("remove"), removals},
                                     {QStringLiteral("removedFolders"), QJsonArray::fromStringList(manifest.removedFolders)}});
}

void DeltaApplier::recover(const QString &targetFolder)
{
    finishWork(QFileInfo(targetFolder).canonicalFilePath(), true);
}

bool DeltaApplier::finishWork(const QString &root, bool earlierRun)
{
    const QString work = root + QLatin1Char('/') + QLatin1String(WorkFolder);
    if (root.isEmpty() || !QFileInfo(work).isDir() || QFileInfo(work).isSymLink())
        return true;
    QFile file(work + QLatin1Char('/') + QLatin1String(JournalName));
    if (file.open(QIODevice::ReadOnly) && file.size() <= DeltaManifest::MaxBytes) {
        const QJsonObject journal = QJsonDocument::fromJson(file.readAll()).object();
        file.close();
        if (earlierRun)
            qCInfo(lcVindal).noquote() << "completing the delta to" << journal.value(QStringLiteral("to")).toString()
                                       << "that an interrupted run left in" << root;
        if (!runJournal(root, journal))
            return false; // the journal stays for the next attempt
    }
    // Renamed into place or never to be: what is left of the files goes.
    QDirIterator it(root, {QString::fromLatin1(TemporaryPrefix) + QLatin1Char('*')}, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        QFile::remove(it.next());
    QDir(work).removeRecursively();
    return true;
}

Outcome DeltaApplier::run(const ProgressCallback &progress)
{
    qint64 shown = 0;
    const auto report = [&](double fraction) {
        shown = qMax(shown, qint64(fraction * Scale));
        return !progress || progress(qMin(shown, Scale - 1), Scale);
    };
    const Outcome cancelled = Outcome::failure(Error::Cancelled, QStringLiteral("unpacking was cancelled"));
    if (!QDir().mkpath(m_target))
        return writeError(m_target, QStringLiteral("the target folder cannot be created"));
    recover(m_target);
    m_root = QFileInfo(m_target).canonicalFilePath();
    m_work = m_root + QLatin1Char('/') + QLatin1String(WorkFolder);
    const QString payload = m_work + QLatin1String("/payload");
    QDir(m_work).removeRecursively();

    // The payload goes through the unpacking's every check and limit.
    Outcome outcome = ArchiveExtractor(m_delta, payload, m_limits).run([&](qint64 done, qint64 total) {
        return report(0.3 * double(done) / double(qMax<qint64>(1, total)));
    });
    if (outcome) {
        // Closed before the work folder goes: Windows removes no open file.
        QFile manifestFile(payload + QLatin1Char('/') + QLatin1String(DeltaManifest::ManifestName));
        QString error;
        if (!manifestFile.open(QIODevice::ReadOnly) || !m_manifest.parse(manifestFile.read(DeltaManifest::MaxBytes + 1), &error))
            outcome = refused(error.isEmpty() ? QStringLiteral("no manifest") : error, m_delta);
    }
    if (outcome && !m_expectSha256.isEmpty()
        && (m_manifest.module != m_expectModule || m_manifest.to != m_expectVersion || m_manifest.packageSha256 != m_expectSha256)) {
        outcome = refused(QStringLiteral("it makes %1 %2 (package %3), not %4 %5 (package %6)")
                              .arg(m_manifest.module, m_manifest.to, m_manifest.packageSha256, m_expectModule, m_expectVersion, m_expectSha256),
                          m_delta);
    }
    m_bound = bool(outcome);
    QList<int> todo;
    if (outcome)
        outcome = checkBase(&todo, [&](qint64 index) { return report(0.3 + 0.3 * double(index) / double(qMax(1, m_manifest.files.size()))); });
    qint64 total = 0;
    for (int index : qAsConst(todo))
        total += m_manifest.files.at(index).size;
    if (outcome && total > m_limits.maxTotalBytes)
        outcome = refused(QStringLiteral("it writes more than %1 bytes").arg(m_limits.maxTotalBytes), m_delta);
    qint64 written = 0;
    for (int i = 0; outcome && i < todo.size(); ++i) {
        outcome = prepare(todo.at(i), &written);
        if (outcome && !report(0.6 + 0.4 * double(written) / double(qMax<qint64>(1, total))))
            outcome = cancelled;
    }
    if (outcome)
        outcome = writeJournal(todo);
    if (!outcome) {
        cleanUp();
        return outcome;
    }
    if (!finishWork(m_root, false))
        return writeError(m_work, QStringLiteral("the delta's renames did not all succeed; the next unpack completes them"));
    if (progress && !progress(Scale, Scale))
        return cancelled;
    qCInfo(lcVindal).noquote() << "applied the delta" << m_manifest.from << "to" << m_manifest.to << "to" << m_root << ":"
                               << todo.size() << "of" << m_manifest.files.size() << "paths changed";
    return Outcome::success();
}

Outcome DeltaApplier::checkBase(QList<int> *todo, const std::function<bool(qint64)> &progress)
{
    for (int i = 0; i < m_manifest.files.size(); ++i) {
        const DeltaManifest::File &file = m_manifest.files.at(i);
        const QString state = stateOf(m_root, file.path);
        if (state != file.oldState && state != file.newState) {
            m_baseMismatch = true;
            return Outcome::failure(Error::ChecksumMismatch,
                                    QStringLiteral("\"%1\" is not what version %2 installed (%3), so the delta to %4 does not apply")
                                        .arg(file.path, m_manifest.from,
                                             state.isEmpty() ? QStringLiteral("missing") : file.oldState.isEmpty() ? QStringLiteral("in the way")
                                                                                                                    : QStringLiteral("changed"),
                                             m_manifest.to),
                                    file.path);
        }
        if (state != file.newState)
            todo->append(i);
        if (!progress(i))
            return Outcome::failure(Error::Cancelled, QStringLiteral("unpacking was cancelled"));
    }
    return Outcome::success();
}

Outcome DeltaApplier::prepare(int index, qint64 *written)
{
    const DeltaManifest::File &file = m_manifest.files.at(index);
    if (file.how == DeltaManifest::Remove)
        return Outcome::success();
    const QString target = m_root + QLatin1Char('/') + file.path;
    const QString temporary = temporaryOf(m_root, file, index);
    const QString payload = m_work + QLatin1String("/payload/") + DeltaManifest::payloadName(index);
    QString error;
    if (!makeFolders(m_root, QFileInfo(file.path).path() == QLatin1String(".") ? QString() : QFileInfo(file.path).path(), &error))
        return writeError(target, error);
    QFile::remove(temporary);
    if (file.how == DeltaManifest::Link) {
        std::error_code code;
        std::filesystem::create_symlink(toFsPath(file.newState.mid(5)), toFsPath(temporary), code);
        return code ? writeError(temporary, QString::fromLocal8Bit(code.message().c_str())) : Outcome::success();
    }
    if (file.how == DeltaManifest::Whole) {
        // Unpacked on the same disk already: renamed, not copied, then checked.
        Digest digest(Digest::Sha256);
        if (!PlainFile::replace(payload, temporary, &error) || !digest.addFile(temporary) || QFileInfo(temporary).size() != file.size
            || digest.hex() != file.newState)
            return refused(QStringLiteral("\"%1\" of the delta is not the file the manifest names").arg(file.path), file.path);
        QFile::setPermissions(temporary, ArchiveExtractor::permissionsOf(file.mode, false));
        *written += file.size;
        return Outcome::success();
    }
    // A hostile patch may not fill the disk: the manifest's size is believed
    // only as far as the patch's own size makes it plausible.
    const qint64 plausible = qMax(QFileInfo(target).size(), MinimumPatchOutput) + m_limits.maxRatio * QFileInfo(payload).size();
    if (file.size > plausible)
        return refused(QStringLiteral("the patch of \"%1\" claims %2 bytes").arg(file.path).arg(file.size), file.path);
    CheckedFile out(temporary, file.size);
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return writeError(temporary, out.errorString());
    QFile patch(payload);
    QString sha256;
    if (!patch.open(QIODevice::ReadOnly) || !BinaryPatch::apply(target, &patch, &out, &error, &sha256))
        return refused(QStringLiteral("the patch of \"%1\" does not apply: %2").arg(file.path, error.isEmpty() ? patch.errorString() : error),
                       file.path);
    if (!out.flush())
        return writeError(temporary, out.errorString());
    if (out.written() != file.size || sha256 != file.newState)
        return refused(QStringLiteral("\"%1\" does not come out as the manifest says (SHA-256 %2, %3 bytes)")
                           .arg(file.path, sha256).arg(out.written()),
                       file.path);
    out.setPermissions(ArchiveExtractor::permissionsOf(file.mode, false));
    *written += file.size;
    return Outcome::success();
}

Outcome DeltaApplier::writeJournal(const QList<int> &todo)
{
    QJsonArray moves;
    QJsonArray removals;
    for (int index : todo) {
        const DeltaManifest::File &file = m_manifest.files.at(index);
        if (file.how == DeltaManifest::Remove)
            removals.append(file.path);
        else
            moves.append(QJsonArray{QDir(m_root).relativeFilePath(temporaryOf(m_root, file, index)), file.path});
    }
    QString error;
    for (const QString &folder : qAsConst(m_manifest.folders)) {
        if (!makeFolders(m_root, folder, &error))
            return writeError(m_root + QLatin1Char('/') + folder, error);
    }
    const QJsonObject journal{{QStringLiteral("to"), m_manifest.to},
                              {QStringLiteral("moves"), moves},
                              {QStringLiteral("remove"), removals},
                              {QStringLiteral("removedFolders"), QJsonArray::fromStringList(m_manifest.removedFolders)}};
    // The point of no return: once the journal is on the disk, the renames
    // happen, in this run or the next.
    QSaveFile save(m_work + QLatin1Char('/') + QLatin1String(JournalName));
    if (!save.open(QIODevice::WriteOnly) || save.write(QJsonDocument(journal).toJson()) < 0 || !save.commit())
        return writeError(save.fileName(), save.errorString());
    return Outcome::success();
}

void DeltaApplier::cleanUp()
{
    for (int i = 0; i < m_manifest.files.size(); ++i) {
        const QString temporary = temporaryOf(m_root, m_manifest.files.at(i), i);
        if (QFileInfo(temporary).exists() || QFileInfo(temporary).isSymLink())
            QFile::remove(temporary);
    }
    QDir(m_work).removeRecursively();
}

} // namespace Vindal
