#ifndef CORBETH_MANAGERPRIVATE_H
#define CORBETH_MANAGERPRIVATE_H

#include "installer/installer.h"
#include "records/sqlhelper.h"

#include <corbeth/cbenum.h>

#include <QtCore/QAtomicInt>
#include <QtCore/QFutureWatcher>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QSharedPointer>
#include <QtCore/QTimer>
#include <QtCore/QVariantMap>

#include <functional>

namespace Vindal {
class Reply;
}

namespace Corbeth {

class Configer;
class Manager;
class PluginHelper;
class Vindaler;

// The task orchestrator behind Manager: it runs the online and offline flows,
// downloads, verification, retries and the task status, and keeps the one
// progress figure the client sees. It lives in the client's thread; reports
// from the module service's thread and from pool jobs reach it queued, so its
// state needs no lock.
class ManagerPrivate : public QObject
{
    Q_OBJECT
public:
    explicit ManagerPrivate(Manager *q);
    ~ManagerPrivate() override;

    static ManagerPrivate *get(Manager *manager);
    // The Manager goes while one of this object's calls still waits in a
    // nested loop: the task is ended, and this object deletes itself once
    // that call has returned. False, doing nothing, when nothing waits.
    bool releaseWhenIdle();

    CBEnum::ErrorCode initRemote();
    void offlineInstall(const QString &path);
    void downloadPackage(const QString &path);
    bool installPackage();
    bool installPatch();
    bool uninstallPackage(const QString &flow);
    void uncompressPackage(const QString &package, const QString &folder);
    void installing(const QString &path);
    void getHardwareInfo();
    bool checkSelfUpdateAndDownload();
    // The facade's task: removes the older software as an operation of its own.
    void uninstallOlderSoftwareTask();
    // Removes the older software when the client asked for it; callable from
    // a pool job. False (and EC_UninstallOlderSoftwareFail reported by the
    // caller) when some of it is left.
    bool uninstallOldSoftware();
    void revocateInstall();
    qint64 packageSize() const;

    bool searchOfflinePackage(const QString &dir, QString &found, const QString &suffix);
    bool checkOfflineInstallFile(const QString &path);
    bool checkPackage(const QString &md5, const QString &path);
    // The comparison checkPackage makes, without touching the task status, for
    // jobs off the manager's thread.
    static bool packageMatches(const QString &md5, const QString &path, const std::function<bool()> &stop = {});

    void setTaskStatus(uint status);
    uint taskStatus() const { return m_taskStatus; }
    void setOperation(Operation operation);
    Operation operation() const { return m_operation; }
    double currentProgress() const { return m_progress; }
    static double percent(qint64 received, qint64 total);

    QSharedPointer<Configer> m_configer;
    QSharedPointer<Vindaler> m_vindaler;
    QSharedPointer<Installer> m_installer;
    QSharedPointer<PluginHelper> m_pluginHelper;

signals:
    void languageChanged();
    void onlineInstallFinished();
    void progress(double progress);
    void errorOccurred(CBEnum::ErrorCode error);
    void installPathChanged();
    void installPackageFinished();
    void uninstallPackageFinished();
    void selfUpgradeFinished();
    void finished();
    void taskStatusChanged(uint taskStatus);
    void operationChanged();
    void installingFinished();

public slots:
    bool onlineInstall(const QString &path);
    void onDownloadPackageFinished(const QVariantMap &params);
    void onConfigDataChanged();
    CBEnum::ErrorCode requestPlugin(const QString &name, const QVariantMap &params, QString &ID);

private slots:
    void onOnlineDownlaodFinished(const QVariantMap &params);
    void onProgress(qlonglong received, qlonglong total);
    void onRiseOfProgress(double rise);
    void addProgress(double progress, double max);
    void addProgress(double progress);
    void resetProgress();
    void onFinished();
    void onInstallUncompress(const QVariantMap &params);

private:
    // What the verify-and-unpack job found; the manager's thread acts on it.
    struct JobResult
    {
        CBEnum::ErrorCode code = CBEnum::EC_NoError;
        bool verifyFailed = false;
    };
    // What the job works on, taken on this thread when the task starts: a
    // configuration replaced meanwhile does not change it under the job.
    struct PrepareJob
    {
        QString file;
        QString md5;
        bool offline = false;
        QVariantMap record;
        QStringList closeNames;
        bool removeOlder = false;
        Installer::OlderRemoval older;
        QString installPath;
        // Set by a revocation; the job looks at it before every step.
        QSharedPointer<QAtomicInt> revoked = QSharedPointer<QAtomicInt>::create(0);
    };

    bool reqDownloadPackage();
    CBEnum::ErrorCode reqDownloadOfflineModule(const QString &path, Vindal::Reply *&reply);
    bool handleDownloadOfflineModule(const QVariantMap &params);
    void onRetryTimeout();
    JobResult verifyAndPrepare(const PrepareJob &job);
    // checkOfflineInstallFile, stopping the hash when stop says so.
    static bool companionMatches(const QString &path, const std::function<bool()> &stop);
    bool startOnlineInstall(const QString &path);
    void startDownload(const QString &path);
    void takeSnapshot();
    // Hands the reply's finished map to handler once, on this thread, and
    // deletes the reply afterwards.
    void whenFinished(Vindal::Reply *reply, const std::function<void(const QVariantMap &)> &handler);
    // Points the module service's downloads at folder.
    void useStorageFolder(const QString &folder);
    void startPrepareJob(const QString &file, const QString &md5, bool offline);
    void onPrepareJobFinished();
    void startUnpack(const QString &file, const QString &folder);
    void startEngineInstall();
    void onEngineInstallFinished();
    void onEngineUninstallFinished();
    void onEngineProgress(double absolute);
    // Ends a task the manager itself found failing: the client hears the code.
    void fail(CBEnum::ErrorCode code);
    void completeProgress();
    bool isRunning() const;
    // One task at a time: false, with a log line, while one runs.
    bool beginTask(const char *what);
    // Runs call, which waits in a nested loop, counted in m_nestedWaits.
    template<typename Call>
    auto waitingIn(Call call);

    int m_retryCount = 0;
    uint m_taskStatus = CBEnum::TS_Freeing;
    double m_progress = 0.0;
    // The install path whose cache folder the last download used.
    QString m_cachePath;
    // The last download result ("errorCode", "result", "packageExisted").
    QVariantMap m_downloadResult;
    // The module service's code for the last failed download, -1 for none.
    int m_lastError = -1;
    Manager *q;
    QTimer m_retryTimer;
    // The package being handled: the downloaded or offline file's description.
    QVariantMap m_packageInfo;
    Operation m_operation = O_Waiting;
    SQLHelper m_sqlHelper;

    QPointer<Vindal::Reply> m_downloadReply;
    QPointer<Vindal::Reply> m_unpackReply;
    // Every reply not yet heard. Only this thread lets a reply go: one the
    // service's thread deleted by itself could vanish while being aborted here.
    QList<Vindal::Reply *> m_heldReplies;
    QFutureWatcher<JobResult> m_prepareJob;
    // Depth of calls that wait in a nested loop (the module service, the
    // engine's update and patch) on this thread.
    int m_nestedWaits = 0;
    // A retry that fell due during such a wait; it runs when the wait ends.
    bool m_retryDue = false;
    // A task was accepted and has not ended yet.
    bool m_taskActive = false;
    // The Manager is gone; this object goes when its last wait returns.
    bool m_released = false;
    PrepareJob m_job;
    // Retry rounds done, and how many the configuration allows (0: no end).
    int m_retryRounds = 0;
    int m_retryRoundLimit = 0;
};

} // namespace Corbeth

#endif // CORBETH_MANAGERPRIVATE_H
