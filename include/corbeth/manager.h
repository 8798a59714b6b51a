#ifndef CORBETH_MANAGER_H
#define CORBETH_MANAGER_H

#include <corbeth/cbenum.h>
#include <corbeth/corbeth_export.h>
#include <corbeth/hardwareinfo.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <functional>
#include <memory>

namespace Corbeth {

class ManagerPrivate;

// The one class a client program uses. Create it in the client's main thread,
// give it a configuration (setConfigPath or setConfigData), call initRemote()
// before any online work, then start one task and follow taskStatusChanged,
// progress and errorOccurred until the task's finished signal and finished()
// arrive. Every method forwards to the engine; call them from the thread that
// created the manager. Destroying the manager tears the engine down, so the
// next manager starts with a fresh one.
class CORBETH_EXPORT Manager : public QObject
{
    Q_OBJECT
public:
    explicit Manager(QObject *parent = nullptr);
    ~Manager() override;

    CBEnum::ErrorCode setConfigPath(QString path);
    CBEnum::ErrorCode setConfigData(QVariantMap data);
    const QVariantMap configData();
    CBEnum::ErrorCode initRemote();

    void offlineInstall(QString path);
    void downloadPackage(QString path);
    bool installPackage();
    bool installPatch();
    bool uninstallPackage(QString flow);
    void uncompressPackage(const QString &package, const QString &folder);
    void installing(QString path);
    void getHardwareInfo();

    bool searchOfflinePackage(const QString &dir, QString &found, QString suffix);
    bool checkIfOfflineInstall();
    bool checkOldSoftwareIsExist();
    bool checkSelfUpdateAndDownload();
    void uninstallOldSoftware();
    void revocateInstall();
    void removeUpdateDir();
    void suicide();
    bool isSuicide() const;

    bool setCurrentAddtions(QStringList additions);
    void setForceInstall(bool force);
    void setNeedUninstallOlder(bool need);
    void setInstallPath(QString path);
    void setInstallCallback(std::function<CBEnum::ErrorCode()> callback);
    QString installPath() const;
    QString olderSoftwarePath() const;
    QVariantMap packageInfo() const;
    qint64 packageSize();
    // Asks the repository, without downloading anything, which newer versions
    // of the configured module this client is offered (its channel and its
    // place in staged rollouts applied). info receives "current" (the version
    // delivered here before, empty when none), "channel" and "upgrades" (the
    // offered versions newest first, each with "version", "size" and
    // "deltaSize", -1 without a delta; empty when up to date). Needs
    // initRemote() first; blocks in a local event loop until the answer.
    CBEnum::ErrorCode checkUpdate(QVariantMap &info);
    uint taskStatus() const;

public slots:
    bool onlineInstall(QString path);
    CBEnum::ErrorCode requestPlugin(const QString &name, const QVariantMap &params = QVariantMap(),
                                    QString &ID = *std::make_unique<QString>());

signals:
    void onlineInstallFinished();
    void progress(double progress);
    void errorOccurred(CBEnum::ErrorCode error);
    void installPathChanged();
    void installPackageFinished();
    void uninstallPackageFinished();
    void selfUpgradeFinished();
    void finished();
    void taskStatusChanged(uint taskStatus);
    void getHardwareInfoFinished(const HardwareInfo &info);
    void pluginFinished(const QString &name, const QVariantMap &params, const QString &ID);
    void initRemotedSuccess();
    void installingFinished();
    void uncompressPackageFinished();
    void downloadPackageFinished();

private:
    Q_DISABLE_COPY(Manager)
    friend class ManagerPrivate;
    ManagerPrivate *d;
};

} // namespace Corbeth

#endif // CORBETH_MANAGER_H
