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
// { "keys": { "<repository identity>": <the newest key statement accepted> } }.
const QString KeysKey = QStringLiteral("keys");
const qint64 MaxStateBytes = 4 * 1024 * 1024;

Outcome damaged(const QString &file, const QString &why)
{
    return Outcome::failure(Error::StateFileError,
                            QStringLiteral("the state file \"%1\" %2; the downgrade protection cannot work without it "
                                           "(removing the file forgets every mark)")
                                .arg(file, why),
                            file);
}

// A map of repositories to maps of strings (marks) or to objects (key statements).
bool isMapOf(const QJsonValue &map, QJsonValue::Type type)
{
    if (!map.isObject())
        return false;
    for (const QJsonValue &repository : map.toObject()) {
        if (!repository.isObject())
            return false;
        for (const QJsonValue &value : repository.toObject()) {
            if (type == QJsonValue::String && !value.isString())
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
    if (root->contains(MarksKey) && !isMapOf(root->value(MarksKey), QJsonValue::String))
        return damaged(path, QStringLiteral("is damaged (\"%1\" is not a map of repositories to versions)").arg(MarksKey));
    if (root->contains(KeysKey) && !isMapOf(root->value(KeysKey), QJsonValue::Object))
        return damaged(path, QStringLiteral("is damaged (\"%1\" is not a map of repositories to key statements)").arg(KeysKey));
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
    QJsonObject root;
    const Outcome loaded = read(&root);
    *version = root.value(MarksKey).toObject().value(repository).toObject().value(module).toString();
    return loaded;
}

Outcome StateStore::raise(const QString &repository, const QString &module, const QString &version)
{
    return change([&](QJsonObject *root) {
        QJsonObject marks = root->value(MarksKey).toObject();
        QJsonObject modules = marks.value(repository).toObject();
        const QString current = modules.value(module).toString();
        if (!current.isEmpty() && PackageIndex::compareVersions(version, current) <= 0)
            return QString();
        modules.insert(module, version);
        marks.insert(repository, modules);
        root->insert(MarksKey, marks);
        return QStringLiteral("the mark of %1 %2").arg(module, version);
    });
}

Outcome StateStore::keyStatement(const QString &repository, KeyStatement *statement)
{
    QJsonObject root;
    const Outcome loaded = read(&root);
    const QJsonValue stored = root.value(KeysKey).toObject().value(repository);
    QString error;
    if (loaded && !stored.isUndefined() && !statement->parse(stored.toObject(), &error))
        return damaged(path(), QStringLiteral("is damaged (the key statement kept for %1: %2)").arg(repository, error));
    return loaded;
}

Outcome StateStore::keepKeyStatement(const QString &repository, const KeyStatement &statement)
{
    return change([&](QJsonObject *root) {
        QJsonObject statements = root->value(KeysKey).toObject();
        if (statements.value(repository).toObject().value(QStringLiteral("version")).toInt() >= statement.number)
            return QString();
        statements.insert(repository, statement.toJson());
        root->insert(KeysKey, statements);
        return QStringLiteral("key statement %1").arg(statement.number);
    });
}

Outcome StateStore::read(QJsonObject *root)
{
    QMutexLocker lock(&s_mutex);
    const QString file = path();
    QLockFile processLock(file + QLatin1String(".lock"));
    lockAgainstProcesses(&processLock, file); // read all the same when it cannot be taken
    return load(root);
}

Outcome StateStore::change(const std::function<QString(QJsonObject *root)> &apply)
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
    const QString what = apply(&root);
    if (what.isEmpty())
        return Outcome::success();
    QSaveFile save(file);
    if (!save.open(QIODevice::WriteOnly) || save.write(QJsonDocument(root).toJson()) < 0 || !save.commit())
        return damaged(file, QStringLiteral("cannot be written (%1), so %2 would be lost").arg(save.errorString(), what));
    return Outcome::success();
}

QString StateStore::installed(const QString &repository, const QString &module)
{
    QJsonObject root;
    read(&root);
    return root.value(InstalledKey).toObject().value(repository).toObject().value(module).toString();
}

Outcome StateStore::setInstalled(const QString &repository, const QString &module, const QString &version)
{
    return change([&](QJsonObject *root) {
        QJsonObject repositories = root->value(InstalledKey).toObject();
        QJsonObject modules = repositories.value(repository).toObject();
        if (modules.value(module).toString() == version)
            return QString();
        modules.insert(module, version);
        repositories.insert(repository, modules);
        root->insert(InstalledKey, repositories);
        return QStringLiteral("the installed version of %1").arg(module);
    });
}

} // namespace Vindal
