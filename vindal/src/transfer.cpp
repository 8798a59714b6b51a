#include "transfer_p.h"

#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QSslConfiguration>

namespace Vindal {

namespace Transfer {

QNetworkRequest makeRequest(const QUrl &url, const RepositoryConfig &config)
{
    QNetworkRequest request(url);
    // An https base may redirect to https only; http may go anywhere.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(8);
    // Sizes, ranges and digests refer to the file's own bytes, so no
    // transparent decompression may come in between.
    request.setRawHeader("Accept-Encoding", "identity");
    request.setRawHeader("User-Agent", "vindal/1.0");
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    if (url.scheme() == QLatin1String("https") && !config.caCertificates.isEmpty()) {
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        ssl.setCaCertificates(ssl.caCertificates() + config.caCertificates);
        request.setSslConfiguration(ssl);
    }
    return request;
}

int statusOf(QNetworkReply *reply)
{
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid())
        return status.toInt();
    // An http answer without a status never arrived; a file has none.
    return reply->url().scheme().startsWith(QLatin1String("http")) ? 0 : 200;
}

Verdict judge(QNetworkReply *reply)
{
    Verdict verdict;
    const QString url = reply->url().toString();
    const int status = statusOf(reply);
    const QNetworkReply::NetworkError error = reply->error();
    if (status == 404 || status == 410 || error == QNetworkReply::ContentNotFoundError
        || error == QNetworkReply::ContentGoneError) {
        verdict.outcome = Outcome::failure(Error::NotFound, QStringLiteral("%1 does not exist").arg(url), url);
        return verdict;
    }
    if (status >= 400 || error == QNetworkReply::ContentAccessDenied || error == QNetworkReply::ContentOperationNotPermittedError
        || (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError)) {
        verdict.outcome = Outcome::failure(Error::ServerError,
                                           QStringLiteral("%1 answered %2 %3").arg(url).arg(status)
                                               .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString()),
                                           url);
        verdict.retryable = status >= 500 || status == 408 || status == 429;
        verdict.status = status;
        bool ok = false;
        const int seconds = reply->rawHeader("Retry-After").toInt(&ok);
        if (ok && seconds > 0)
            verdict.retryAfterMs = qMin(seconds, 10) * 1000;
        return verdict;
    }
    switch (error) {
    case QNetworkReply::NoError:
        verdict.outcome = Outcome::success();
        return verdict;
    case QNetworkReply::InsecureRedirectError:
        verdict.outcome = Outcome::failure(Error::DownloadFailed,
                                           QStringLiteral("%1 redirects from https to http, which is refused").arg(url), url);
        return verdict;
    case QNetworkReply::SslHandshakeFailedError:
        verdict.outcome = Outcome::failure(Error::DownloadFailed,
                                           QStringLiteral("TLS with %1 failed (is its certificate trusted?): %2").arg(url, reply->errorString()),
                                           url);
        return verdict;
    case QNetworkReply::TooManyRedirectsError:
    case QNetworkReply::ProtocolUnknownError:
        verdict.outcome = Outcome::failure(Error::DownloadFailed, QStringLiteral("%1: %2").arg(url, reply->errorString()), url);
        return verdict;
    default:
        verdict.outcome = Outcome::failure(Error::DownloadFailed, QStringLiteral("%1: %2").arg(url, reply->errorString()), url);
        verdict.retryable = true;
        return verdict;
    }
}

} // namespace Transfer

int AttemptPlan::next()
{
    while (m_attempt < m_bases * m_rounds) {
        const int base = m_attempt++ % m_bases;
        if (!m_dropped.at(base))
            return m_current = base;
    }
    return m_current = -1;
}

void AttemptPlan::fail(const Transfer::Verdict &verdict)
{
    m_last = verdict.outcome;
    m_retryAfterMs = verdict.retryAfterMs;
    if (!verdict.retryable && m_current >= 0)
        m_dropped[m_current] = true;
}

int AttemptPlan::delayMs() const
{
    if (m_retryAfterMs > 0)
        return m_retryAfterMs;
    // A new round waits a little longer each time; trying the next mirror
    // does not wait.
    const int round = (m_attempt - 1) / m_bases;
    return m_attempt % m_bases == 0 || m_bases == 1 ? qMin(250 * (round + 1), 2000) : 0;
}

Outcome AttemptPlan::finalOutcome() const
{
    return m_last;
}

} // namespace Vindal
