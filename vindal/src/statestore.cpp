#include "statestore_p.h"

#include "logging_p.h"
#include "packageindex_p.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QLockFile>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QSaveFile>
#include <QtCore/QStandardPaths>

namespace Vindal {

namespace {

QMutex s_mutex; // several managers of one process share the file
// How long a change waits for another process's; each takes milliseconds.
const int LockWaitMs = 30000;

// { "marks": { "<repository identity>": { "<module>": "<version>" } } }.
// Other keys (marks of earlier versions, keyed by module alone) are kept
// as they are.
const QString MarksKey = QStringLiteral("marks");
// { "installed": { "<repository identity>": { "<module>": "<version>" } } }:
// the version last unpacked, which a delta update starts from.
const QString InstalledKey = QStringLiteral("installed");
const qint64 MaxStateBytes = 4 * 1024 * 1024;

Outcome damaged(const QString &file, const QString &why)
{
    return Outcome::failure(Error::StateFileError,
                            QStringLiteral("the state file \"%1\" %2; the downgrade protection cannot work without it "
                                           "(removing the file forgets every mark)")
                                .arg(file, why),
                            file);
}

bool isMarks(const QJsonValue &marks)
{
    if (!marks.isObject())
        return false;
    for (const QJsonValue &repository : marks.toObject()) {
        if (!repository.isObject())
            return false;
        for (const QJsonValue &version : repository.toObject()) {
            if (!version.isString())
                return false;
        }
    }
    return true;
}

Outcome load(QJsonObject *root)
{
    const QString path = StateStore::path();
    *root = QJsonObject();
    QFile file(path);
    if (!file.exists())
        return Outcome::success();
    if (!file.open(QIODevice::ReadOnly))
        return damaged(path, QStringLiteral("cannot be read (%1)").arg(file.errorString()));
    if (file.size() > MaxStateBytes)
        return damaged(path, QStringLiteral("is larger than %1 bytes").arg(MaxStateBytes));
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (!doc.isObject())
        return damaged(path, QStringLiteral("is damaged (%1)").arg(error.error != QJsonParseError::NoError ? error.errorString()
                                                                                                          : QStringLiteral("not a JSON object")));
    *root = doc.object();
    if (root->contains(MarksKey) && !isMarks(root->value(MarksKey)))
        return damaged(path, QStringLiteral("is damaged (\"%1\" is not a map of repositories to versions)").arg(MarksKey));
    return Outcome::success();
}

// Other processes use the file too. Changing it (reading, changing and
// writing in one step) and, since Windows cannot replace a file another
// process holds open, reading it are done under one lock file beside it.
bool lockAgainstProcesses(QLockFile *lock, const QString &file)
{
    QDir().mkpath(QFileInfo(file).absolutePath());
    lock->setStaleLockTime(0); // only a lock whose process is gone is stale
    return lock->tryLock(LockWaitMs);
}

} // namespace

QString StateStore::path()
{
    const QString overridden = qEnvironmentVariable("VINDAL_STATE_FILE");
    if (!overridden.isEmpty())
        return overridden;
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QLatin1String("/vindal/state.json");
}

Outcome StateStore::highWater(const QString &repository, const QString &module, QString *version)
{
    QMutexLocker lock(&s_mutex);
    const QString file = path();
    QLockFile processLock(file + QLatin1String(".lock"));
    lockAgainstProcesses(&processLock, file); // read all the same when it cannot be taken
    QJsonObject root;
    const Outcome loaded = load(&root);
    *version = root.value(MarksKey).toObject().value(repository).toObject().value(module).toString();
    return loaded;
}

Outcome StateStore::raise(const QString &repository, const QString &module, const QString &version)
{
    return change(MarksKey, repository, module, QStringLiteral("the mark of %1 %2").arg(module, version), [&version](const QString &current) {
        return current.isEmpty() || PackageIndex::compareVersions(version, current) > 0 ? version : current;
    });
}

QString StateStore::installed(const QString &repository, const QString &module)
{
    QMutexLocker lock(&s_mutex);
    const QString file = path();
    QLockFile processLock(file + QLatin1String(".lock"));
    lockAgainstProcesses(&processLock, file);
    QJsonObject root;
    load(&root);
    return root.value(InstalledKey).toObject().value(repository).toObject().value(module).toString();
}

Outcome StateStore::setInstalled(const QString &repository, const QString &module, const QString &version)
{
    return change(InstalledKey, repository, module, QStringLiteral("the installed version of %1").arg(module),
                  [&version](const QString &) { return version; });
}

Outcome StateStore::change(const QString &key, const QString &repository, const QString &module, const QString &what,
                           const std::function<QString(const QString &)> &newValue)
{
    QMutexLocker lock(&s_mutex);
    const QString file = path();
    QLockFile processLock(file + QLatin1String(".lock"));
    if (!lockAgainstProcesses(&processLock, file)) {
        return damaged(file, processLock.error() == QLockFile::LockFailedError
                                 ? QStringLiteral("stayed locked by another process for %1 s").arg(LockWaitMs / 1000)
                                 : QStringLiteral("cannot be locked (\"%1.lock\" cannot be created)").arg(file));
    }
    QJsonObject root;
    const Outcome loaded = load(&root);
    if (!loaded)
        return loaded;
    QJsonObject repositories = root.value(key).toObject();
    QJsonObject modules = repositories.value(repository).toObject();
    const QString current = modules.value(module).toString();
    const QString value = newValue(current);
    if (value == current)
        return Outcome::success();
    modules.insert(module, value);
    repositories.insert(repository, modules);
    root.insert(key, repositories);

    QSaveFile save(file);
    if (!save.open(QIODevice::WriteOnly) || save.write(QJsonDocument(root).toJson()) < 0 || !save.commit())
        return damaged(file, QStringLiteral("cannot be written (%1), so %2 would be lost").arg(save.errorString(), what));
    return Outcome::success();
}

} // namespace Vindal
