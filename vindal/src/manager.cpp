#include "manager_p.h"

#include <vindal/package.h>
#include <vindal/repository.h>

#include "deltaapplier_p.h"
#include "logging_p.h"
#include "reply_p.h"
#include "statestore_p.h"
#include "transfer_p.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMutexLocker>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkProxyFactory>

namespace Vindal {

namespace {

// The operating system's proxy settings, asked per request, for this
// manager alone (the process-wide setting stays untouched).
class SystemProxyFactory : public QNetworkProxyFactory
{
public:
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override { return systemProxyForQuery(query); }
};

} // namespace

ManagerPrivate::ManagerPrivate(Manager *q)
    : q(q)
    , m_requests(new QObject(q))
    , m_unpackPool(new QThreadPool(q))
{
    m_unpackPool->setMaxThreadCount(2);
}

QNetworkAccessManager *ManagerPrivate::network()
{
    if (!m_network) {
        m_network = new QNetworkAccessManager(q);
        applyNetworkSettings();
    }
    return m_network;
}

void ManagerPrivate::applyNetworkSettings()
{
    if (!m_network)
        return;
    switch (m_config.proxyMode) {
    case RepositoryConfig::SystemProxy:
        m_network->setProxyFactory(new SystemProxyFactory);
        break;
    case RepositoryConfig::NoProxy:
        m_network->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        break;
    case RepositoryConfig::FixedProxy:
        m_network->setProxy(m_config.proxy);
        break;
    }
}

Reply *ManagerPrivate::refuse(Error::ErrorCode code, const QString &message)
{
    qCWarning(lcVindal).noquote() << "request refused:" << errorKey(code) << message;
    auto *reply = new Reply;
    ReplyPrivate::channel(reply)->finishLater(q, code, message);
    return reply;
}

Reply *ManagerPrivate::request(RepositoryRequest::Mode mode, const RepositoryRequest::Target &target)
{
    auto *reply = new Reply;
    auto *request = new RepositoryRequest(mode, network(), m_config, target, ReplyPrivate::channel(reply),
                                          [this](const QVariantMap &info) {
                                              QMutexLocker lock(&m_mutex);
                                              m_packageInfo = info;
                                          },
                                          m_indexCache, m_requests);
    // Started from the event loop, so that the caller connects first.
    QMetaObject::invokeMethod(request, [request] { request->start(); }, Qt::QueuedConnection);
    return reply;
}

Reply *ManagerPrivate::fetchModule(const QString &module, const VDBasicInfo &info, bool writeVerifyFile)
{
    if (!m_configured)
        return refuse(Error::ConfigError, QStringLiteral("no configuration: setConfigData() or setConfigPath() comes first"));
    RepositoryRequest::Target target;
    // The engine passes its install path here; a plain module name is taken
    // as the module, anything else means the configured one.
    target.name = Repository::isValidModuleName(module) ? module : m_config.module;
    if (target.name.isEmpty())
        return refuse(Error::ConfigError, QStringLiteral("no module to download: \"moduleInfo\" names none"));
    target.version = info.version;
    if (target.version.isEmpty() && target.name == m_config.module)
        target.version = m_config.pinnedVersion;
    target.pinned = !target.version.isEmpty();
    target.writeVerifyFile = writeVerifyFile;
    target.extra = info.extra;
    target.useDelta = m_config.useDeltas;
    target.installedVersion = m_config.installedVersion.isEmpty() ? StateStore::installed(m_config.identity(), target.name) : m_config.installedVersion;
    target.delivered = [this](const QVariantMap &result) {
        QMutexLocker lock(&m_mutex);
        m_delivered.insert(QFileInfo(result.value(QStringLiteral("path")).toString()).absoluteFilePath(), result);
    };
    qCInfo(lcVindal) << "download" << target.name << (target.pinned ? target.version : QStringLiteral("newest"));
    return request(RepositoryRequest::Fetch, target);
}

void ManagerPrivate::shutdown()
{
    *m_shuttingDown = true;
    delete m_requests; // their replies finish with Cancelled
    m_requests = nullptr;
    m_unpackPool->waitForDone();
}

Manager::Manager(QObject *parent)
    : QObject(parent)
    , d(new ManagerPrivate(this))
{
}

Manager::~Manager()
{
    d->shutdown();
    delete d;
}

Reply *Manager::setConfigPath(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return d->refuse(Error::ConfigError, QStringLiteral("cannot read the configuration \"%1\": %2").arg(path, file.errorString()));
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.read(4 * 1024 * 1024), &error);
    if (!doc.isObject())
        return d->refuse(Error::ConfigError, QStringLiteral("the configuration \"%1\" is not a JSON object: %2").arg(path, error.errorString()));
    QVariantMap config = doc.object().toVariantMap();
    // A product's whole engine configuration: its module service section,
    // with the module to download, as the engine would hand it over.
    if (config.value(QStringLiteral("velmira")).type() == QVariant::Map) {
        const QVariant module = config.contains(QStringLiteral("downloadModueleInfo")) ? config.value(QStringLiteral("downloadModueleInfo"))
                                                                                        : config.value(QStringLiteral("downloadModuleInfo"));
        QVariantMap section = config.value(QStringLiteral("velmira")).toMap();
        section.insert(QStringLiteral("moduleInfo"), module.toMap());
        config = section;
    }
    return setConfigData(config);
}

Reply *Manager::setConfigData(const QVariantMap &config)
{
    RepositoryConfig parsed;
    QString error;
    if (!RepositoryConfig::parse(config, &parsed, &error))
        return d->refuse(Error::ConfigError, QStringLiteral("unusable configuration: %1").arg(error));
    d->m_config = parsed;
    d->m_configured = true;
    d->m_indexCache->clear();
    {
        QMutexLocker lock(&d->m_mutex);
        d->m_limits = parsed.limits;
        d->m_packageInfo.clear();
    }
    d->applyNetworkSettings();
    qCInfo(lcVindal) << "repository" << parsed.bases.first().toString() << "module" << parsed.module;
    RepositoryRequest::Target target;
    target.name = parsed.module;
    target.version = parsed.pinnedVersion;
    target.pinned = !target.version.isEmpty();
    if (target.name.isEmpty()) {
        // Nothing to resolve; the reply still comes from the event loop.
        auto *reply = new Reply;
        const auto channel = ReplyPrivate::channel(reply);
        const QVariantMap result{{QStringLiteral("repository"), parsed.bases.first().toString()}};
        QMetaObject::invokeMethod(this, [channel, result] { channel->finish(Error::NoError, result); }, Qt::QueuedConnection);
        return reply;
    }
    return d->request(RepositoryRequest::Resolve, target);
}

Reply *Manager::downloadModule(const QString &module, const VDBasicInfo &info)
{
    return d->fetchModule(module, info, false);
}

Reply *Manager::downloadOfflineModule(const QString &module, const VDBasicInfo &info)
{
    return d->fetchModule(module, info, true);
}

void Manager::loadOfflinePackage(Reply *reply, const QString &packageFile, const QString &targetFolder)
{
    if (!reply) {
        qCWarning(lcVindal) << "loadOfflinePackage without a reply; nothing is unpacked";
        return;
    }
    const std::shared_ptr<ReplyChannel> channel = ReplyPrivate::channel(reply);
    // The worker notices an abort itself and cleans up before it finishes.
    channel->setAbortHandler([] {});
    ManagerPrivate::UnpackJob job{packageFile, targetFolder, ExtractLimits(), QVariantMap(),
                                  d->m_configured ? d->m_config.identity() : QString()};
    {
        QMutexLocker lock(&d->m_mutex);
        job.limits = d->m_limits;
        job.delivered = d->m_delivered.value(QFileInfo(packageFile).absoluteFilePath());
    }
    qCInfo(lcVindal) << "unpack" << packageFile << "into" << targetFolder;
    d->m_unpackPool->start([d = d, channel, job] { d->unpack(channel, job); });
}

void ManagerPrivate::unpack(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job)
{
    if (DeltaApplier::isDelta(job.packageFile))
        return applyDelta(channel, job);
    ProgressThrottle throttle;
    const Outcome outcome = Package::extract(job.packageFile, job.targetFolder,
                                             [&](qint64 done, qint64 total) {
                                                 if (channel->isAborted() || *m_shuttingDown)
                                                     return false;
                                                 if (throttle.ready() || done == total)
                                                     channel->progress(done, total);
                                                 return true;
                                             },
                                             job.limits);
    QVariantMap result{{QStringLiteral("file"), job.packageFile}, {QStringLiteral("path"), job.targetFolder}};
    if (outcome) {
        result.insert(QStringLiteral("bytesTotal"), QFileInfo(job.packageFile).size());
        noteInstalled(job, job.delivered.value(QStringLiteral("module")).toString(), job.delivered.value(QStringLiteral("version")).toString());
    } else {
        result.insert(QStringLiteral("entry"), outcome.subject);
        qCWarning(lcVindal).noquote() << "unpacking failed:" << errorKey(outcome.code) << outcome.message;
    }
    channel->clearAbortHandler();
    channel->finish(outcome.code, result, outcome.message);
}

Reply *Manager::checkUpgrade(const QString &programFolder, const QString &modelCode, const QString &environment,
                             const QString &protocolVersion, const QString &os, const QString &lang, int limit,
                             const QStringList &installed, const QStringList &options)
{
    Q_UNUSED(programFolder)
    Q_UNUSED(protocolVersion)
    Q_UNUSED(options)
    if (!d->m_configured)
        return d->refuse(Error::ConfigError, QStringLiteral("no configuration: setConfigData() or setConfigPath() comes first"));
    RepositoryRequest::Target target;
    target.kind = PackageIndex::Upgrades;
    target.name = modelCode;
    target.environment = environment;
    target.os = os;
    target.lang = lang;
    target.limit = limit;
    target.installed = installed;
    return d->request(RepositoryRequest::ListUpgrades, target);
}

Reply *Manager::startUpgrade(const QString &modelCode, const QString &version, PackageType type)
{
    if (!d->m_configured)
        return d->refuse(Error::ConfigError, QStringLiteral("no configuration: setConfigData() or setConfigPath() comes first"));
    if (type == ModulePackage) {
        VDBasicInfo info;
        info.version = version;
        return d->fetchModule(modelCode, info, false);
    }
    if (modelCode.isEmpty())
        return d->refuse(Error::ConfigError, QStringLiteral("startUpgrade needs a model code"));
    RepositoryRequest::Target target;
    target.kind = PackageIndex::Upgrades;
    target.name = modelCode;
    target.version = version;
    target.pinned = true;
    return d->request(RepositoryRequest::Fetch, target);
}

QVariantMap Manager::packageInfo() const
{
    QMutexLocker lock(&d->m_mutex);
    return d->m_packageInfo;
}

} // namespace Vindal
