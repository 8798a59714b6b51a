#include "statestore_p.h"

#include "logging_p.h"
#include "packageindex_p.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QSaveFile>
#include <QtCore/QStandardPaths>

namespace Vindal {

namespace {

QMutex s_mutex; // several managers of one process share the file

const QString HighWaterKey = QStringLiteral("highWater");

QJsonObject load()
{
    QFile file(StateStore::path());
    if (!file.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(file.read(1 << 20)).object();
}

} // namespace

QString StateStore::path()
{
    const QString overridden = qEnvironmentVariable("VINDAL_STATE_FILE");
    if (!overridden.isEmpty())
        return overridden;
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QLatin1String("/vindal/state.json");
}

QString StateStore::highWater(const QString &module)
{
    QMutexLocker lock(&s_mutex);
    return load().value(HighWaterKey).toObject().value(module).toString();
}

bool StateStore::raise(const QString &module, const QString &version)
{
    QMutexLocker lock(&s_mutex);
    QJsonObject root = load();
    QJsonObject marks = root.value(HighWaterKey).toObject();
    const QString current = marks.value(module).toString();
    if (!current.isEmpty() && PackageIndex::compareVersions(version, current) <= 0)
        return true;
    marks.insert(module, version);
    root.insert(HighWaterKey, marks);

    const QString file = path();
    QDir().mkpath(QFileInfo(file).absolutePath());
    QSaveFile save(file);
    if (!save.open(QIODevice::WriteOnly) || save.write(QJsonDocument(root).toJson()) < 0 || !save.commit()) {
        qCWarning(lcVindal) << "cannot write the state file" << file << save.errorString();
        return false;
    }
    return true;
}

} // namespace Vindal
