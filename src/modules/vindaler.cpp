#include "vindaler.h"

#include "logging_p.h"
#include "config/configer.h"
#include "manager/ptrmanager.h"
#include "modules/rolloutbucket.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QMutexLocker>
#include <QtCore/QScopeGuard>

namespace Corbeth {

namespace {
// The engine's own protocol version, sent with every upgrade query.
const QString kProtocolVersion = QStringLiteral("2.3.4");
const int kUpgradeLimit = 10;
} // namespace

Vindaler::Vindaler(QObject *parent)
    : QObject(parent)
    , m_manager(new Vindal::Manager(nullptr))
{
    m_thread.setObjectName(QStringLiteral("Vindaler"));
    m_manager->moveToThread(&m_thread);
    m_thread.start(QThread::InheritPriority);
}

Vindaler::~Vindaler()
{
    // The manager is deleted on its own thread while that thread still runs,
    // and so are the replies it cancels on its way out, which their listeners
    // delete later: what is queued for deletion while a thread ends is never
    // deleted, and the replies leaked.
    // The call needs an object of that thread other than the manager, which
    // the call deletes; it comes back here to be destroyed on its own thread.
    QObject context;
    context.moveToThread(&m_thread);
    QThread *const here = QThread::currentThread();
    QMetaObject::invokeMethod(&context, [this, &context, here] {
        m_manager.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        context.moveToThread(here);
    }, Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
}

template<typename Fn>
Vindal::Reply *Vindaler::onServiceThread(Fn fn)
{
    Vindal::Reply *reply = nullptr;
    QMetaObject::invokeMethod(m_manager.data(), fn, Qt::BlockingQueuedConnection, &reply);
    return reply;
}

template<typename Fn>
Vindal::Reply *Vindaler::initThen(Fn request)
{
    Vindal::Reply *reply = nullptr;
    if (!init(reply)) {
        qCCritical(lcCorbeth) << "init fail";
        return nullptr;
    }
    return onServiceThread(request);
}

Vindal::Reply *Vindaler::listenForInit(Vindal::Reply *reply)
{
    // Connected while still on the service's thread, before the reply can
    // finish, so the answer cannot slip past.
    if (reply)
        connect(reply, &Vindal::Reply::finished, this, &Vindaler::onInited);
    return reply;
}

void Vindaler::storeConfig(const QVariantMap &config)
{
    if (config == m_config)
        return;
    qCDebug(lcCorbeth) << "config changed";
    m_config = config;
}

Vindal::Reply *Vindaler::setConfigData(const QVariantMap &data)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "beginnnnnnnnnnnnn ";
    qCDebug(lcCorbeth) << data;
    const QVariantMap config = withRolloutBucket(data);
    storeConfig(config);
    return onServiceThread([this, config] { return listenForInit(m_manager->setConfigData(config)); });
}

QVariantMap Vindaler::withRolloutBucket(QVariantMap config)
{
    // The machine's own place in staged rollouts, whatever the document says:
    // one number for every product, and a repository never learns it.
    config.insert(RolloutBucket::valueName(), qlonglong(RolloutBucket::value()));
    return config;
}

Vindal::Reply *Vindaler::setConfigPath(const QString &path)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "beginnnnnnnnnnnnn ";
    qCDebug(lcCorbeth) << path;
    return onServiceThread([this, path] { return listenForInit(m_manager->setConfigPath(path)); });
}

void Vindaler::onInited(const QVariantMap &params)
{
    if (params.value(QStringLiteral("errorCode")).toInt() != 0)
        return;
    qCDebug(lcCorbeth) << "modules init success";
    m_inited.storeRelease(1);
    emit initSuccess();
}

bool Vindaler::init(Vindal::Reply *&reply)
{
    if (m_inited.loadAcquire())
        return true;
    // A request made on this thread from inside the wait below (a timer, a
    // click) would block on the mutex this thread already holds, for ever:
    // it is refused. Other threads wait their turn.
    if (m_initThread.loadAcquire() == QThread::currentThread()) {
        qCCritical(lcCorbeth) << "init busy";
        return false;
    }
    QMutexLocker locker(&m_mutex);
    m_initThread.storeRelease(QThread::currentThread());
    const auto done = qScopeGuard([this] { m_initThread.storeRelease(nullptr); });
    if (m_inited.loadAcquire())
        return true;
    if (m_config.isEmpty()) {
        qCCritical(lcCorbeth) << "config is empty";
        return false;
    }
    const QVariantMap config = m_config;
    reply = onServiceThread([this, config] { return m_manager->setConfigData(config); });
    // waitReply leaves a reply that failed at once to its owner; this one has
    // no other owner, as the download operations only want the verdict.
    const bool refusedAtOnce = reply && reply->status() != Vindal::Error::NoError;
    QVariant result;
    if (waitReply(reply, result) != Vindal::Error::NoError) {
        if (refusedAtOnce)
            reply->deleteLater();
        return false;
    }
    qCDebug(lcCorbeth) << "succeess inited" << m_inited.loadAcquire();
    m_inited.storeRelease(1);
    return true;
}

Vindal::Reply *Vindaler::downloadModule(const QString &module)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "beginnnnnnnnnnnnn ";
    qCDebug(lcCorbeth) << module;
    return initThen([this, module] { return m_manager->downloadModule(module, Vindal::VDBasicInfo()); });
}

Vindal::Reply *Vindaler::downloadOfflineModule(const QString &module)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "beginnnnnnnnnnnnn ";
    qCDebug(lcCorbeth) << module;
    return initThen([this, module] { return m_manager->downloadOfflineModule(module, Vindal::VDBasicInfo()); });
}

void Vindaler::loadOfflinePackage(Vindal::Reply *reply, const QString &packageFile, const QString &targetFolder)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "beginnnnnnnnnnnnn" << reply;
    qCDebug(lcCorbeth) << packageFile << targetFolder;
    QMetaObject::invokeMethod(
        m_manager.data(), [this, reply, packageFile, targetFolder] {
            m_manager->loadOfflinePackage(reply, packageFile, targetFolder);
        },
        Qt::BlockingQueuedConnection);
}

Vindal::Error::ErrorCode Vindaler::checkReply(Vindal::Reply *reply) const
{
    if (!reply) {
        qCCritical(lcCorbeth) << "erorrOccurred nullptr";
        return Vindal::Error::NoReply;
    }
    const Vindal::Error::ErrorCode status = reply->status();
    if (status != Vindal::Error::NoError)
        qCCritical(lcCorbeth) << "erorrOccurred" << status;
    return status;
}

Vindal::Error::ErrorCode Vindaler::waitReply(Vindal::Reply *reply, QVariant &result)
{
    Vindal::Error::ErrorCode code = checkReply(reply);
    if (code != Vindal::Error::NoError)
        return code;

    bool handled = false;
    const auto handle = [&](const QVariantMap &params) {
        if (handled)
            return;
        handled = true;
        code = static_cast<Vindal::Error::ErrorCode>(params.value(QStringLiteral("errorCode")).toInt());
        if (code == Vindal::Error::NoError)
            result = params.value(QStringLiteral("result"));
    };
    QEventLoop loop;
    connect(reply, &Vindal::Reply::finished, &loop, [&](const QVariantMap &params) {
        handle(params);
        loop.quit();
    });
    // The reply was made on the service's thread, which kept running after
    // handing it over: it may have finished before the connection existed.
    if (reply->isFinished())
        handle(reply->result());
    else
        loop.exec();

    qCCritical(lcCorbeth) << "ready for finished" << code;
    reply->deleteLater();
    return code;
}

Vindal::Error::ErrorCode Vindaler::requestUpgradeInfo(const QString &programFolder, QVariant &result)
{
    // The installer's identity lives in the "tolmInstallerModuleInfo" section;
    // a document that keeps these keys at its top level is read as well.
    const QSharedPointer<Configer> configer = PtrManager::instance()->configer();
    QVariantMap identity = configer->tolmInstallerModuleInfo();
    if (identity.isEmpty())
        identity = configer->configData();
    const QString environment = identity.value(QStringLiteral("environment")).toString();
    const QString modelCode = identity.value(QStringLiteral("modelCode")).toString();
    const QString lang = identity.value(QStringLiteral("lang")).toString();
    const QString os = identity.value(QStringLiteral("os")).toString();

    Vindal::Reply *reply = onServiceThread([=] {
        return m_manager->checkUpgrade(programFolder, modelCode, environment, kProtocolVersion, os, lang,
                                       kUpgradeLimit, QStringList(), QStringList());
    });
    QVariant answer;
    const Vindal::Error::ErrorCode code = waitReply(reply, answer);
    if (code == Vindal::Error::NoError)
        result = answer;
    return code;
}

Vindal::Error::ErrorCode Vindaler::requestModuleUpdateInfo(QVariant &result)
{
    // The upgrade query about the configured module: its versions this
    // client is offered, newer than the one it holds.
    Vindal::Reply *reply = initThen([this] {
        return m_manager->checkUpgrade(QString(), QString(), QString(), kProtocolVersion, QString(), QString(), kUpgradeLimit,
                                       QStringList(), QStringList{QStringLiteral("module")});
    });
    // waitReply leaves a reply refused at once to its owner, which is this.
    const bool refusedAtOnce = reply && reply->status() != Vindal::Error::NoError;
    const Vindal::Error::ErrorCode code = waitReply(reply, result);
    if (refusedAtOnce)
        reply->deleteLater();
    return code;
}

QString Vindaler::maxVersion(const QString &a, const QString &b)
{
    const QStringList partsA = a.split(QLatin1Char('.'));
    const QStringList partsB = b.split(QLatin1Char('.'));
    for (int i = 0; i < partsB.size(); ++i) {
        // Past the end of a the shapes differ; such a pair keeps a.
        if (i >= partsA.size())
            break;
        if (partsA.at(i) < partsB.at(i))
            return b;
        if (partsA.at(i) > partsB.at(i))
            return a;
    }
    return a;
}

Vindal::Reply *Vindaler::checkUpgradeAndDownload(const QString &programFolder)
{
    qCInfo(lcCorbeth) << Q_FUNC_INFO << "endiddddddddddddd ";
    QVariant result;
    if (requestUpgradeInfo(programFolder, result) != Vindal::Error::NoError)
        return nullptr;

    const QVariantList upgrades = result.toMap().value(QStringLiteral("upgrades")).toList();
    if (upgrades.isEmpty())
        return nullptr;
    QString modelCode;
    QString version;
    for (const QVariant &item : upgrades) {
        const QVariantMap entry = item.toMap();
        modelCode = entry.value(QStringLiteral("modelCode")).toString();
        const QString softVersion = entry.value(QStringLiteral("softVersion")).toString();
        version = version.isEmpty() ? softVersion : maxVersion(version, softVersion);
    }
    if (modelCode.isEmpty() || version.isEmpty()) {
        qCCritical(lcCorbeth) << "modelcode or version is empty";
        return nullptr;
    }

    Vindal::Reply *reply = onServiceThread([this, modelCode, version] {
        return m_manager->startUpgrade(modelCode, version, Vindal::Manager::PackageType(0));
    });
    if (checkReply(reply) != Vindal::Error::NoError) {
        if (reply)
            reply->deleteLater();
        return nullptr;
    }
    return reply;
}

void Vindaler::setTemporaryStoragePath(const QString &folder)
{
    QVariantMap startDownload = m_config.value(QStringLiteral("startDownload")).toMap();
    if (!startDownload.isEmpty()) {
        qCWarning(lcCorbeth) << "config startDownload configuration" << startDownload;
        return;
    }
    startDownload.insert(QStringLiteral("temporaryStoragePath"), folder);
    QVariantMap config = m_config;
    config.insert(QStringLiteral("startDownload"), startDownload);
    storeConfig(config);
    // Nobody waits for this reply; it goes once it has been heard.
    if (Vindal::Reply *reply = setConfigData(config)) {
        connect(reply, &Vindal::Reply::finished, reply, &QObject::deleteLater);
        if (reply->isFinished())
            reply->deleteLater();
    }
}

QVariantMap Vindaler::packageInfo() const
{
    return m_manager->packageInfo();
}

CBEnum::ErrorCode Vindaler::toErrorCode(int error)
{
    switch (error) {
    case Vindal::Error::NoError:
        return CBEnum::EC_NoError;
    case Vindal::Error::Timeout:
        return CBEnum::EC_Timeout;
    case Vindal::Error::ConfigError:
        return CBEnum::EC_ConfigDataError;
    default:
        return CBEnum::EC_UnknownNetworkError;
    }
}

} // namespace Corbeth
