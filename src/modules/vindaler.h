#ifndef CORBETH_VINDALER_H
#define CORBETH_VINDALER_H

#include <corbeth/cbenum.h>

#include <vindal/error.h>
#include <vindal/manager.h>
#include <vindal/reply.h>

#include <QtCore/QAtomicInt>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QSharedPointer>
#include <QtCore/QThread>
#include <QtCore/QVariant>
#include <QtCore/QVariantMap>

namespace Corbeth {

// The engine's one door to the module service. The service object lives on a
// thread of its own; every call except packageInfo() hops there and blocks
// until it has run, so no method may be called on that thread itself.
//
// Replies returned to the caller belong to the caller; replies consumed by
// waitReply() are deleted by it.
class Vindaler : public QObject
{
    Q_OBJECT
public:
    explicit Vindaler(QObject *parent = nullptr);
    ~Vindaler() override;

    Vindal::Reply *setConfigPath(const QString &path);
    Vindal::Reply *setConfigData(const QVariantMap &config);

    // Null when the service cannot be configured.
    Vindal::Reply *downloadModule(const QString &module);
    Vindal::Reply *downloadOfflineModule(const QString &module);
    void loadOfflinePackage(Vindal::Reply *reply, const QString &packageFile, const QString &targetFolder);

    Vindal::Error::ErrorCode requestUpgradeInfo(const QString &programFolder, QVariant &result);
    // The configured module's versions this client is offered, newer than
    // the one delivered to it: {"current", "channel", "upgrades"}.
    Vindal::Error::ErrorCode requestModuleUpdateInfo(QVariant &result);
    Vindal::Reply *checkUpgradeAndDownload(const QString &programFolder);

    void setTemporaryStoragePath(const QString &folder);
    QVariantMap packageInfo() const;

    // Blocks in a local event loop until the reply finishes; result receives
    // its "result" on success. The reply is deleted afterwards, unless it was
    // already in error.
    Vindal::Error::ErrorCode waitReply(Vindal::Reply *reply, QVariant &result);
    Vindal::Error::ErrorCode checkReply(Vindal::Reply *reply) const;

    // Compares part by part as text, so "10" sorts before "9": callers pass
    // versions of the same shape.
    static QString maxVersion(const QString &a, const QString &b);
    static CBEnum::ErrorCode toErrorCode(int error);

    QVariantMap config() const { return m_config; }
    bool isInited() const { return m_inited.loadAcquire() != 0; }

signals:
    void initSuccess();

public slots:
    void onInited(const QVariantMap &params);

private:
    bool init(Vindal::Reply *&reply);
    void storeConfig(const QVariantMap &config);
    static QVariantMap withRolloutBucket(QVariantMap config);
    Vindal::Reply *listenForInit(Vindal::Reply *reply);
    // Runs fn on the service's thread and hands back what it returned.
    template<typename Fn>
    Vindal::Reply *onServiceThread(Fn fn);
    // Configures the service once if needed, then sends the request.
    template<typename Fn>
    Vindal::Reply *initThen(Fn request);

    QSharedPointer<Vindal::Manager> m_manager;
    QThread m_thread;
    QAtomicInt m_inited;
    QVariantMap m_config;
    QMutex m_mutex;
    // The thread inside init() while it waits for the service, if any.
    QAtomicPointer<QThread> m_initThread;
};

} // namespace Corbeth

#endif // CORBETH_VINDALER_H
