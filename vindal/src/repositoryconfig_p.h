#ifndef VINDAL_REPOSITORYCONFIG_P_H
#define VINDAL_REPOSITORYCONFIG_P_H

#include <vindal/package.h>
#include <vindal/rollout.h>

#include <QtCore/QList>
#include <QtCore/QUrl>
#include <QtCore/QVariantMap>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QSslCertificate>

namespace Vindal {

// The client's configuration, checked as a whole: either every key is usable
// or the configuration is refused with a message naming the key.
struct RepositoryConfig
{
    enum ProxyMode { SystemProxy, NoProxy, FixedProxy };

    QList<QUrl> bases;               // "repository" first, then "mirrors", each ending in "/"
    int stallTimeoutMs = 30000;
    int minimumRate = 1024;          // bytes per second over a rate window; 0: no minimum
    int rateWindowMs = 30000;
    int deadlineMs = 0;              // a whole package download, every attempt; 0: none
    int retries = 2;
    QByteArray publicKey;            // raw Ed25519 key; empty: indexes are not checked
    ProxyMode proxyMode = SystemProxy;
    QNetworkProxy proxy;
    QList<QSslCertificate> caCertificates;
    QString module;                  // "moduleInfo" -> "module" (or "name")
    QString pinnedVersion;           // "moduleInfo" -> "version"
    QString installedVersion;        // "moduleInfo" -> "installedVersion"; empty: the library's record
    bool useDeltas = true;           // "deltas"
    QString storagePath;             // "startDownload" -> "temporaryStoragePath"
    QString channel = Rollout::defaultChannel(); // "channel": the one channel this client follows
    double rolloutPosition = Rollout::lastPosition(); // from "rolloutBucket"
    ExtractLimits limits;

    bool isValid() const { return !bases.isEmpty(); }
    // Who the repository is, for the downgrade marks: its public key when one
    // is configured, its base URL otherwise.
    QString identity() const;
    static bool parse(const QVariantMap &map, RepositoryConfig *config, QString *error);
    // "channel" and "rolloutBucket".
    static bool parseRelease(const QVariantMap &map, RepositoryConfig *config, QString *error);
    // Where downloads go when no temporary storage path is configured.
    static QString defaultStoragePath();
};

} // namespace Vindal

#endif // VINDAL_REPOSITORYCONFIG_P_H
