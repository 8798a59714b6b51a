// The orchestrator's state: workers, task status, operation, the combined
// progress figure and the retry timer. The flows are in managerprivate_flows.cpp.
#include "manager/managerprivate.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "logging_p.h"
#include "manager/ptrmanager.h"
#include "modules/vindaler.h"
#include "platform/skglobal.h"
#include "plugins/pluginhelper.h"

#include <corbeth/manager.h>

#include <QtCore/QMetaEnum>

#include <cmath>

namespace Corbeth {

ManagerPrivate::ManagerPrivate(Manager *manager)
    : QObject(nullptr)
    , q(manager)
{
    PtrManager *workers = PtrManager::instance();
    m_configer = workers->configer();
    m_vindaler = workers->vindaler();
    m_installer = workers->installer();
    m_pluginHelper = workers->pluginHelper();

    connect(this, &ManagerPrivate::finished, this, &ManagerPrivate::onFinished);
    connect(this, &ManagerPrivate::installPackageFinished, this, &ManagerPrivate::onFinished);
    connect(this, &ManagerPrivate::onlineInstallFinished, this, &ManagerPrivate::onFinished);
    // An engine step's error ends the task (a part of the engine still running
    // or waiting keeps the next one out, see beginTask); one that arrives
    // after a revocation is not reported: the task has ended.
    connect(m_installer.data(), &Installer::errorOccurred, this, [this](CBEnum::ErrorCode code) {
        m_taskActive = false;
        if (m_taskStatus != CBEnum::TS_Aborted)
            emit errorOccurred(code);
    });
    connect(m_configer.data(), &Configer::configDataChanged, this, &ManagerPrivate::onConfigDataChanged,
            Qt::DirectConnection);
    connect(m_pluginHelper.data(), &PluginHelper::pluginFinished, q, &Manager::pluginFinished);
    connect(m_vindaler.data(), &Vindaler::initSuccess, q, &Manager::initRemotedSuccess);
    connect(this, &ManagerPrivate::operationChanged, this, &ManagerPrivate::resetProgress, Qt::UniqueConnection);
    connect(q, &Manager::errorOccurred, this, &ManagerPrivate::resetProgress, Qt::UniqueConnection);
    connect(q, &Manager::finished, this, &ManagerPrivate::resetProgress);
    connect(q, &Manager::installPackageFinished, this, &ManagerPrivate::resetProgress);
    connect(this, &ManagerPrivate::onlineInstallFinished, this, &ManagerPrivate::resetProgress);

    // Beyond the relays above: the self-upgrade's end reaches the client, the
    // engine's progress and completion drive the task, and the engine's
    // install path changes are announced.
    connect(this, &ManagerPrivate::selfUpgradeFinished, q, &Manager::selfUpgradeFinished);
    connect(m_installer.data(), &Installer::installPathChanged, this, &ManagerPrivate::installPathChanged);
    connect(m_installer.data(), &Installer::riseOfProgress, this, &ManagerPrivate::onRiseOfProgress);
    connect(m_installer.data(), &Installer::progress, this, &ManagerPrivate::onEngineProgress);
    connect(m_installer.data(), &Installer::installPackageFinished, this, &ManagerPrivate::onEngineInstallFinished);
    connect(m_installer.data(), &Installer::uninstallPackageFinished, this,
            &ManagerPrivate::onEngineUninstallFinished);
    connect(&m_prepareJob, &QFutureWatcher<JobResult>::finished, this, &ManagerPrivate::onPrepareJobFinished);

    // Until a configuration says otherwise, retry rounds are 5 s apart.
    m_retryTimer.setInterval(5000);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &ManagerPrivate::onRetryTimeout,
            Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
}

ManagerPrivate *ManagerPrivate::get(Manager *manager)
{
    return manager->d;
}

ManagerPrivate::~ManagerPrivate()
{
    qCDebug(lcCorbeth) << "delete ptrmanager";
    // Whatever still runs is stopped and waited for: the workers go next.
    m_retryTimer.stop();
    // The replies still held will not be heard any more: they go now, unheard
    // (aborting one may finish it at once).
    const QList<Vindal::Reply *> replies = m_heldReplies;
    m_heldReplies.clear();
    for (Vindal::Reply *reply : replies) {
        disconnect(reply, nullptr, this, nullptr);
        reply->abort();
        reply->deleteLater();
    }
    m_installer->abort();
    m_job.revoked->storeRelease(1);
    m_prepareJob.waitForFinished();
    // The hardware queries use the platform object destroyed below.
    for (QFutureWatcherBase *query : findChildren<QFutureWatcherBase *>())
        query->waitForFinished();
    m_installer->waitForIdle();
    m_installer->disconnect(this);
    m_configer.reset();
    m_vindaler.reset();
    m_installer.reset();
    m_pluginHelper.reset();
    PtrManager::destroyInstance();
    SKGlobal::destroyInstance();
}

void ManagerPrivate::setTaskStatus(uint status)
{
    if (status == m_taskStatus)
        return;
    qCDebug(lcCorbeth) << "task status changed" << status;
    m_taskStatus = status;
    emit taskStatusChanged(status);
}

void ManagerPrivate::setOperation(Operation operation)
{
    if (operation == m_operation)
        return;
    m_operation = operation;
    emit operationChanged();
}

bool ManagerPrivate::isRunning() const
{
    switch (m_taskStatus) {
    case CBEnum::TS_Freeing:
    case CBEnum::TS_Finished:
    case CBEnum::TS_Aborted:
        return false;
    default:
        return true;
    }
}

double ManagerPrivate::percent(qint64 received, qint64 total)
{
    // A total of 0 (or an unknown one) tells nothing yet: it counts as 0 %,
    // which never moves the bar, instead of dividing by zero.
    const double result = total > 0 ? double(received) / double(total) * 100.0 : 0.0;
    qCDebug(lcCorbeth) << "percent" << result << received << total;
    return result;
}

void ManagerPrivate::onProgress(qlonglong received, qlonglong total)
{
    // Late reports of a task that has ended must not move the next one.
    if (!isRunning())
        return;
    double p = percent(received, total);
    switch (m_operation) {
    case O_OfflineInstall:
        p *= 0.7;
        break;
    case O_OnlineInstall:
        if (m_taskStatus == CBEnum::TS_Downloading)
            p *= 0.5;
        else if (m_taskStatus == CBEnum::TS_Uncompressing)
            p = p * 0.3 + 50.0;
        break;
    default:
        break;
    }
    if (p > m_progress) {
        m_progress = p;
        qCDebug(lcCorbeth) << "progresssssssssssssssss____" << m_progress;
        emit progress(m_progress);
    }
}

void ManagerPrivate::addProgress(double increment, double max)
{
    if (m_progress >= 99.0 || m_progress > max)
        return;
    qCDebug(lcCorbeth) << "end progress" << max;
    double weight = 1.0;
    if (m_operation == O_OfflineInstall)
        weight = 0.3;
    else if (m_operation == O_OnlineInstall)
        weight = 0.2;
    m_progress = qMin(m_progress + increment * weight, max);
    qCDebug(lcCorbeth) << "install progress " << m_progress;
    emit progress(m_progress);
}

void ManagerPrivate::addProgress(double increment)
{
    addProgress(increment, 100.0);
}

void ManagerPrivate::onRiseOfProgress(double rise)
{
    if (rise == 0.0 || !isRunning())
        return;
    addProgress(rise, 99.0);
}

void ManagerPrivate::onEngineProgress(double absolute)
{
    // The uninstall reports absolute figures only; the other operations
    // report their increments through riseOfProgress.
    if (m_operation != O_Uninstall || m_taskStatus != CBEnum::TS_Uninstalling)
        return;
    const double p = qMin(absolute, 99.0);
    if (p > m_progress) {
        m_progress = p;
        emit progress(m_progress);
    }
}

void ManagerPrivate::completeProgress()
{
    if (m_progress >= 100.0)
        return;
    m_progress = 100.0;
    emit progress(m_progress);
}

void ManagerPrivate::resetProgress()
{
    qCInfo(lcCorbeth) << "clear all";
    m_progress = 0.0;
}

void ManagerPrivate::onFinished()
{
    m_taskActive = false;
    setTaskStatus(CBEnum::TS_Finished);
    addProgress(100.0, 100.0);
}

void ManagerPrivate::onConfigDataChanged()
{
    const QVariantMap download = m_configer->configData().value(QStringLiteral("download")).toMap();
    bool ok = false;
    const QVariant value = download.value(QStringLiteral("retryInterval"));
    qint64 seconds = value.toLongLong(&ok);
    if (!ok || !value.isValid()) {
        qCWarning(lcCorbeth) << "retryInterval not config" << download;
        seconds = 5;
    }
    // An interval of hours is the most anyone means; QTimer takes an int.
    seconds = qBound<qint64>(0, seconds, 24 * 3600);
    m_retryTimer.setInterval(int(seconds * 1000));
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &ManagerPrivate::onRetryTimeout,
            Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
    // Without a limit the rounds go on until a download succeeds or the task
    // is revoked; a client that must end on its own sets one.
    m_retryRoundLimit = qMax(0, download.value(QStringLiteral("retryRounds")).toInt());
}

void ManagerPrivate::onRetryTimeout()
{
    qCDebug(lcCorbeth) << "retry timeout";
    // A retry held back by a wait is dropped when the task ended meanwhile.
    if (!m_taskActive)
        return;
    // A retry that falls due while a request waits in a nested loop runs
    // when the wait ends instead of re-entering it; the count is kept.
    if (m_nestedWaits > 0) {
        m_retryDue = true;
        return;
    }
    if (m_retryCount > 3) {
        qCCritical(lcCorbeth) << "retry too more" << m_retryCount << m_retryTimer.interval();
        m_retryCount = 0;
        if (m_retryRoundLimit > 0 && ++m_retryRounds >= m_retryRoundLimit) {
            // The last attempt's failure is the task's.
            qCCritical(lcCorbeth) << "retry rounds used up" << m_retryRounds;
            m_retryRounds = 0;
            fail(Vindaler::toErrorCode(m_lastError));
            return;
        }
        m_retryTimer.start();
        return;
    }
    ++m_retryCount;
    qCWarning(lcCorbeth) << "retry" << m_retryCount << QMetaEnum::fromType<Operation>().valueToKey(m_operation);
    const QString path = m_installer->installPath();
    if (m_operation == O_OfflineDownload)
        startDownload(path);
    else if (m_operation == O_OnlineInstall)
        startOnlineInstall(path);
}

CBEnum::ErrorCode ManagerPrivate::requestPlugin(const QString &name, const QVariantMap &params, QString &ID)
{
    return m_pluginHelper->requestPlugin(name, params, ID);
}

qint64 ManagerPrivate::packageSize() const
{
    const QVariantMap info = m_vindaler->packageInfo();
    // A delta update downloads the delta, not the package it describes.
    const QVariantMap delta = info.value(QStringLiteral("delta")).toMap();
    const QVariant size = delta.isEmpty() ? info.value(QStringLiteral("bytesTotal"), info.value(QStringLiteral("size")))
                                          : delta.value(QStringLiteral("size"));
    return size.toLongLong();
}

void ManagerPrivate::fail(CBEnum::ErrorCode code)
{
    m_taskActive = false;
    emit errorOccurred(code);
    setTaskStatus(CBEnum::TS_Aborted);
}

} // namespace Corbeth
