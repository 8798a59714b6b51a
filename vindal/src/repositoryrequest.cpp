#include "repositoryrequest_p.h"

#include "deltaref_p.h"
#include "download_p.h"
#include "indexcache_p.h"
#include "indexfetcher_p.h"
#include "logging_p.h"
#include "plainfile_p.h"
#include "reply_p.h"
#include "repositorylayout_p.h"
#include "statestore_p.h"

#include <QtCore/QDir>
#include <QtCore/QTimer>

#include <algorithm>

namespace Vindal {

namespace {

// Resolving at configuration time holds up the engine, which waits for it:
// each attempt gives up after this much silence, the whole resolution after
// the deadline. The download reports a failure later, with the full time-outs.
const int ResolveStallMs = 5000;
const int ResolveDeadlineMs = 10000;

} // namespace

RepositoryRequest::RepositoryRequest(Mode mode, QNetworkAccessManager *network, const RepositoryConfig &config,
                                     const Target &target, const std::shared_ptr<ReplyChannel> &channel, Resolved resolved,
                                     const std::shared_ptr<IndexCache> &cache, QObject *parent)
    : QObject(parent)
    , m_mode(mode)
    , m_network(network)
    , m_config(config)
    , m_target(target)
    , m_channel(channel)
    , m_resolved(std::move(resolved))
    , m_cache(cache)
{
    // The handler runs under the reply's lock and only posts: the request
    // itself stops on its own thread.
    m_channel->setAbortHandler([this] {
        QMetaObject::invokeMethod(this, [this] {
            finish(Outcome::failure(Error::Cancelled, QStringLiteral("the request was cancelled")));
        }, Qt::QueuedConnection);
    });
}

RepositoryRequest::~RepositoryRequest()
{
    m_channel->clearAbortHandler();
    m_channel->finish(Error::Cancelled, QVariant(), QStringLiteral("the module service was shut down"));
}

void RepositoryRequest::start()
{
    if (m_mode == Fetch && m_target.kind == PackageIndex::Module) {
        PackageIndex index;
        int base = 0;
        if (m_cache->find(m_target.name, &index, &base)) {
            qCDebug(lcVindal) << "reusing the index of" << m_target.name;
            return indexed(Outcome::success(), index, base);
        }
    }
    RepositoryConfig config = m_config;
    int retries = m_config.retries;
    if (m_mode == Resolve) {
        // One pass over the URLs, no retries, short time-outs.
        retries = 0;
        config.stallTimeoutMs = qMin(config.stallTimeoutMs, ResolveStallMs);
        QTimer::singleShot(ResolveDeadlineMs, this, [this] {
            if (!m_job)
                return; // resolved already
            delete m_job; // stops the fetch; its callback never comes
            m_job = nullptr;
            indexed(Outcome::failure(Error::Timeout, QStringLiteral("the repository did not answer within %1 s").arg(ResolveDeadlineMs / 1000)),
                    PackageIndex(m_target.kind), -1);
        });
    }
    auto *fetcher = new IndexFetcher(m_network, config, m_target.kind, m_target.kind == PackageIndex::Module ? m_target.name : QString(),
                                     retries,
                                     [this](const Outcome &outcome, const PackageIndex &index, int base) { indexed(outcome, index, base); },
                                     this);
    m_job = fetcher;
    fetcher->start();
}

void RepositoryRequest::indexed(const Outcome &outcome, const PackageIndex &index, int base)
{
    if (m_job) {
        m_job->deleteLater();
        m_job = nullptr;
    }
    QVariantMap result;
    result.insert(QStringLiteral("repository"), m_config.bases.first().toString());
    if (!outcome) {
        if (m_mode != Resolve)
            return finish(outcome, QVariantMap{{QStringLiteral("subject"), outcome.subject}});
        qCWarning(lcVindal) << "the configured module cannot be resolved now:" << outcome.message;
        result.insert(QStringLiteral("resolveError"), outcome.message);
        return finish(Outcome::success(), result);
    }
    if (m_mode == ListUpgrades)
        return listUpgrades(index);
    if (m_target.kind == PackageIndex::Module)
        m_cache->store(m_target.name, index, base);

    const IndexEntry *entry = nullptr;
    const Outcome selected = select(index, &entry);
    if (!selected) {
        if (m_mode != Resolve)
            return finish(selected);
        result.insert(QStringLiteral("resolveError"), selected.message);
        return finish(Outcome::success(), result);
    }
    QVariantMap info = describe(*entry, m_config.bases.at(base));
    if (m_target.kind == PackageIndex::Module)
        m_resolved(info);
    if (m_mode == Resolve) {
        result.insert(QStringLiteral("module"), m_target.name);
        result.insert(QStringLiteral("packageInfo"), info);
        return finish(Outcome::success(), result);
    }

    DeltaRef delta;
    if (m_target.useDelta && DeltaRef::pick(*entry, m_target.installedVersion, &delta)) {
        QVariantMap full = info;
        info = DeltaRef::describe(describe(delta.package, m_config.bases.at(base)), *entry, delta);
        full.insert(QStringLiteral("delta"), info.value(QStringLiteral("delta")));
        m_resolved(full); // the package, and the delta that brings it
        qCInfo(lcVindal).noquote() << "a delta from" << delta.from << "to" << entry->version << "is listed:" << delta.package.size
                                   << "bytes instead of" << entry->size;
        entry = &delta.package;
    }

    // The base that served the index first, then the others in their order.
    QList<QUrl> urls;
    const QString folder = RepositoryLayout::folder(m_target.kind, m_target.kind == PackageIndex::Module ? m_target.name : QString());
    for (int i = 0; i < m_config.bases.size(); ++i) {
        const QUrl url = m_config.bases.at((base + i) % m_config.bases.size()).resolved(QUrl(folder + QLatin1Char('/') + entry->file));
        urls.append(url);
    }
    const std::shared_ptr<ReplyChannel> channel = m_channel;
    auto *download = new Download(m_network, m_config, urls, *entry, info.value(QStringLiteral("folder")).toString(),
                                  [channel](qint64 received, qint64 total) { channel->downloadProgress(received, total); },
                                  [this, info](const Outcome &outcome, const QString &) { downloaded(outcome, info); }, this);
    m_job = download;
    download->start();
}

Outcome RepositoryRequest::select(const PackageIndex &index, const IndexEntry **entry) const
{
    const QString modelCode = m_target.kind == PackageIndex::Upgrades ? m_target.name : QString();
    const QString what = m_target.kind == PackageIndex::Module ? QStringLiteral("module %1").arg(m_target.name)
                                                              : QStringLiteral("model %1").arg(m_target.name);
    if (!m_target.version.isEmpty()) {
        *entry = index.find(m_target.version, modelCode);
        if (!*entry)
            return Outcome::failure(Error::NotFound, QStringLiteral("%1 has no version %2").arg(what, m_target.version));
    } else {
        *entry = index.newest(modelCode);
        if (!*entry)
            return Outcome::failure(m_target.kind == PackageIndex::Module ? Error::NotFound : Error::NoUpgrade,
                                    QStringLiteral("%1 has no version in the repository").arg(what));
    }
    if (m_target.kind == PackageIndex::Module) {
        // Pinned or not, a state file that cannot be read stops the download
        // before it starts: its mark could not be raised afterwards.
        QString highest;
        const Outcome read = StateStore::highWater(m_config.identity(), m_target.name, &highest);
        if (!read)
            return read;
        if (!m_target.pinned && !highest.isEmpty() && PackageIndex::compareVersions((*entry)->version, highest) < 0) {
            return Outcome::failure(Error::DowngradeRefused,
                                    QStringLiteral("%1 offers %2, older than %3 delivered before; pin the version to go back")
                                        .arg(what, (*entry)->version, highest));
        }
    }
    return Outcome::success();
}

QVariantMap RepositoryRequest::describe(const IndexEntry &entry, const QUrl &base) const
{
    const QString folder = m_config.storagePath.isEmpty() ? RepositoryConfig::defaultStoragePath() : m_config.storagePath;
    QVariantMap info = entry.extra;
    info.remove(QStringLiteral("deltas")); // the client's own business
    info.insert(m_target.kind == PackageIndex::Module ? QStringLiteral("module") : QStringLiteral("modelCode"), m_target.name);
    info.insert(QStringLiteral("version"), entry.version);
    info.insert(QStringLiteral("file"), QVariantMap{{QStringLiteral("name"), entry.file}});
    info.insert(QStringLiteral("bytesTotal"), entry.size);
    info.insert(QStringLiteral("md5Value"), entry.md5);
    info.insert(QStringLiteral("sha256Value"), entry.sha256);
    info.insert(QStringLiteral("folder"), folder);
    info.insert(QStringLiteral("path"), QDir(folder).filePath(entry.file));
    info.insert(QStringLiteral("url"),
                base.resolved(QUrl(RepositoryLayout::folder(m_target.kind, m_target.kind == PackageIndex::Module ? m_target.name : QString())
                                   + QLatin1Char('/') + entry.file)).toString());
    return info;
}

void RepositoryRequest::downloaded(const Outcome &outcome, const QVariantMap &info)
{
    if (m_job) {
        m_job->deleteLater();
        m_job = nullptr;
    }
    if (!outcome) {
        m_cache->clear(); // the next attempt asks the repository again
        return finish(outcome, QVariantMap{{QStringLiteral("subject"), outcome.subject}});
    }
    const QString path = info.value(QStringLiteral("path")).toString();
    if (m_target.writeVerifyFile) {
        // The digest was just checked against the index; no need to read
        // the file once more.
        const QString verify = path + QLatin1String(".verify");
        QString error;
        if (!PlainFile::write(verify, info.value(QStringLiteral("md5Value")).toString().toLatin1(), &error))
            return finish(Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(verify, error), verify));
    }
    if (m_target.kind == PackageIndex::Module) {
        const Outcome raised = StateStore::raise(m_config.identity(), m_target.name, info.value(QStringLiteral("version")).toString());
        if (!raised)
            return finish(raised, QVariantMap{{QStringLiteral("subject"), raised.subject}});
    }
    QVariantMap result = m_target.extra;
    for (auto it = info.cbegin(); it != info.cend(); ++it)
        result.insert(it.key(), it.value());
    qCInfo(lcVindal) << "downloaded" << path;
    if (m_target.delivered)
        m_target.delivered(result);
    finish(Outcome::success(), result);
}

void RepositoryRequest::listUpgrades(const PackageIndex &index)
{
    QString installed;
    for (const QString &version : qAsConst(m_target.installed)) {
        if (installed.isEmpty() || PackageIndex::compareVersions(version, installed) > 0)
            installed = version;
    }
    const auto matches = [](const QVariantMap &extra, const QString &key, const QString &wanted) {
        const QString offered = extra.value(key).toString();
        return wanted.isEmpty() || offered.isEmpty() || offered == wanted;
    };
    QList<IndexEntry> entries;
    for (const IndexEntry &entry : index.entries()) {
        if ((m_target.name.isEmpty() || entry.modelCode == m_target.name)
            && matches(entry.extra, QStringLiteral("environment"), m_target.environment)
            && matches(entry.extra, QStringLiteral("os"), m_target.os) && matches(entry.extra, QStringLiteral("lang"), m_target.lang)
            && (installed.isEmpty() || PackageIndex::compareVersions(entry.version, installed) > 0))
            entries.append(entry);
    }
    std::stable_sort(entries.begin(), entries.end(), [](const IndexEntry &a, const IndexEntry &b) {
        return PackageIndex::compareVersions(a.version, b.version) > 0;
    });
    if (m_target.limit > 0 && entries.size() > m_target.limit)
        entries = entries.mid(0, m_target.limit);
    QVariantList upgrades;
    for (const IndexEntry &entry : qAsConst(entries)) {
        QVariantMap map = entry.toVariantMap();
        map.insert(QStringLiteral("softVersion"), entry.version);
        map.remove(QStringLiteral("version"));
        upgrades.append(map);
    }
    finish(Outcome::success(), QVariantMap{{QStringLiteral("upgrades"), upgrades}});
}

void RepositoryRequest::finish(const Outcome &outcome, const QVariant &result)
{
    delete m_job;
    m_job = nullptr;
    m_channel->clearAbortHandler();
    if (!outcome)
        qCWarning(lcVindal).noquote() << "request failed:" << errorKey(outcome.code) << outcome.message;
    m_channel->finish(outcome.code, result, outcome.message);
    deleteLater();
}

} // namespace Vindal
