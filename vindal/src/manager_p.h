#ifndef VINDAL_MANAGER_P_H
#define VINDAL_MANAGER_P_H

#include <vindal/manager.h>

#include "indexcache_p.h"
#include "repositoryconfig_p.h"
#include "repositoryrequest_p.h"

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QThreadPool>

#include <atomic>
#include <memory>

class QNetworkAccessManager;

namespace Vindal {

class ReplyChannel;

class ManagerPrivate
{
public:
    explicit ManagerPrivate(Manager *q);

    // Created on first use, on the manager's thread (the manager may have
    // been moved to another thread after construction).
    QNetworkAccessManager *network();
    void applyNetworkSettings();

    // A new reply whose request failed before it started: the status is set
    // at once, finished() follows from the event loop.
    Reply *refuse(Error::ErrorCode code, const QString &message);
    Reply *request(RepositoryRequest::Mode mode, const RepositoryRequest::Target &target);
    // The version of module installed here, which a delta starts from: the
    // configured one, else the version last unpacked from this repository.
    QString installedVersion(const QString &module) const;
    Reply *fetchModule(const QString &module, const VDBasicInfo &info, bool writeVerifyFile);
    void shutdown();

    // One unpack: what loadOfflinePackage was given, and what this manager
    // knows of the package (its download's description, empty for a package
    // it did not download) and of the repository.
    struct UnpackJob
    {
        QString packageFile;
        QString targetFolder;
        ExtractLimits limits;
        QVariantMap delivered;
        QString identity;
    };
    void unpack(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job);
    // managerdelta.cpp: a delta package's unpack, and its fall-back to the
    // full package (on the manager's thread).
    void applyDelta(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job);
    void fallBack(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job, const std::shared_ptr<void> &state);
    void noteDelta(const QVariantMap &delta, const UnpackJob &job, const QString &module, const QString &version);
    void noteInstalled(const UnpackJob &job, const QString &module, const QString &version);

    Manager *q;
    QObject *m_requests;                       // parent of the running requests, a child of q
    QNetworkAccessManager *m_network = nullptr;
    RepositoryConfig m_config;                 // used on the manager's thread only
    bool m_configured = false;
    std::shared_ptr<IndexCache> m_indexCache = std::make_shared<IndexCache>(); // manager's thread only

    mutable QMutex m_mutex;                    // guards what other threads read
    QVariantMap m_packageInfo;
    QHash<QString, QVariantMap> m_delivered;   // the downloads' descriptions, by path
    ExtractLimits m_limits;

    QThreadPool *m_unpackPool;                 // a child of q, so it moves with the manager
    std::shared_ptr<std::atomic<bool>> m_shuttingDown = std::make_shared<std::atomic<bool>>(false);
};

} // namespace Vindal

#endif // VINDAL_MANAGER_P_H
