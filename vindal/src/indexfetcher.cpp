#include "indexfetcher_p.h"

#include "logging_p.h"
#include "repositorylayout_p.h"
#include "statestore_p.h"
#include "transferwatch_p.h"

#include <QtCore/QTimer>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

#include <memory>

namespace Vindal {

namespace {
// Statements read in one fetch at the most, beyond the one accepted before.
const int MaxStatementsPerFetch = 64;
} // namespace

IndexFetcher::IndexFetcher(QNetworkAccessManager *network, const RepositoryConfig &config, PackageIndex::Kind kind,
                           const QString &module, int retries, Done done, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_config(config)
    , m_kind(kind)
    , m_module(module)
    , m_done(std::move(done))
    , m_plan(config.bases.size(), retries)
{
}

IndexFetcher::~IndexFetcher()
{
    stop();
}

void IndexFetcher::stop()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
}

void IndexFetcher::start()
{
    next();
}

void IndexFetcher::next()
{
    if (m_plan.next() < 0) {
        const Done done = m_done;
        done(m_plan.finalOutcome(), PackageIndex(m_kind), -1);
        return;
    }
    if (m_config.publicKey.isEmpty())
        return fetchIndex();
    // The keys that sign the repository now: those of the newest key
    // statement accepted before, then of the statements published since.
    m_trusted = KeyStatement(m_config.publicKey);
    const Outcome loaded = StateStore::keyStatement(m_config.identity(), &m_trusted);
    if (!loaded) {
        const Done done = m_done;
        return done(loaded, PackageIndex(m_kind), -1);
    }
    m_kept = m_trusted.number;
    followStatements(m_trusted.number + 1);
}

void IndexFetcher::followStatements(int number)
{
    // A client that has accepted no statement yet skips those its key did
    // not sign; a mirror must not keep it asking for ever.
    if (number > m_trusted.number + MaxStatementsPerFetch)
        return statementsFollowed();
    fetch(RepositoryLayout::keyStatement(number), RepositoryLayout::MaxStatementBytes,
          [this, number](const Transfer::Verdict &verdict, const QByteArray &document) {
              // Object stores that may not list their files answer 403 for a
              // missing one. (A mirror can hide statements either way.)
              if (verdict.outcome.code == Error::NotFound || verdict.status == 403)
                  return statementsFollowed();
              if (!verdict.outcome)
                  return failed(verdict);
              fetch(RepositoryLayout::keyStatementSignatures(number), RepositoryLayout::MaxStatementSignaturesBytes,
                    [this, number, document](const Transfer::Verdict &verdict, const QByteArray &signatures) {
                        if (!verdict.outcome && verdict.outcome.code != Error::NotFound)
                            return failed(verdict);
                        Transfer::Verdict judged;
                        KeyStatement trusted;
                        judged.outcome = m_trusted.follow(number, document, signatures, &trusted);
                        const QString base = m_config.bases.at(m_plan.current()).toString();
                        judged.outcome.message.prepend(base + QLatin1String(": "));
                        judged.outcome.subject = base;
                        if (!judged.outcome.ok())
                            return failed(judged);
                        if (trusted.number == m_trusted.number)
                            qCInfo(lcVindal) << judged.outcome.message;
                        else
                            qCInfo(lcVindal) << "key statement accepted:" << base << trusted.number;
                        m_trusted = trusted;
                        followStatements(number + 1);
                    });
          });
}

void IndexFetcher::statementsFollowed()
{
    const Outcome kept = m_trusted.number > m_kept ? StateStore::keepKeyStatement(m_config.identity(), m_trusted) : Outcome::success();
    if (!kept) {
        const Done done = m_done;
        return done(kept, PackageIndex(m_kind), -1);
    }
    // A frozen mirror must not keep a retired key in use for ever either.
    if (m_trusted.isExpired()) {
        Transfer::Verdict expired;
        expired.outcome = Outcome::failure(Error::IndexExpired,
                                           QStringLiteral("%1 of %2 expired on %3; the repository (or this mirror) has not renewed its keys")
                                               .arg(KeyStatement::describe(m_trusted.number), m_config.bases.at(m_plan.current()).toString(),
                                                    m_trusted.expires.toUTC().toString(Qt::ISODate)));
        return failed(expired);
    }
    fetchIndex();
}

void IndexFetcher::fetchIndex()
{
    fetch(RepositoryLayout::index(m_kind, m_module), RepositoryLayout::MaxIndexBytes,
          [this](const Transfer::Verdict &verdict, const QByteArray &document) {
              if (!verdict.outcome)
                  return failed(verdict);
              if (m_config.publicKey.isEmpty())
                  return check(document, QByteArray());
              fetch(RepositoryLayout::signature(m_kind, m_module), RepositoryLayout::MaxSignatureBytes,
                    [this, document](const Transfer::Verdict &verdict, const QByteArray &signature) {
                        if (verdict.outcome.code == Error::NotFound) {
                            Transfer::Verdict unsigned_;
                            unsigned_.outcome = Outcome::failure(Error::SignatureInvalid,
                                                                 QStringLiteral("%1 is not signed, but a public key is configured")
                                                                     .arg(verdict.outcome.subject.chopped(4)),
                                                                 verdict.outcome.subject);
                            return failed(unsigned_);
                        }
                        if (!verdict.outcome)
                            return failed(verdict);
                        check(document, signature);
                    });
          });
}

void IndexFetcher::failed(const Transfer::Verdict &verdict)
{
    qCWarning(lcVindal) << "index fetch failed:" << verdict.outcome.message;
    m_plan.fail(verdict);
    QTimer::singleShot(m_plan.delayMs(), this, [this] { next(); });
}

void IndexFetcher::check(const QByteArray &document, const QByteArray &signature)
{
    const QUrl url = m_config.bases.at(m_plan.current()).resolved(QUrl(RepositoryLayout::index(m_kind, m_module)));
    Transfer::Verdict refused; // a bad document stays bad however often it is fetched
    if (!m_config.publicKey.isEmpty() && !m_trusted.signs(document, signature)) {
        refused.outcome = Outcome::failure(Error::SignatureInvalid,
                                           QStringLiteral("the signature of %1 does not match %2")
                                               .arg(url.toString(), m_trusted.number == 0 ? QStringLiteral("the configured public key")
                                                                                          : QStringLiteral("a key of ") + KeyStatement::describe(m_trusted.number)),
                                           url.toString());
        return failed(refused);
    }
    PackageIndex index(m_kind);
    QString error;
    if (!index.parse(document, &error)) {
        refused.outcome = Outcome::failure(Error::InvalidIndex, QStringLiteral("%1 is not a valid index: %2").arg(url.toString(), error),
                                           url.toString());
        return failed(refused);
    }
    // A validly signed index of another module must not stand in for this one.
    if (m_kind == PackageIndex::Module && index.module() != m_module) {
        refused.outcome = Outcome::failure(Error::InvalidIndex,
                                           QStringLiteral("%1 describes the module \"%2\", not \"%3\"").arg(url.toString(), index.module(), m_module),
                                           url.toString());
        return failed(refused);
    }
    // A frozen mirror may serve an old, validly signed index for ever; the
    // expiry signed into it ends that. Another mirror may be current.
    if (index.isExpired()) {
        refused.outcome = Outcome::failure(Error::IndexExpired,
                                           QStringLiteral("%1 expired on %2; the repository (or this mirror) has not been published since")
                                               .arg(url.toString(), index.expires().toUTC().toString(Qt::ISODate)),
                                           url.toString());
        return failed(refused);
    }
    const Done done = m_done;
    done(Outcome::success(), index, m_plan.current());
}

void IndexFetcher::fetch(const QString &path, qint64 cap, Fetched fetched)
{
    const QUrl url = m_config.bases.at(m_plan.current()).resolved(QUrl(path));
    QNetworkReply *reply = m_network->get(Transfer::makeRequest(url, m_config));
    m_reply = reply;
    reply->setReadBufferSize(64 * 1024);
    auto body = std::make_shared<QByteArray>();
    auto refusal = std::make_shared<Transfer::Verdict>();
    // The watch lives with the reply, which may outlive this object briefly.
    auto *watch = new TransferWatch(m_config,
                                    [reply, refusal, url](const QString &why) {
                                        refusal->outcome = Outcome::failure(Error::Timeout, why, url.toString());
                                        refusal->retryable = true;
                                        reply->abort();
                                    },
                                    reply);
    connect(reply, &QNetworkReply::readyRead, this, [reply, body, refusal, cap, watch, url] {
        watch->received(reply->bytesAvailable());
        if (body->size() + reply->bytesAvailable() > cap) {
            refusal->outcome = Outcome::failure(Error::InvalidIndex,
                                                QStringLiteral("%1 is larger than %2 bytes").arg(url.toString()).arg(cap), url.toString());
            reply->abort();
            return;
        }
        body->append(reply->readAll());
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, body, refusal, fetched, cap, url] {
        m_reply = nullptr;
        reply->deleteLater();
        if (refusal->outcome.code == Error::NoError) {
            body->append(reply->read(cap + 1 - body->size()));
            if (body->size() > cap)
                refusal->outcome = Outcome::failure(Error::InvalidIndex,
                                                    QStringLiteral("%1 is larger than %2 bytes").arg(url.toString()).arg(cap), url.toString());
        }
        if (refusal->outcome.code != Error::NoError)
            return fetched(*refusal, QByteArray());
        fetched(Transfer::judge(reply), *body);
    });
    watch->start(url.toString());
}

} // namespace Vindal
