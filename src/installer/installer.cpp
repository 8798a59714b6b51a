// The four operations (install, uninstall, update, update patch) and their progress.
#include "installer/installer.h"

#include "logging_p.h"
#include "platform/skglobal.h"

#include <QtCore/QEventLoop>
#include <QtCore/QMetaEnum>
#include <QtCore/QMutexLocker>
#include <QtCore/QSemaphore>
#include <QtCore/QThreadPool>
#include <QtCore/QTimer>

#include <functional>

namespace Corbeth {

namespace {

const char *codeName(CBEnum::ErrorCode code)
{
    return QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code);
}

// An operation whose section the configuration did not supply runs as empty.
InstallInfoPtr orEmpty(const InstallInfoPtr &info)
{
    return info ? info : InstallInfoPtr::create();
}

// Quits loop from any thread, even before it has started to run.
void quitLater(QEventLoop *loop)
{
    QMetaObject::invokeMethod(loop, &QEventLoop::quit, Qt::QueuedConnection);
}

} // namespace

bool Installer::revoked(int epoch) const
{
    if (epoch == m_epoch.loadAcquire())
        return false;
    qCInfo(lcCorbeth) << "operation revoked";
    return true;
}

void Installer::abort()
{
    QMutexLocker locker(&m_waitMutex);
    m_epoch.ref();
    for (QEventLoop *loop : qAsConst(m_loops))
        quitLater(loop);
}

void Installer::waitIn(QEventLoop &loop, int epoch)
{
    {
        QMutexLocker locker(&m_waitMutex);
        if (epoch != m_epoch.loadAcquire())
            return;
        m_loops.insert(&loop);
    }
    loop.exec();
    QMutexLocker locker(&m_waitMutex);
    m_loops.remove(&loop);
}

void Installer::startTask(std::function<void()> task)
{
    m_tasks.ref();
    QThreadPool::globalInstance()->start([this, task] {
        task();
        QMutexLocker locker(&m_waitMutex);
        if (!m_tasks.deref())
            m_idle.wakeAll();
    });
}

void Installer::waitForIdle()
{
    QMutexLocker locker(&m_waitMutex);
    while (m_tasks.loadAcquire() != 0)
        m_idle.wait(&m_waitMutex);
}

void Installer::runAndWait(int epoch, const std::function<void(QEventLoop *)> &task)
{
    QEventLoop loop;
    QSemaphore done;
    startTask([task, &loop, &done] {
        task(&loop);
        done.release();
    });
    // While this thread only waits it does not count against the pool, so
    // the task finds a thread even on a one-core machine.
    QThreadPool::globalInstance()->releaseThread();
    waitIn(loop, epoch);
    // A revocation ends the wait early, but the task holds this frame's
    // loop and results until it returns.
    done.acquire();
    QThreadPool::globalInstance()->reserveThread();
}

// Runs task on the global pool while this thread waits in a local loop, and
// meanwhile creeps the progress towards ceiling every intervalMs. The wait ends
// when task quits the loop it is given, or the operation is revoked.
void Installer::waitForTask(int epoch, int intervalMs, double ceiling, const std::function<void(QEventLoop *)> &task)
{
    QTimer creep;
    creep.setInterval(intervalMs);
    connect(&creep, &QTimer::timeout, &creep, [this, ceiling] { advanceProgress(1.0, ceiling); });
    creep.start();
    runAndWait(epoch, task);
}

void Installer::advanceProgress(double step, double ceiling)
{
    double old;
    double now;
    {
        QMutexLocker locker(&m_progressMutex);
        old = m_progress;
        if (old >= 99.0 || old > ceiling)
            return;
        now = qMin(old + step, ceiling);
        m_progress = now;
    }
    qCDebug(lcCorbeth) << "install progress " << now;
    if (now == old) {
        qCWarning(lcCorbeth) << "progress not changed";
        return;
    }
    emit riseOfProgress(now - old);
    emit progress(now);
}

bool Installer::installPackage()
{
    qCInfo(lcCorbeth) << "install packageeeeeeee";
    recoverWhiteList();
    const int started = epoch();
    startTask([this, started] {
        if (runInstallSteps(started))
            emit installPackageFinished();
        else
            qCCritical(lcCorbeth) << "install fail";
    });
    return true;
}

bool Installer::runInstallSteps(int epoch)
{
    const InstallInfoPtr info = orEmpty(m_installInfo);

    // The creeping progress lives in this pool thread; it ticks while the
    // thread waits in one of the loops below and stops at the first error.
    QTimer creep;
    creep.setInterval(10000);
    connect(&creep, &QTimer::timeout, &creep, [this] {
        qCDebug(lcCorbeth) << "install progress" << m_progress;
        advanceProgress(1.0, 99.0);
    });
    connect(this, &Installer::errorOccurred, &creep, &QTimer::stop);
    creep.start();

    if (SKGlobal::instance()->isProcessElevated())
        qCDebug(lcCorbeth) << "is admin";
    else
        qCCritical(lcCorbeth) << "not is admin";

    qCDebug(lcCorbeth) << "install process";
    CBEnum::ErrorCode code = CBEnum::EC_NoError;
    runAndWait(epoch, [this, info, &code](QEventLoop *loop) {
        const CBEnum::ErrorCode result = processExe(info->process);
        code = result;
        if (result == CBEnum::EC_NoError) {
            quitLater(loop);
            return;
        }
        // The waiting install is left parked: the client learns of the
        // failure from this signal alone.
        qCCritical(lcCorbeth) << "install error process exe " << codeName(result);
        emit errorOccurred(result);
    });
    if (revoked(epoch))
        return false;
    if (code != CBEnum::EC_NoError) {
        qCCritical(lcCorbeth) << "install error process exe " << codeName(code);
        emit errorOccurred(code);
        return false;
    }
    advanceProgress(30, 30);

    if (m_installCallback && !revoked(epoch)) {
        qCDebug(lcCorbeth) << "call back";
        code = m_installCallback();
        if (code != CBEnum::EC_NoError) {
            qCCritical(lcCorbeth) << "call back fail" << codeName(code);
            emit errorOccurred(code);
            return false;
        }
    }

    advanceProgress(15, 40);
    qCDebug(lcCorbeth) << "driver exist";
    qCDebug(lcCorbeth) << "wait a moment";
    {
        // Gives a driver set up by the process step time to register.
        QEventLoop wait;
        QTimer::singleShot(3000, &wait, &QEventLoop::quit);
        waitIn(wait, epoch);
    }
    if (revoked(epoch))
        return false;
    if (!driverExist(info->checkDrivers)) {
        qCCritical(lcCorbeth) << "dirver not exist";
        emit errorOccurred(CBEnum::EC_DriverError);
        return false;
    }

    qCDebug(lcCorbeth) << "cut files";
    if (!cutFiles(info->coverFiles)) {
        qCCritical(lcCorbeth) << "cut file error";
        emit errorOccurred(CBEnum::EC_FileNotOpen);
        return false;
    }

    if (revoked(epoch))
        return false;
    advanceProgress(30, 85);
    qCDebug(lcCorbeth) << "links";
    if (!links(info->links)) {
        qCCritical(lcCorbeth) << "links error";
        emit errorOccurred(CBEnum::EC_FileNotOpen);
        return false;
    }

    if (revoked(epoch))
        return false;
    advanceProgress(15, 90);
    qCInfo(lcCorbeth) << "install packageeeeeeee finished";
    qCDebug(lcCorbeth) << "setting ";
    settings(info->settings);
    return true;
}

bool Installer::uninstallPackage(QString flow)
{
    qCInfo(lcCorbeth) << "uninstall flow" << flow;
    m_uninstallInfo = orEmpty(m_uninstallInfo);
    recoverWhiteList();
    if (flow == QLatin1String("update") && m_updateInfo) {
        // The update's white-listed files survive the uninstall that precedes it.
        m_uninstallInfo->whiteList.append(m_updateInfo->whiteList);
        qCDebug(lcCorbeth) << "uninstall whiteList" << m_uninstallInfo->whiteList;
    }

    emit progress(10.0);
    qCDebug(lcCorbeth) << "clear runing";
    if (!clearProcess()) {
        qCCritical(lcCorbeth) << "clear runing exe fail";
        emit errorOccurred(CBEnum::EC_UnknownError);
        return false;
    }

    emit progress(20.0);
    if (!copySuicideTool()) {
        qCCritical(lcCorbeth) << "copy suicide tool exe fail";
        emit errorOccurred(CBEnum::EC_UnknownError);
        return false;
    }

    emit progress(30.0);
    if (m_installCallback) {
        const CBEnum::ErrorCode code = m_installCallback();
        if (code != CBEnum::EC_NoError) {
            qCCritical(lcCorbeth) << "call back error" << codeName(code);
            emit errorOccurred(code);
            return false;
        }
    }
    return runUninstallSteps();
}

bool Installer::runUninstallSteps()
{
    const InstallInfoPtr info = m_uninstallInfo;

    emit progress(40.0);
    qCDebug(lcCorbeth) << "process";
    // The uninstall goes on whatever its programs did; the inverted warning is
    // what operators have always seen in this place.
    if (processExe(info->process) == CBEnum::EC_NoError)
        qCWarning(lcCorbeth) << "install error process exe ";

    emit progress(50.0);
    qCDebug(lcCorbeth) << "cut files";
    if (!cutFiles(info->coverFiles)) {
        qCCritical(lcCorbeth) << "cut file error";
        emit errorOccurred(CBEnum::EC_FileNotOpen);
        return false;
    }

    emit progress(60.0);
    qCDebug(lcCorbeth) << "remove files";
    if (!removeFiles(info->removeFiles, info->whiteList))
        qCWarning(lcCorbeth) << "uninstall error remove files";

    emit progress(80.0);
    qCDebug(lcCorbeth) << "remove settings";
    removeSettings(info->removeSettings);

    emit progress(99.0);
    emit uninstallPackageFinished();
    return true;
}

bool Installer::update()
{
    qCInfo(lcCorbeth) << "update";
    if (!m_updateInfo) {
        qCCritical(lcCorbeth) << "not init";
        return false;
    }
    const InstallInfoPtr info = m_updateInfo;
    setInstallPath(m_installInfo ? m_installInfo->olderSoftwareInfo.olderInstallPath : QString());
    qCDebug(lcCorbeth) << "update path" << m_installPath;
    recoverWhiteList();
    if (m_installPath.isEmpty()) {
        qCCritical(lcCorbeth) << "not install software" << m_installPath;
        emit errorOccurred(CBEnum::EC_SoftwarePathError);
        return false;
    }

    // Written by each phase's task before it quits the loop.
    bool result = false;
    const int started = epoch();

    // Phase 1: the update's own files. A failure ends the update: phase 2
    // would remove what the update copied from, the only good copy left.
    waitForTask(started, 10000, 50.0, [this, info, &result](QEventLoop *loop) {
        result = cutFiles(info->coverFiles);
        if (!result) {
            qCCritical(lcCorbeth) << "cut file error";
            emit errorOccurred(CBEnum::EC_FileNotOpen);
        }
        quitLater(loop);
    });
    if (revoked(started) || !result)
        return false;
    advanceProgress(50, 50);

    // Phase 2: the install steps, then the update's removals.
    waitForTask(started, 15000, 100.0, [this, info, started, &result](QEventLoop *loop) {
        if (!runInstallSteps(started)) {
            // The update is left waiting: the failing step has reported.
            qCCritical(lcCorbeth) << "installl fail";
            result = false;
            return;
        }
        if (!copySuicideTool())
            qCWarning(lcCorbeth) << "copy suicide tool fail";
        if (!removeFiles(info->removeFiles, QStringList()))
            qCWarning(lcCorbeth) << "removeFiles file error";
        result = true;
        quitLater(loop);
    });

    if (result && !revoked(started)) {
        emit installPackageFinished();
        advanceProgress(100, 100);
        return true;
    }
    qCCritical(lcCorbeth) << "update fail";
    return false;
}

bool Installer::updatePatch()
{
    qCInfo(lcCorbeth) << "update patch";
    if (!m_updatePatchInfo) {
        qCCritical(lcCorbeth) << "m_updatePatchInfo not init";
        return false;
    }
    const InstallInfoPtr info = m_updatePatchInfo;
    setInstallPath(m_installInfo ? m_installInfo->olderSoftwareInfo.olderInstallPath : QString());
    if (m_installPath.isEmpty()) {
        qCCritical(lcCorbeth) << "not install software" << m_installPath;
        emit errorOccurred(CBEnum::EC_SoftwarePathError);
        return false;
    }
    if (!clearProcess()) {
        qCCritical(lcCorbeth) << "clear runing exe fail";
        emit errorOccurred(CBEnum::EC_UnknownError);
        return false;
    }

    qCDebug(lcCorbeth) << "updatepatch path" << m_installPath;
    recoverWhiteList();
    bool result = false;
    const int started = epoch();
    waitForTask(started, 3000, 70.0, [this, info, &result](QEventLoop *loop) {
        if (!copySuicideTool())
            qCWarning(lcCorbeth) << "copy suicide tool fail";
        // A failure below leaves the patch waiting; the error signal tells the client.
        if (!cutFiles(info->coverFiles)) {
            qCCritical(lcCorbeth) << "cut file error";
            emit errorOccurred(CBEnum::EC_FileNotOpen);
            result = false;
            return;
        }
        if (processExe(info->process) == CBEnum::EC_NoError)
            qCWarning(lcCorbeth) << "install error process exe ";
        if (!removeFiles(info->removeFiles, QStringList())) {
            qCWarning(lcCorbeth) << "removeFiles file error";
            return;
        }
        result = true;
        quitLater(loop);
    });
    if (revoked(started))
        return false;
    advanceProgress(70, 70);
    emit installPackageFinished();
    advanceProgress(100, 100);
    return true;
}

} // namespace Corbeth
