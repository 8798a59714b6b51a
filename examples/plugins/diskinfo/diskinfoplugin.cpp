#include "diskinfoplugin.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QStorageInfo>
#include <QtCore/QSysInfo>

namespace {

// The install folder usually does not exist yet: its nearest existing
// ancestor lies on the volume it will be created on.
QString nearestExistingFolder(const QString &path)
{
    QFileInfo info(QDir::cleanPath(QDir::fromNativeSeparators(path)));
    while (!info.exists()) {
        const QString parent = info.absolutePath();
        if (parent == info.absoluteFilePath())
            return QString();
        info.setFile(parent);
    }
    return info.absoluteFilePath();
}

} // namespace

void DiskInfoPlugin::CB_apply(const QVariantMap &params, const QString &id)
{
    const QString path = params.value(QStringLiteral("path")).toString();
    QVariantMap result{{QStringLiteral("path"), path}};
    const QString existing = path.isEmpty() ? QString() : nearestExistingFolder(path);
    const QStorageInfo storage(existing);
    if (existing.isEmpty() || !storage.isValid()) {
        result.insert(QStringLiteral("error"), QStringLiteral("no volume for path"));
        emit finished(result, id);
        return;
    }
    result.insert(QStringLiteral("rootPath"), storage.rootPath());
    result.insert(QStringLiteral("fileSystem"), QString::fromUtf8(storage.fileSystemType()));
    result.insert(QStringLiteral("freeBytes"), storage.bytesAvailable());
    result.insert(QStringLiteral("totalBytes"), storage.bytesTotal());
    result.insert(QStringLiteral("readOnly"), storage.isReadOnly());
    result.insert(QStringLiteral("os"), QSysInfo::prettyProductName());
    result.insert(QStringLiteral("kernel"), QSysInfo::kernelType());
    result.insert(QStringLiteral("kernelVersion"), QSysInfo::kernelVersion());
    result.insert(QStringLiteral("architecture"), QSysInfo::currentCpuArchitecture());
    emit finished(result, id);
}
