#ifndef VINDAL_MANAGER_H
#define VINDAL_MANAGER_H

#include <vindal/reply.h>
#include <vindal/vdbasicinfo.h>
#include <vindal/vindal_export.h>

#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

namespace Vindal {

class ManagerPrivate;

// The client of a static package repository. Lives on one thread (its own
// network access runs there); every request returns a Reply at once and
// reports through it.
class VINDAL_EXPORT Manager : public QObject
{
    Q_OBJECT
public:
    enum PackageType {
        InstallerPackage = 0,
        ModulePackage = 1,
    };
    Q_ENUM(PackageType)

    explicit Manager(QObject *parent = nullptr);
    ~Manager() override;

    Reply *setConfigPath(const QString &path);
    Reply *setConfigData(const QVariantMap &config);

    Reply *downloadModule(const QString &module, const VDBasicInfo &info);
    Reply *downloadOfflineModule(const QString &module, const VDBasicInfo &info);
    // Unpacks packageFile into targetFolder, reporting through reply.
    void loadOfflinePackage(Reply *reply, const QString &packageFile, const QString &targetFolder);

    Reply *checkUpgrade(const QString &programFolder, const QString &modelCode, const QString &environment,
                        const QString &protocolVersion, const QString &os, const QString &lang, int limit,
                        const QStringList &installed, const QStringList &options);
    Reply *startUpgrade(const QString &modelCode, const QString &version, PackageType type);

    // The description of the package last resolved; callable from any thread.
    QVariantMap packageInfo() const;

private:
    ManagerPrivate *d;
};

} // namespace Vindal

#endif // VINDAL_MANAGER_H
