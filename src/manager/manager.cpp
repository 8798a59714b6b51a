// The exported facade: every call forwards to ManagerPrivate.
#include <corbeth/manager.h>

#include "buildinfo_p.h"
#include "config/configer.h"
#include "installer/installer.h"
#include "logging_p.h"
#include "manager/managerprivate.h"
#include "modules/vindaler.h"
#include "types/metatypes_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMetaEnum>
#include <QtCore/QThread>

namespace Corbeth {

namespace {

void logError(CBEnum::ErrorCode error)
{
    qCCritical(lcCorbeth) << "errorOccured" << QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(error);
}

} // namespace

Manager::Manager(QObject *parent)
    : QObject(parent)
    , d(new ManagerPrivate(this))
{
    if (lcCorbeth().isDebugEnabled())
        qCDebug(lcCorbeth) << "Corbeth" << CORBETH_VERSION << CORBETH_BUILD_ID << QThread::currentThread()
                           << QT_VERSION_STR;
    registerMetaTypes();
    connect(this, &Manager::errorOccurred, this, &logError, Qt::DirectConnection);
    connect(d, &ManagerPrivate::progress, this, &Manager::progress);
    connect(d, &ManagerPrivate::errorOccurred, this, &Manager::errorOccurred);
    connect(d, &ManagerPrivate::installPackageFinished, this, &Manager::installPackageFinished);
    connect(d, &ManagerPrivate::installPathChanged, this, &Manager::installPathChanged);
    connect(d, &ManagerPrivate::finished, this, &Manager::finished);
    connect(d, &ManagerPrivate::onlineInstallFinished, this, &Manager::onlineInstallFinished);
    connect(d, &ManagerPrivate::taskStatusChanged, this, &Manager::taskStatusChanged);
    connect(d, &ManagerPrivate::uninstallPackageFinished, this, &Manager::uninstallPackageFinished);
}

Manager::~Manager()
{
    // Deleted from inside one of its own waits, the private part is still on
    // the stack: it goes once that wait has returned.
    if (!d->releaseWhenIdle())
        delete d;
}

CBEnum::ErrorCode Manager::setConfigPath(QString path)
{
    return d->m_configer->setConfigPath(path);
}

CBEnum::ErrorCode Manager::setConfigData(QVariantMap data)
{
    return d->m_configer->setConfigData(data);
}

const QVariantMap Manager::configData()
{
    return d->m_configer->configData();
}

CBEnum::ErrorCode Manager::initRemote()
{
    return d->initRemote();
}

bool Manager::onlineInstall(QString path)
{
    return d->onlineInstall(path);
}

void Manager::offlineInstall(QString path)
{
    d->offlineInstall(path);
}

void Manager::downloadPackage(QString path)
{
    d->downloadPackage(path);
}

bool Manager::installPackage()
{
    return d->installPackage();
}

bool Manager::installPatch()
{
    return d->installPatch();
}

bool Manager::uninstallPackage(QString flow)
{
    return d->uninstallPackage(flow);
}

void Manager::uncompressPackage(const QString &package, const QString &folder)
{
    d->uncompressPackage(package, folder);
}

void Manager::installing(QString path)
{
    d->installing(path);
}

void Manager::getHardwareInfo()
{
    d->getHardwareInfo();
}

CBEnum::ErrorCode Manager::requestPlugin(const QString &name, const QVariantMap &params, QString &ID)
{
    return d->requestPlugin(name, params, ID);
}

bool Manager::searchOfflinePackage(const QString &dir, QString &found, QString suffix)
{
    return d->searchOfflinePackage(dir, found, suffix);
}

bool Manager::checkIfOfflineInstall()
{
    QString package;
    QString verify;
    return d->m_installer->checkIfOfflineInstall(package, verify);
}

bool Manager::checkOldSoftwareIsExist()
{
    return d->m_installer->checkOldSoftwareIsExist();
}

bool Manager::checkSelfUpdateAndDownload()
{
    return d->checkSelfUpdateAndDownload();
}

void Manager::uninstallOldSoftware()
{
    d->uninstallOlderSoftwareTask();
}

void Manager::revocateInstall()
{
    d->revocateInstall();
}

void Manager::removeUpdateDir()
{
    d->m_installer->removeUpdateDir();
}

void Manager::suicide()
{
    d->m_installer->suicide(QCoreApplication::applicationDirPath());
}

bool Manager::isSuicide() const
{
    return d->m_installer->isSuicide();
}

bool Manager::setCurrentAddtions(QStringList additions)
{
    return d->m_installer->setCurrentAddtions(additions);
}

void Manager::setForceInstall(bool force)
{
    d->m_installer->setForceInstall(force);
}

void Manager::setNeedUninstallOlder(bool need)
{
    d->m_installer->setNeedUninstallOlder(need);
}

void Manager::setInstallPath(QString path)
{
    d->m_installer->setInstallPath(path);
}

void Manager::setInstallCallback(std::function<CBEnum::ErrorCode()> callback)
{
    d->m_installer->setInstallCallback(std::move(callback));
}

QString Manager::installPath() const
{
    return d->m_installer->installPath();
}

QString Manager::olderSoftwarePath() const
{
    return d->m_installer->olderSoftwarePath();
}

QVariantMap Manager::packageInfo() const
{
    return d->m_vindaler->packageInfo();
}

qint64 Manager::packageSize()
{
    return d->packageSize();
}

CBEnum::ErrorCode Manager::checkUpdate(QVariantMap &info)
{
    QVariant answer;
    const Vindal::Error::ErrorCode code = d->m_vindaler->requestModuleUpdateInfo(answer);
    if (code == Vindal::Error::NoError)
        info = answer.toMap();
    return Vindaler::toErrorCode(code);
}

uint Manager::taskStatus() const
{
    return d->taskStatus();
}

} // namespace Corbeth
