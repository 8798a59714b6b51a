#include "repositoryconfig_p.h"

#include "signature_p.h"

#include <vindal/repository.h>

#include "packageindex_p.h"

#include <QtCore/QStandardPaths>

namespace Vindal {

namespace {

bool parseBase(const QString &text, const QString &key, QUrl *url, QString *error)
{
    QUrl parsed(text.trimmed(), QUrl::StrictMode);
    // A local folder's URL is often written as its path reads, spaces and all.
    if (!parsed.isValid() && text.trimmed().startsWith(QLatin1String("file:"), Qt::CaseInsensitive))
        parsed = QUrl(text.trimmed(), QUrl::TolerantMode);
    const QString scheme = parsed.scheme().toLower();
    if (!parsed.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https") && scheme != QLatin1String("file"))
        || (scheme != QLatin1String("file") && parsed.host().isEmpty())) {
        *error = QStringLiteral("\"%1\" is not an http, https or file URL: \"%2\"").arg(key, text);
        return false;
    }
    if (parsed.hasQuery() || parsed.hasFragment()) {
        *error = QStringLiteral("\"%1\" must not carry a query or fragment: \"%2\"").arg(key, text);
        return false;
    }
    // Relative names resolve below the base only when it ends in "/".
    if (!parsed.path().endsWith(QLatin1Char('/')))
        parsed.setPath(parsed.path() + QLatin1Char('/'));
    *url = parsed;
    return true;
}

bool positiveNumber(const QVariantMap &map, const QString &key, double *value, QString *error)
{
    if (!map.contains(key))
        return true;
    bool ok = false;
    const double number = map.value(key).toDouble(&ok);
    if (!ok || number < 0 || map.value(key).type() == QVariant::String) {
        *error = QStringLiteral("\"%1\" must be a number of at least 0").arg(key);
        return false;
    }
    *value = number;
    return true;
}

} // namespace

bool RepositoryConfig::parse(const QVariantMap &map, RepositoryConfig *config, QString *error)
{
    RepositoryConfig c;
    const QString repository = map.value(QStringLiteral("repository")).toString();
    if (repository.isEmpty()) {
        *error = QStringLiteral("\"repository\" (the repository's base URL) is missing");
        return false;
    }
    QUrl base;
    if (!parseBase(repository, QStringLiteral("repository"), &base, error))
        return false;
    c.bases.append(base);
    const QVariant mirrors = map.value(QStringLiteral("mirrors"));
    if (mirrors.isValid() && mirrors.type() != QVariant::List && mirrors.type() != QVariant::StringList) {
        *error = QStringLiteral("\"mirrors\" must be a list of URLs");
        return false;
    }
    for (const QVariant &mirror : mirrors.toList()) {
        if (!parseBase(mirror.toString(), QStringLiteral("mirrors"), &base, error))
            return false;
        c.bases.append(base);
    }

    double stall = c.stallTimeoutMs / 1000.0;
    double retries = c.retries;
    double rate = c.minimumRate;
    double window = c.rateWindowMs / 1000.0;
    double deadline = 0;
    if (!positiveNumber(map, QStringLiteral("stallTimeout"), &stall, error)
        || !positiveNumber(map, QStringLiteral("retries"), &retries, error)
        || !positiveNumber(map, QStringLiteral("minimumRate"), &rate, error)
        || !positiveNumber(map, QStringLiteral("rateWindow"), &window, error)
        || !positiveNumber(map, QStringLiteral("deadline"), &deadline, error))
        return false;
    if (stall <= 0 || stall > 3600) {
        *error = QStringLiteral("\"stallTimeout\" must be more than 0 and at most 3600 seconds");
        return false;
    }
    if (window <= 0 || window > 3600) {
        *error = QStringLiteral("\"rateWindow\" must be more than 0 and at most 3600 seconds");
        return false;
    }
    if (rate > 1e9 || deadline > 7 * 86400) {
        *error = rate > 1e9 ? QStringLiteral("\"minimumRate\" must be at most 1000000000 bytes per second")
                            : QStringLiteral("\"deadline\" must be at most 604800 seconds (0: none)");
        return false;
    }
    c.stallTimeoutMs = int(stall * 1000);
    c.minimumRate = int(rate);
    c.rateWindowMs = int(window * 1000);
    c.deadlineMs = int(deadline * 1000);
    c.retries = int(qMin(retries, 10.0));

    // A key that is there but empty must not turn the signature check off.
    if (map.contains(QStringLiteral("publicKey"))) {
        const QString publicKey = map.value(QStringLiteral("publicKey")).toString();
        if (publicKey.trimmed().isEmpty()) {
            *error = QStringLiteral("\"publicKey\" is empty; leave the key out to accept unsigned indexes");
            return false;
        }
        c.publicKey = Signature::decodePublicKey(publicKey);
        if (c.publicKey.isEmpty()) {
            *error = QStringLiteral("\"publicKey\" is not a base64 Ed25519 public key");
            return false;
        }
    }

    const QString proxy = map.value(QStringLiteral("proxy"), QStringLiteral("system")).toString();
    if (proxy == QLatin1String("system")) {
        c.proxyMode = SystemProxy;
    } else if (proxy == QLatin1String("none")) {
        c.proxyMode = NoProxy;
    } else {
        const QUrl url(proxy, QUrl::StrictMode);
        const QString scheme = url.scheme().toLower();
        if (!url.isValid() || url.host().isEmpty() || (scheme != QLatin1String("http") && scheme != QLatin1String("socks5"))) {
            *error = QStringLiteral("\"proxy\" must be \"system\", \"none\" or an http:// or socks5:// URL, not \"%1\"").arg(proxy);
            return false;
        }
        c.proxyMode = FixedProxy;
        c.proxy = QNetworkProxy(scheme == QLatin1String("http") ? QNetworkProxy::HttpProxy : QNetworkProxy::Socks5Proxy,
                                url.host(), quint16(url.port(scheme == QLatin1String("http") ? 8080 : 1080)),
                                url.userName(), url.password());
    }

    const QString caFile = map.value(QStringLiteral("caFile")).toString();
    if (!caFile.isEmpty()) {
        c.caCertificates = QSslCertificate::fromPath(caFile, QSsl::Pem, QSslCertificate::PatternSyntax::FixedString);
        if (c.caCertificates.isEmpty()) {
            *error = QStringLiteral("\"caFile\" \"%1\" holds no PEM certificate").arg(caFile);
            return false;
        }
    }

    const QVariantMap moduleInfo = map.value(QStringLiteral("moduleInfo")).toMap();
    // "module" as in the engine's download module section; "name" is read too.
    c.module = moduleInfo.value(QStringLiteral("module"), moduleInfo.value(QStringLiteral("name"))).toString();
    c.pinnedVersion = moduleInfo.value(QStringLiteral("version")).toString();
    if (!c.module.isEmpty() && !Repository::isValidModuleName(c.module)) {
        *error = QStringLiteral("\"moduleInfo\" names the module \"%1\", which is not a valid module name").arg(c.module);
        return false;
    }
    if (!c.pinnedVersion.isEmpty() && !PackageIndex::isValidVersion(c.pinnedVersion)) {
        *error = QStringLiteral("\"moduleInfo\" pins the version \"%1\", which is not a valid version").arg(c.pinnedVersion);
        return false;
    }

    // Delta updates: the version installed now (when the client knows it
    // better than the library's own record) and whether to use them.
    c.installedVersion = moduleInfo.value(QStringLiteral("installedVersion")).toString();
    c.useDeltas = map.value(QStringLiteral("deltas"), true).toBool();
    if ((!c.installedVersion.isEmpty() && !PackageIndex::isValidVersion(c.installedVersion))
        || (map.contains(QStringLiteral("deltas")) && map.value(QStringLiteral("deltas")).type() != QVariant::Bool)) {
        *error = QStringLiteral("\"moduleInfo\" \"installedVersion\" must be a valid version and \"deltas\" true or false");
        return false;
    }

    c.storagePath = map.value(QStringLiteral("startDownload")).toMap().value(QStringLiteral("temporaryStoragePath")).toString();
    if (!parseRelease(map, &c, error))
        return false;

    const QVariantMap unpack = map.value(QStringLiteral("unpack")).toMap();
    double maxRatio = double(c.limits.maxRatio);
    double maxBytes = double(c.limits.maxTotalBytes);
    double maxEntries = double(c.limits.maxEntries);
    if (!positiveNumber(unpack, QStringLiteral("maxRatio"), &maxRatio, error)
        || !positiveNumber(unpack, QStringLiteral("maxBytes"), &maxBytes, error)
        || !positiveNumber(unpack, QStringLiteral("maxEntries"), &maxEntries, error))
        return false;
    c.limits.maxRatio = qint64(maxRatio);
    c.limits.maxTotalBytes = qint64(maxBytes);
    c.limits.maxEntries = qint64(maxEntries);

    *config = c;
    return true;
}

bool RepositoryConfig::parseRelease(const QVariantMap &map, RepositoryConfig *config, QString *error)
{
    if (map.contains(QStringLiteral("channel"))) {
        config->channel = map.value(QStringLiteral("channel")).toString();
        if (!Rollout::isValidChannel(config->channel)) {
            *error = QStringLiteral("\"channel\" \"%1\" is not a channel name (lower-case letters, digits, \".\", \"_\", \"-\")")
                         .arg(config->channel);
            return false;
        }
    }
    if (map.contains(QStringLiteral("rolloutBucket"))) {
        const QVariant value = map.value(QStringLiteral("rolloutBucket"));
        bool ok = false;
        const qlonglong bucket = value.toLongLong(&ok);
        // A fraction would be cut silently: only a whole number is this machine's bucket.
        if (!ok || value.type() == QVariant::String || value.toDouble() != double(bucket) || bucket < 0 || bucket > 0xffffffffLL) {
            *error = QStringLiteral("\"rolloutBucket\" must be a whole number from 0 to 4294967295");
            return false;
        }
        config->rolloutPosition = Rollout::position(quint32(bucket));
    }
    return true;
}

QString RepositoryConfig::identity() const
{
    // Marks follow the key: mirrors and a moved repository signed with it
    // share them, while an unsigned repository or another key cannot raise
    // them and lock the real one out.
    if (!publicKey.isEmpty())
        return QLatin1String("key:") + QString::fromLatin1(publicKey.toBase64());
    return QLatin1String("url:") + bases.first().adjusted(QUrl::RemoveUserInfo).toString();
}

QString RepositoryConfig::defaultStoragePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) + QLatin1String("/vindal/downloads");
}

} // namespace Vindal
