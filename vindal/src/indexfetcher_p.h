#ifndef VINDAL_INDEXFETCHER_P_H
#define VINDAL_INDEXFETCHER_P_H

#include "keystatement_p.h"
#include "packageindex_p.h"
#include "repositoryconfig_p.h"
#include "transfer_p.h"

#include <QtCore/QObject>
#include <QtCore/QPointer>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

namespace Vindal {

// Fetches a module's index (or the upgrades document) from the first base
// URL that serves a valid one, with its signature checked when a public key
// is configured: against the keys of the repository's newest key statement
// that the configured key vouches for, directly or through earlier ones. Lives on the manager's thread; deleting it stops it.
class IndexFetcher : public QObject
{
public:
    using Done = std::function<void(const Outcome &outcome, const PackageIndex &index, int base)>;

    IndexFetcher(QNetworkAccessManager *network, const RepositoryConfig &config, PackageIndex::Kind kind,
                 const QString &module, int retries, Done done, QObject *parent);
    ~IndexFetcher() override;

    void start();

private:
    using Fetched = std::function<void(const Transfer::Verdict &verdict, const QByteArray &bytes)>;

    void next();
    void followStatements(int number);
    void statementsFollowed();
    void fetchIndex();
    void fetch(const QString &path, qint64 cap, Fetched fetched);
    void failed(const Transfer::Verdict &verdict);
    void check(const QByteArray &document, const QByteArray &signature);
    void stop();

    QNetworkAccessManager *m_network;
    RepositoryConfig m_config;
    PackageIndex::Kind m_kind;
    QString m_module;
    Done m_done;
    AttemptPlan m_plan;
    QPointer<QNetworkReply> m_reply;
    KeyStatement m_trusted; // the keys whose index signatures count
    int m_kept = 0;         // the number of the statement the state file holds
};

} // namespace Vindal

#endif // VINDAL_INDEXFETCHER_P_H
