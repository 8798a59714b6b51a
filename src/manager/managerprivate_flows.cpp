// The tasks a client starts: online and offline install, package download,
// update, patch, uninstall, self-upgrade, unpacking, the hardware query and
// revocation.
#include "manager/managerprivate.h"

#include "config/configer.h"
#include "installer/downloadcache.h"
#include "installer/installer.h"
#include "logging_p.h"
#include "modules/vindaler.h"
#include "platform/systeminfo.h"

#include <corbeth/manager.h>

#include <vindal/reply.h>

#include <QtConcurrent/QtConcurrentRun>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QMetaEnum>
#include <QtCore/QScopeGuard>
#include <QtCore/QSharedPointer>
#include <QtCore/QTextStream>
#include <QtNetwork/QNetworkConfigurationManager>

namespace Corbeth {

namespace {

const char *codeName(int code)
{
    return QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code);
}

bool machineIsOnline()
{
    // The bearer API is deprecated in Qt 5.15 and has no replacement there;
    // it is the one question it answers that the flow needs.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    QNetworkConfigurationManager manager;
    return manager.isOnline();
    QT_WARNING_POP
}

} // namespace

template<typename Call>
auto ManagerPrivate::waitingIn(Call call)
{
    ++m_nestedWaits;
    const auto leave = qScopeGuard([this] {
        if (--m_nestedWaits > 0)
            return;
        if (m_released) {
            deleteLater();
        } else if (m_retryDue) {
            m_retryDue = false;
            QMetaObject::invokeMethod(this, &ManagerPrivate::onRetryTimeout, Qt::QueuedConnection);
        }
    });
    return call();
}

bool ManagerPrivate::releaseWhenIdle()
{
    if (m_nestedWaits == 0)
        return false;
    qCInfo(lcCorbeth) << "manager deleted during a wait";
    disconnect(this, nullptr, q, nullptr);
    q = nullptr;
    m_released = true;
    revocateInstall();
    return true;
}

CBEnum::ErrorCode ManagerPrivate::initRemote()
{
    if (m_configer->velmiraInfo().isEmpty()) {
        qCCritical(lcCorbeth) << "vlcfg is empty" << m_configer->velmiraInfo();
        return CBEnum::EC_ConfigDataError;
    }
    Vindal::Reply *reply = m_vindaler->setConfigData(m_configer->moduleServiceConfig());
    const Vindal::Error::ErrorCode status = reply ? reply->status() : Vindal::Error::NoReply;
    // Nobody waits for this answer here: initRemotedSuccess brings it.
    if (reply)
        whenFinished(reply, [](const QVariantMap &) {});
    if (status == Vindal::Error::NoError)
        return CBEnum::EC_NoError;
    qCCritical(lcCorbeth) << "remote error" << status;
    return Vindaler::toErrorCode(status);
}

void ManagerPrivate::whenFinished(Vindal::Reply *reply, const std::function<void(const QVariantMap &)> &handler)
{
    // The service keeps working after it hands a reply over, so the reply may
    // have finished before anyone listened; whichever way the answer comes,
    // it is handled once, on this thread.
    m_heldReplies.append(reply);
    auto handled = QSharedPointer<bool>::create(false);
    const auto once = [this, reply, handler, handled](const QVariantMap &params) {
        if (*handled)
            return;
        *handled = true;
        m_heldReplies.removeOne(reply);
        if (m_downloadReply == reply)
            m_downloadReply.clear();
        if (m_unpackReply == reply)
            m_unpackReply.clear();
        reply->deleteLater();
        handler(params);
    };
    connect(reply, &Vindal::Reply::finished, this, once);
    if (reply->isFinished()) {
        const QVariantMap result = reply->result();
        QMetaObject::invokeMethod(this, [once, result] { once(result); }, Qt::QueuedConnection);
    }
}

void ManagerPrivate::useStorageFolder(const QString &folder)
{
    const QString current = m_vindaler->config()
                                .value(QStringLiteral("startDownload"))
                                .toMap()
                                .value(QStringLiteral("temporaryStoragePath"))
                                .toString();
    if (current == folder)
        return;
    // The first folder goes through the adapter, which also keeps a folder
    // the product maker configured; later ones replace the engine's own.
    if (current.isEmpty() || m_configer->velmiraInfo().contains(QStringLiteral("startDownload"))) {
        m_vindaler->setTemporaryStoragePath(folder);
        return;
    }
    QVariantMap config = m_vindaler->config();
    QVariantMap startDownload = config.value(QStringLiteral("startDownload")).toMap();
    startDownload.insert(QStringLiteral("temporaryStoragePath"), folder);
    config.insert(QStringLiteral("startDownload"), startDownload);
    if (Vindal::Reply *reply = m_vindaler->setConfigData(config))
        whenFinished(reply, [](const QVariantMap &) {});
}

bool ManagerPrivate::beginTask(const char *what)
{
    // The verify-and-unpack job, the engine and the transfers belong to the
    // running task until all of it has stopped, even after a revocation.
    if (m_taskActive || m_nestedWaits > 0 || m_prepareJob.isRunning() || m_installer->isBusy() || m_downloadReply
        || m_unpackReply) {
        qCWarning(lcCorbeth) << "task refused, a task is running" << what
                             << QMetaEnum::fromType<Operation>().valueToKey(m_operation);
        return false;
    }
    m_taskActive = true;
    m_retryCount = 0;
    m_retryRounds = 0;
    return true;
}

void ManagerPrivate::takeSnapshot()
{
    PrepareJob job;
    job.closeNames = m_installer->programsToClose();
    job.removeOlder = m_installer->needUninstallOlder();
    if (job.removeOlder)
        job.older = m_installer->olderRemoval();
    job.installPath = m_installer->installPath();
    m_job = job;
}

// --- online install -----------------------------------------------------------

bool ManagerPrivate::onlineInstall(const QString &path)
{
    qCInfo(lcCorbeth) << "online installl runingg";
    if (!beginTask("onlineInstall"))
        return false;
    m_installer->setInstallPath(path);
    takeSnapshot();
    return startOnlineInstall(path);
}

bool ManagerPrivate::startOnlineInstall(const QString &path)
{
    m_installer->setInstallPath(path);
    setOperation(O_OnlineInstall);

    QVariantMap package;
    if (!m_sqlHelper.searchPackage(path, package))
        return reqDownloadPackage();
    QVariantMap params;
    params.insert(QStringLiteral("errorCode"), 0);
    params.insert(QStringLiteral("result"), package);
    params.insert(QStringLiteral("packageExisted"), true);
    onOnlineDownlaodFinished(params);
    return true;
}

bool ManagerPrivate::reqDownloadPackage()
{
    Vindal::Reply *reply = nullptr;
    const CBEnum::ErrorCode code = reqDownloadOfflineModule(m_installer->installPath(), reply);
    if (code != CBEnum::EC_NoError) {
        qCCritical(lcCorbeth) << "error " << Q_FUNC_INFO << codeName(code);
        m_taskActive = false;
        emit errorOccurred(code);
        // A retry's or a new download's refusal ends the running task.
        if (isRunning())
            setTaskStatus(CBEnum::TS_Aborted);
        return false;
    }
    setTaskStatus(CBEnum::TS_Downloading);
    m_downloadReply = reply;
    connect(reply, &Vindal::Reply::downloadProgress, this, &ManagerPrivate::onProgress);
    const bool offlineDownload = m_operation == O_OfflineDownload;
    whenFinished(reply, [this, offlineDownload](const QVariantMap &params) {
        if (offlineDownload)
            onDownloadPackageFinished(params);
        else
            onOnlineDownlaodFinished(params);
    });
    return true;
}

CBEnum::ErrorCode ManagerPrivate::reqDownloadOfflineModule(const QString &path, Vindal::Reply *&reply)
{
    qCDebug(lcCorbeth) << "package ifnO" << m_vindaler->packageInfo();
    // An offline download goes into the folder the client named; an install
    // downloads into the cache folder under its install path, which it owns.
    QString folder = path;
    if (m_operation != O_OfflineDownload) {
        if (!DownloadCache::prepare(path))
            return CBEnum::EC_SoftwarePathError;
        folder = DownloadCache::folderOf(path);
        // Only the announced package and its companions stay: a package of
        // an earlier version would otherwise lie there for ever.
        const QString current = m_vindaler->packageInfo().value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString();
        if (!current.isEmpty())
            DownloadCache::clean(path, current);
        if (path == m_cachePath) {
            qCDebug(lcCorbeth) << "path is same" << path;
        } else {
            if (!m_cachePath.isEmpty()) {
                qCDebug(lcCorbeth) << "remove olderCache" << DownloadCache::folderOf(m_cachePath);
                DownloadCache::remove(m_cachePath);
            }
            m_cachePath = path;
        }
    }
    useStorageFolder(folder);
    m_installer->makeDir(folder);

    Vindal::Reply *answer = waitingIn([&] { return m_vindaler->downloadOfflineModule(path); });
    if (answer && m_released) {
        // The Manager went during the wait: nobody listens any more.
        answer->abort();
        answer->deleteLater();
        answer = nullptr;
    }
    if (!answer) {
        qCCritical(lcCorbeth) << "error nullptr" << Q_FUNC_INFO;
        return CBEnum::EC_UnknownNetworkError;
    }
    const Vindal::Error::ErrorCode status = answer->status();
    if (status != Vindal::Error::NoError) {
        qCCritical(lcCorbeth) << "error" << status << Q_FUNC_INFO;
        answer->deleteLater();
        return status == Vindal::Error::DownloadFailed ? CBEnum::EC_NetworkError_FileDownloadedError
                                                       : CBEnum::EC_UnknownNetworkError;
    }
    reply = answer;
    return CBEnum::EC_NoError;
}

void ManagerPrivate::onOnlineDownlaodFinished(const QVariantMap &params)
{
    qCDebug(lcCorbeth) << "finished" << Q_FUNC_INFO << params;
    // A download that ends after a revocation is not this task's any more.
    if (m_taskStatus == CBEnum::TS_Aborted || m_operation != O_OnlineInstall)
        return;
    if (!handleDownloadOfflineModule(params)) {
        qCCritical(lcCorbeth) << "download fail" << Q_FUNC_INFO;
        return;
    }
    m_downloadResult = params;
    qCDebug(lcCorbeth) << "concurrent ru n";
    const QVariantMap result = params.value(QStringLiteral("result")).toMap();
    m_job.record = result;
    startPrepareJob(result.value(QStringLiteral("path")).toString(),
                    result.value(QStringLiteral("md5Value")).toString(), false);
}

bool ManagerPrivate::handleDownloadOfflineModule(const QVariantMap &params)
{
    const int code = params.value(QStringLiteral("errorCode")).toInt();
    m_downloadResult = params.value(QStringLiteral("result")).toMap();
    if (code == Vindal::Error::Timeout && !machineIsOnline()) {
        // An offline machine will not do better by trying again.
        qCCritical(lcCorbeth) << "timeout online download";
        fail(CBEnum::EC_UnknownNetworkError);
        return false;
    }
    if (code == Vindal::Error::Cancelled && m_taskStatus == CBEnum::TS_Aborted)
        return false;
    if (code != 0) {
        qCCritical(lcCorbeth) << "error" << code << Q_FUNC_INFO;
        m_lastError = code;
        onRetryTimeout();
        return false;
    }
    m_retryCount = 0;
    m_retryRounds = 0;
    m_retryTimer.stop();
    qCDebug(lcCorbeth) << "cache  path" << DownloadCache::folderOf(m_installer->installPath());
    return true;
}

// --- verify, prepare and unpack ----------------------------------------------------

ManagerPrivate::JobResult ManagerPrivate::verifyAndPrepare(const PrepareJob &job)
{
    // Runs on a pool thread: hashing and closing programs take long, and the
    // client's thread must stay responsive. It works on the task's snapshot
    // and reaches the workers only through methods that are safe off their
    // thread. A revocation stops it before its next step, hashing included:
    // a revoked job changes nothing on the machine any more.
    const auto revoked = [&job] { return job.revoked->loadAcquire() != 0; };
    const auto stopped = [&revoked] {
        if (!revoked())
            return false;
        qCInfo(lcCorbeth) << "prepare job revoked";
        return true;
    };
    JobResult result;
    const bool matches = job.offline ? companionMatches(job.file, revoked) : packageMatches(job.md5, job.file, revoked);
    if (stopped())
        return result;
    if (!matches) {
        result.verifyFailed = true;
        result.code = CBEnum::EC_VerifyFailed;
        if (!job.offline) {
            qCWarning(lcCorbeth) << "package check failed, retry download.";
            if (!QFile::remove(job.file))
                qCWarning(lcCorbeth) << "remove error download package fail" << job.file;
        }
        return result;
    }
    if (!job.offline) {
        QVariantMap record = job.record;
        m_sqlHelper.markOnlinePackage(record);
    }
    if (stopped())
        return result;
    if (!Installer::closePrograms(job.closeNames)) {
        qCCritical(lcCorbeth) << "clear runing exe fail";
        result.code = CBEnum::EC_UnknownError;
        return result;
    }
    if (stopped())
        return result;
    // Once the removal has begun it runs to its end.
    if (job.removeOlder && !m_installer->uninstallOldSoftware(job.older)) {
        qCCritical(lcCorbeth) << "uninstall older software fail";
        qCCritical(lcCorbeth) << (job.offline ? "offlineinstall fail" : "onlineinstall fail");
        result.code = CBEnum::EC_UninstallOlderSoftwareFail;
    }
    return result;
}

void ManagerPrivate::startPrepareJob(const QString &file, const QString &md5, bool offline)
{
    m_job.file = file;
    m_job.md5 = md5;
    m_job.offline = offline;
    const PrepareJob job = m_job;
    m_prepareJob.setFuture(QtConcurrent::run([this, job] { return verifyAndPrepare(job); }));
}

void ManagerPrivate::onPrepareJobFinished()
{
    if (m_job.revoked->loadAcquire())
        return;
    const JobResult job = m_prepareJob.result();
    if (job.verifyFailed) {
        qCWarning(lcCorbeth) << "verify fail";
        if (m_job.offline) {
            fail(CBEnum::EC_VerifyFailed);
            return;
        }
        // The bytes were not what the repository announced: fetch them again,
        // unless the client revoked the task on hearing it.
        emit errorOccurred(CBEnum::EC_VerifyFailed);
        if (m_taskActive)
            reqDownloadPackage();
        return;
    }
    if (job.code != CBEnum::EC_NoError) {
        fail(job.code);
        return;
    }
    startUnpack(m_job.file, m_job.installPath);
}

void ManagerPrivate::startUnpack(const QString &file, const QString &folder)
{
    setTaskStatus(CBEnum::TS_Uncompressing);
    const QString version = m_sqlHelper.versionOf(file);
    qCInfo(lcCorbeth) << "package version" << version << file;
    m_installer->setPackageVersion(version);
    auto *reply = new Vindal::Reply;
    qCDebug(lcCorbeth) << "check";
    m_unpackReply = reply;
    connect(reply, &Vindal::Reply::progress, this, &ManagerPrivate::onProgress);
    whenFinished(reply, [this](const QVariantMap &params) { onInstallUncompress(params); });
    m_vindaler->loadOfflinePackage(reply, file, folder);
}

void ManagerPrivate::onInstallUncompress(const QVariantMap &params)
{
    if (m_taskStatus == CBEnum::TS_Aborted)
        return;
    const CBEnum::ErrorCode code = Vindaler::toErrorCode(params.value(QStringLiteral("errorCode")).toInt());
    if (code != CBEnum::EC_NoError) {
        qCCritical(lcCorbeth) << "fail" << params.value(QStringLiteral("errorMessage")).toString();
        fail(code);
        return;
    }
    if (m_operation == O_Installing) {
        // A bare unpack (uncompressPackage) ends here.
        emit q->uncompressPackageFinished();
        emit finished();
        return;
    }
    // The task installs where it started, whatever a new configuration says.
    if (m_installer->installPath() != m_job.installPath)
        m_installer->setInstallPath(m_job.installPath);
    startEngineInstall();
}

void ManagerPrivate::startEngineInstall()
{
    setTaskStatus(CBEnum::TS_Installing);
    m_installer->installPackage();
}

void ManagerPrivate::onEngineInstallFinished()
{
    if (!isRunning())
        return;
    // The engine's task counts itself out a moment after its last signal; a
    // task the client starts from the finished signals must find it idle.
    m_installer->waitForIdle();
    switch (m_operation) {
    case O_Installing:
        emit q->installingFinished();
        emit finished();
        break;
    case O_OnlineInstall:
        // installPackageFinished completes the bar; the relays that follow
        // go to the client directly, so the bar is not moved again.
        emit installPackageFinished();
        emit q->onlineInstallFinished();
        emit q->finished();
        break;
    default:
        emit installPackageFinished();
        emit q->finished();
        break;
    }
}

// --- offline --------------------------------------------------------------------

void ManagerPrivate::offlineInstall(const QString &path)
{
    qCInfo(lcCorbeth) << "offline install" << path;
    if (!beginTask("offlineInstall"))
        return;
    setOperation(O_OfflineInstall);
    QString package = path;
    if (QFileInfo(path).isDir() && !m_installer->searchPackage(path, package))
        package.clear();
    if (package.isEmpty() || !QFileInfo(package).isFile()) {
        qCCritical(lcCorbeth) << "offline path is empty" << path;
        fail(CBEnum::EC_FileNotOpen);
        return;
    }
    if (m_installer->installPath().isEmpty()) {
        qCCritical(lcCorbeth) << "path is empty";
        fail(CBEnum::EC_SoftwarePathError);
        return;
    }
    takeSnapshot();
    setTaskStatus(CBEnum::TS_Verifying);
    startPrepareJob(QFileInfo(package).absoluteFilePath(), QString(), true);
}

bool ManagerPrivate::searchOfflinePackage(const QString &dir, QString &found, const QString &suffix)
{
    if (!m_installer->searchPackage(dir, found)) {
        qCInfo(lcCorbeth) << "search offline package fail" << dir;
        return false;
    }
    setTaskStatus(CBEnum::TS_Verifying);
    const QString file = suffix.isEmpty() ? m_installer->offlinePackage() : suffix;
    if (checkOfflineInstallFile(file))
        return true;
    emit errorOccurred(CBEnum::EC_VerifyFailed);
    qCCritical(lcCorbeth) << "offlineInstall checkOfflineInstallFile failed" << Q_FUNC_INFO;
    return false;
}

bool ManagerPrivate::checkOfflineInstallFile(const QString &path)
{
    return companionMatches(path, {});
}

bool ManagerPrivate::companionMatches(const QString &path, const std::function<bool()> &stop)
{
    const QString companion = path.endsWith(QLatin1String(".verify")) ? path : path + QLatin1String(".verify");
    qCDebug(lcCorbeth) << "check verify code" << path << companion;
    QFile verify(companion);
    if (!verify.exists()) {
        qCDebug(lcCorbeth) << "verifyFile not existed! ";
        return true;
    }
    if (!verify.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCDebug(lcCorbeth) << "verifyFile open failed! ";
        return true;
    }
    const QString expected = QTextStream(&verify).readAll();
    verify.close();
    if (SQLHelper::calculateMD5(path, stop) == expected)
        return true;
    qCWarning(lcCorbeth) << "md5 verify failed!" << Q_FUNC_INFO;
    return false;
}

bool ManagerPrivate::packageMatches(const QString &md5, const QString &path, const std::function<bool()> &stop)
{
    if (md5.isEmpty())
        return true;
    const QString actual = SQLHelper::calculateMD5(path, stop);
    qCDebug(lcCorbeth) << "local calcutelate md5" << actual;
    if (actual == md5)
        return true;
    qCDebug(lcCorbeth) << "checkPackage calculateMD5 = " << actual << " md5 = " << md5;
    return false;
}

bool ManagerPrivate::checkPackage(const QString &md5, const QString &path)
{
    setTaskStatus(CBEnum::TS_Verifying);
    return packageMatches(md5, path);
}

void ManagerPrivate::downloadPackage(const QString &path)
{
    qCInfo(lcCorbeth) << "download package" << path;
    if (beginTask("downloadPackage"))
        startDownload(path);
}

void ManagerPrivate::startDownload(const QString &path)
{
    if (path.isEmpty()) {
        qCCritical(lcCorbeth) << "path is empty";
        fail(CBEnum::EC_SoftwarePathError);
        return;
    }
    // The package goes into path itself, which becomes the engine's path: a
    // retry downloads again into the engine's path.
    m_installer->setInstallPath(path);
    setOperation(O_OfflineDownload);
    reqDownloadPackage();
}

void ManagerPrivate::onDownloadPackageFinished(const QVariantMap &params)
{
    qCDebug(lcCorbeth) << "download package finished" << params;
    if (m_taskStatus == CBEnum::TS_Aborted || m_operation != O_OfflineDownload)
        return;
    if (!handleDownloadOfflineModule(params))
        return;
    m_packageInfo = params.value(QStringLiteral("result")).toMap();
    emit q->downloadPackageFinished();
    emit finished();
}

void ManagerPrivate::uncompressPackage(const QString &package, const QString &folder)
{
    qCInfo(lcCorbeth) << "uncompress package" << package << folder;
    if (!beginTask("uncompressPackage"))
        return;
    setOperation(O_Installing);
    if (package.isEmpty() || folder.isEmpty()) {
        qCCritical(lcCorbeth) << "path is empty";
        fail(CBEnum::EC_FileNotOpen);
        return;
    }
    // The product lives where it is unpacked: the update that follows runs there.
    m_installer->setInstallPath(folder);
    startUnpack(package, folder);
}

void ManagerPrivate::installing(const QString &path)
{
    qCInfo(lcCorbeth) << "installing" << path;
    if (!beginTask("installing"))
        return;
    setOperation(O_Installing);
    if (!path.isEmpty())
        m_installer->setInstallPath(path);
    if (m_installer->installPath().isEmpty()) {
        qCCritical(lcCorbeth) << "path is empty";
        fail(CBEnum::EC_SoftwarePathError);
        return;
    }
    startEngineInstall();
}

// --- update, patch, uninstall --------------------------------------------------------

bool ManagerPrivate::installPackage()
{
    qCInfo(lcCorbeth) << "update package";
    if (!beginTask("installPackage"))
        return false;
    setOperation(O_Update);
    setTaskStatus(CBEnum::TS_Installing);
    const bool done = waitingIn([this] {
        if (!uninstallOldSoftware()) {
            fail(CBEnum::EC_UninstallOlderSoftwareFail);
            return false;
        }
        // Revoked (or the Manager deleted) while the older software went.
        if (!m_taskActive)
            return false;
        // A client that installed into a path of its own choosing updates it.
        if (m_installer->olderSoftwarePath().isEmpty() && !m_installer->installPath().isEmpty())
            m_installer->setOlderInstallPath(m_installer->installPath());
        return m_installer->update();
    });
    // The update has ended, whichever way: it ran on this thread.
    m_installer->waitForIdle();
    m_taskActive = false;
    return done;
}

bool ManagerPrivate::installPatch()
{
    qCInfo(lcCorbeth) << "update patch package";
    if (!beginTask("installPatch"))
        return false;
    setOperation(O_UpdatePatch);
    setTaskStatus(CBEnum::TS_Installing);
    if (m_installer->olderSoftwarePath().isEmpty() && !m_installer->installPath().isEmpty())
        m_installer->setOlderInstallPath(m_installer->installPath());
    const bool done = waitingIn([this] { return m_installer->updatePatch(); });
    m_installer->waitForIdle();
    m_taskActive = false;
    return done;
}

bool ManagerPrivate::uninstallPackage(const QString &flow)
{
    qCInfo(lcCorbeth) << "uninstall package" << flow;
    if (!beginTask("uninstallPackage"))
        return false;
    setOperation(O_Uninstall);
    setTaskStatus(CBEnum::TS_Uninstalling);
    const bool done = waitingIn([this, flow] { return m_installer->uninstallPackage(flow); });
    m_taskActive = false;
    return done;
}

void ManagerPrivate::onEngineUninstallFinished()
{
    if (m_operation != O_Uninstall || !isRunning())
        return;
    emit uninstallPackageFinished();
    completeProgress();
    emit finished();
}

bool ManagerPrivate::uninstallOldSoftware()
{
    if (!m_installer->needUninstallOlder())
        return true;
    if (m_installer->uninstallOldSoftware())
        return true;
    qCCritical(lcCorbeth) << "uninstall older software fail";
    return false;
}

void ManagerPrivate::uninstallOlderSoftwareTask()
{
    qCInfo(lcCorbeth) << "uninstall old software";
    if (!beginTask("uninstallOldSoftware"))
        return;
    setOperation(O_Uninstall);
    setTaskStatus(CBEnum::TS_Uninstalling);
    if (!waitingIn([this] { return m_installer->uninstallOldSoftware(); })) {
        fail(CBEnum::EC_UninstallOlderSoftwareFail);
        return;
    }
    completeProgress();
    emit finished();
}

// --- self-upgrade, hardware, revocation ------------------------------------------------

bool ManagerPrivate::checkSelfUpdateAndDownload()
{
    qCInfo(lcCorbeth) << "check self update";
    if (!beginTask("checkSelfUpdateAndDownload"))
        return false;
    setOperation(O_SelfUpdate);
    Vindal::Reply *reply
        = waitingIn([this] { return m_vindaler->checkUpgradeAndDownload(QCoreApplication::applicationDirPath()); });
    if (reply && m_released) {
        reply->abort();
        reply->deleteLater();
        reply = nullptr;
    }
    if (!reply) {
        // No newer installer, or the repository could not tell: nothing to do.
        qCInfo(lcCorbeth) << "no self upgrade";
        m_taskActive = false;
        return false;
    }
    setTaskStatus(CBEnum::TS_Downloading);
    m_downloadReply = reply;
    connect(reply, &Vindal::Reply::downloadProgress, this, &ManagerPrivate::onProgress);
    whenFinished(reply, [this](const QVariantMap &params) {
        if (m_operation != O_SelfUpdate || m_taskStatus == CBEnum::TS_Aborted)
            return;
        const CBEnum::ErrorCode code = Vindaler::toErrorCode(params.value(QStringLiteral("errorCode")).toInt());
        if (code != CBEnum::EC_NoError) {
            qCCritical(lcCorbeth) << "self upgrade fail" << params.value(QStringLiteral("errorMessage")).toString();
            fail(code);
            return;
        }
        m_packageInfo = params.value(QStringLiteral("result")).toMap();
        emit selfUpgradeFinished();
        emit finished();
    });
    return true;
}

void ManagerPrivate::getHardwareInfo()
{
    auto *watcher = new QFutureWatcher<HardwareInfo>(this);
    connect(watcher, &QFutureWatcher<HardwareInfo>::finished, this, [this, watcher] {
        if (q)
            emit q->getHardwareInfoFinished(watcher->result());
        watcher->deleteLater();
    });
    watcher->setFuture(QtConcurrent::run([] { return SystemInfo().getHardwareInfo(); }));
}

void ManagerPrivate::revocateInstall()
{
    qCInfo(lcCorbeth) << "revocate install" << m_taskStatus;
    m_retryTimer.stop();
    m_retryCount = 0;
    m_retryDue = false;
    // The verify-and-unpack job stops at its next step, whatever the status
    // says (a reused package is checked without a status of its own).
    m_job.revoked->storeRelease(1);
    if (!m_taskActive && !isRunning()) {
        qCInfo(lcCorbeth) << "nothing to revocate";
        return;
    }
    m_taskActive = false;
    m_retryRounds = 0;
    setTaskStatus(CBEnum::TS_Aborted);
    if (m_downloadReply)
        m_downloadReply->abort();
    if (m_unpackReply)
        m_unpackReply->abort();
    m_installer->abort();
    // The task ends here, once: the client hears TS_Aborted and finished().
    if (q)
        emit q->finished();
}

} // namespace Corbeth
