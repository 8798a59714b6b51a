#ifndef VINDAL_REPOSITORYREQUEST_P_H
#define VINDAL_REPOSITORYREQUEST_P_H

#include "packageindex_p.h"
#include "repositoryconfig_p.h"

#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <functional>
#include <memory>

class QNetworkAccessManager;

namespace Vindal {

class IndexCache;
class ReplyChannel;

// One request of the manager that talks to the repository: resolving the
// configured module's package, downloading a module or installer package,
// or listing upgrades. Finishes its reply exactly once and then deletes
// itself; Reply::abort() or deleting the reply stops it (Cancelled).
class RepositoryRequest : public QObject
{
public:
    enum Mode {
        Resolve,      // find the package the configuration names; never fails the reply
        Fetch,        // download a package
        ListUpgrades, // answer "upgrades": installer upgrades, or a module's offered versions
    };

    struct Target
    {
        PackageIndex::Kind kind = PackageIndex::Module;
        QString name;            // module, or model code of an upgrade
        QString version;         // wanted version; empty for the newest
        bool pinned = false;     // an explicit version passes the downgrade protection
        bool writeVerifyFile = false;
        QVariantMap extra;       // copied into the result unread
        // Fetch: a delta from the installed version instead of the package
        // when one is listed and smaller; delivered hears every download.
        bool useDelta = false;
        QString installedVersion;
        std::function<void(const QVariantMap &result)> delivered;
        // ListUpgrades: the filters of checkUpgrade.
        QString environment;
        QString os;
        QString lang;
        int limit = 0;
        QStringList installed;
    };

    // Called with the package's description whenever one is resolved.
    using Resolved = std::function<void(const QVariantMap &packageInfo)>;

    // cache: the manager's last module index, reused when fresh and kept up
    // to date.
    RepositoryRequest(Mode mode, QNetworkAccessManager *network, const RepositoryConfig &config, const Target &target,
                      const std::shared_ptr<ReplyChannel> &channel, Resolved resolved,
                      const std::shared_ptr<IndexCache> &cache, QObject *parent);
    ~RepositoryRequest() override;

    void start();

private:
    void indexed(const Outcome &outcome, const PackageIndex &index, int base);
    void listUpgrades(const PackageIndex &index);
    // A module's versions newer than the client's, on its channel and
    // within its share of each rollout.
    void listOffers(const PackageIndex &index);
    Outcome select(const PackageIndex &index, const IndexEntry **entry) const;
    QVariantMap describe(const IndexEntry &entry, const QUrl &base) const;
    void downloaded(const Outcome &outcome, const QVariantMap &info);
    void finish(const Outcome &outcome, const QVariant &result = QVariant());

    Mode m_mode;
    QNetworkAccessManager *m_network;
    RepositoryConfig m_config;
    Target m_target;
    std::shared_ptr<ReplyChannel> m_channel;
    Resolved m_resolved;
    std::shared_ptr<IndexCache> m_cache;
    QObject *m_job = nullptr;
};

} // namespace Vindal

#endif // VINDAL_REPOSITORYREQUEST_P_H
