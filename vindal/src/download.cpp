#include "download_p.h"

#include "digest_p.h"
#include "logging_p.h"
#include "plainfile_p.h"

#include <QtConcurrent/QtConcurrentRun>
#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QFutureWatcher>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

namespace Vindal {

namespace {

const QString MetaSha256 = QStringLiteral("sha256");
const QString MetaValidator = QStringLiteral("validator");
const QString MetaSource = QStringLiteral("source");

// What the transfer holds in memory: Qt's read buffer, the buffers queued for
// the hash, and the one being written; a few MiB in all. Smaller ones cost
// system time in more reads and wake-ups, larger ones gain no speed
// (measured against curl on loopback) and only cost peak memory.
const qint64 ReadBufferBytes = 512 << 10;
const qint64 HashQueueBytes = 2 << 20;
const qint64 ChunkBytes = 512 << 10;

} // namespace

// What is on disk before the transfer starts, found out on a worker thread
// because checking a complete file means hashing it.
struct Download::Resume
{
    QString finalPath;
    QString partPath;
    QString metaPath;
    IndexEntry entry;
    bool complete = false;
    qint64 have = 0;
    QByteArray validator;
    QString source;

    void inspect()
    {
        // Only plain files of this user count; anything else under these
        // names (a link, someone else's file) is removed, never followed.
        QString refused;
        QFile file;
        if (PlainFile::open(&file, finalPath, QIODevice::ReadOnly, &refused)) {
            Digest sha256(Digest::Sha256);
            if (file.size() == entry.size && sha256.addDevice(&file) && sha256.hex() == entry.sha256) {
                complete = true;
                return;
            }
            file.close();
        }
        QFile::remove(finalPath);
        QFile meta;
        const QJsonObject info = PlainFile::open(&meta, metaPath, QIODevice::ReadOnly, &refused)
            ? QJsonDocument::fromJson(meta.read(4096)).object()
            : QJsonObject();
        const qint64 size = PlainFile::open(&file, partPath, QIODevice::ReadOnly, &refused) ? file.size() : -1;
        // A ".part" of another file (same name, other content) starts over.
        if (info.value(MetaSha256).toString() != entry.sha256 || size < 0 || size > entry.size) {
            QFile::remove(partPath);
            QFile::remove(metaPath);
            return;
        }
        have = size;
        validator = info.value(MetaValidator).toString().toLatin1();
        source = info.value(MetaSource).toString();
    }
};

Download::Download(QNetworkAccessManager *network, const RepositoryConfig &config, const QList<QUrl> &urls,
                   const IndexEntry &entry, const QString &folder, Progress progress, Done done, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_config(config)
    , m_urls(urls)
    , m_entry(entry)
    , m_finalPath(QDir(folder).filePath(entry.file))
    , m_partPath(m_finalPath + QLatin1String(".part"))
    , m_metaPath(m_finalPath + QLatin1String(".part.json"))
    , m_progress(std::move(progress))
    , m_done(std::move(done))
    , m_plan(urls.size(), config.retries)
    , m_lock(m_partPath + QLatin1String(".lock"))
    , m_watch(config,
              [this](const QString &why) {
                  if (!m_reply)
                      return;
                  m_refusal.outcome = Outcome::failure(Error::Timeout, why, m_reply->url().toString());
                  m_refusal.retryable = true;
                  m_reply->abort();
              },
              this)
{
    // Only a lock whose process is gone is stale, however old it is.
    m_lock.setStaleLockTime(0);
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        finish(Outcome::failure(Error::Timeout,
                                QStringLiteral("the download of %1 did not finish within %2 s").arg(m_entry.file).arg(m_config.deadlineMs / 1000.0),
                                m_entry.file));
    });
}

Download::~Download()
{
    m_hasher.reset(); // before this object goes: the hasher posts to it
    dropReply();
}

void Download::start()
{
    if (!QDir().mkpath(QFileInfo(m_finalPath).absolutePath()))
        return finish(Outcome::failure(Error::DiskFull, QStringLiteral("cannot create the folder of \"%1\"").arg(m_finalPath), m_finalPath));
    if (!m_lock.tryLock(0)) {
        qint64 pid = 0;
        QString host;
        QString application;
        m_lock.getLockInfo(&pid, &host, &application);
        return finish(Outcome::failure(Error::DownloadFailed,
                                       QStringLiteral("\"%1\" is being downloaded by another request or process (%2, process %3 on %4)")
                                           .arg(m_finalPath, application).arg(pid).arg(host),
                                       m_finalPath));
    }
    if (m_config.deadlineMs > 0)
        m_deadline.start(m_config.deadlineMs);
    auto resume = std::make_shared<Resume>();
    resume->finalPath = m_finalPath;
    resume->partPath = m_partPath;
    resume->metaPath = m_metaPath;
    resume->entry = m_entry;
    auto *watcher = new QFutureWatcher<void>(this);
    connect(watcher, &QFutureWatcher<void>::finished, this, [this, watcher, resume] {
        watcher->deleteLater();
        prepared(resume);
    });
    watcher->setFuture(QtConcurrent::run([resume] { resume->inspect(); }));
}

void Download::prepared(const std::shared_ptr<Resume> &resume)
{
    if (resume->complete) {
        qCDebug(lcVindal) << "already downloaded:" << m_finalPath;
        m_progress(m_entry.size, m_entry.size);
        return finish(Outcome::success());
    }
    m_written = resume->have;
    m_validator = resume->validator;
    m_source = resume->source;
    QString error;
    if (!PlainFile::open(&m_part, m_partPath, QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered, &error))
        return finish(Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(m_partPath, error), m_partPath));
    if (m_written > 0)
        qCDebug(lcVindal) << "resuming" << m_partPath << "at" << m_written;
    m_hasher.reset(new StreamHasher(HashQueueBytes, [this] {
        QMetaObject::invokeMethod(this, [this] { resumeReading(); }, Qt::QueuedConnection);
    }));
    if (m_written > 0)
        m_hasher->addFilePrefix(m_partPath, m_written);
    if (m_written == m_entry.size)
        return complete();
    attempt();
}

void Download::attempt()
{
    const int base = m_plan.next();
    if (base < 0)
        return finish(m_plan.finalOutcome());
    QNetworkRequest request = Transfer::makeRequest(m_urls.at(base), m_config);
    m_rangeRequested = m_written > 0;
    if (m_rangeRequested) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(m_written) + '-');
        // A validator goes back only to the server that gave it: another
        // one may serve other bytes under the same ETag.
        if (!m_validator.isEmpty() && m_source == currentUrl())
            request.setRawHeader("If-Range", m_validator);
    }
    m_headersChecked = false;
    m_refusal = Transfer::Verdict();
    m_reply = m_network->get(request);
    // Qt stops reading from the network while this buffer is full.
    m_reply->setReadBufferSize(ReadBufferBytes);
    connect(m_reply, &QNetworkReply::readyRead, this, &Download::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &Download::onFinished);
    m_watch.start(m_reply->url().toString());
}

bool Download::acceptHeaders()
{
    m_headersChecked = true;
    const int status = Transfer::statusOf(m_reply);
    const QString url = m_reply->url().toString();
    if (status == 206 && m_rangeRequested) {
        static const QRegularExpression range(QRegularExpression::anchoredPattern(QStringLiteral("bytes (\\d+)-(\\d+)/(\\d+)")));
        const auto match = range.match(QString::fromLatin1(m_reply->rawHeader("Content-Range")));
        if (!match.hasMatch() || match.captured(1).toLongLong() != m_written || match.captured(3).toLongLong() != m_entry.size) {
            m_refusal.outcome = Outcome::failure(Error::DownloadFailed,
                                                 QStringLiteral("%1 answered the range request with \"%2\"")
                                                     .arg(url, QString::fromLatin1(m_reply->rawHeader("Content-Range"))),
                                                 url);
            m_refusal.retryable = true;
            restartFromZero();
            m_reply->abort();
            return false;
        }
        if (m_source != currentUrl() && !m_source.isEmpty()) {
            m_source.clear(); // the part now holds the bytes of two servers
            m_validator.clear();
            saveMeta();
        }
        return true;
    }
    if (status == 200) {
        if (m_written > 0) {
            qCDebug(lcVindal) << url << "ignored the range, starting again from zero";
            restartFromZero();
        }
        bool known = false;
        const qint64 length = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        if (known && length != m_entry.size) {
            m_refusal.outcome = Outcome::failure(Error::ChecksumMismatch,
                                                 QStringLiteral("%1 has %2 bytes, the index says %3").arg(url).arg(length).arg(m_entry.size),
                                                 url);
            m_reply->abort();
            return false;
        }
        const QByteArray etag = m_reply->rawHeader("ETag");
        m_validator = !etag.isEmpty() && !etag.startsWith("W/") ? etag : m_reply->rawHeader("Last-Modified");
        m_source = currentUrl();
        saveMeta();
        return true;
    }
    m_refusal = Transfer::judge(m_reply);
    if (m_refusal.outcome) {
        m_refusal.outcome = Outcome::failure(Error::DownloadFailed, QStringLiteral("%1 answered with status %2").arg(url).arg(status), url);
        m_refusal.retryable = true;
    }
    // Qt reports an error status (a 404, say) itself, from its network
    // thread; aborting the reply as well makes Qt print an internal warning
    // when that report comes. The reply is dropped unread instead.
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    reply->deleteLater();
    failAttempt(m_refusal);
    return false;
}

void Download::onReadyRead()
{
    if (!m_reply || m_holding || (!m_headersChecked && !acceptHeaders()))
        return;
    // Never more than the index announces: an endless body ends here. The
    // write blocks while the disk is behind, and a full hash queue ends the
    // loop: either way the rest waits in Qt's read buffer, which then stops
    // reading from the network.
    while (m_written < m_entry.size && m_reply->bytesAvailable() > 0) {
        const QByteArray chunk = m_reply->read(qMin(qMin(m_reply->bytesAvailable(), m_entry.size - m_written), ChunkBytes));
        if (chunk.isEmpty())
            break;
        if (m_part.write(chunk) != chunk.size()) {
            return finish(Outcome::failure(Error::DiskFull, QStringLiteral("cannot write \"%1\": %2").arg(m_partPath, m_part.errorString()),
                                           m_partPath));
        }
        m_written += chunk.size();
        m_watch.received(chunk.size());
        if (!m_hasher->add(chunk)) {
            m_holding = true;
            m_watch.hold();
            break;
        }
    }
    if (m_written == m_entry.size)
        return complete();
    if (m_throttle.ready())
        m_progress(m_written, m_entry.size);
}

void Download::resumeReading()
{
    if (!m_holding)
        return;
    m_holding = false;
    if (!m_reply)
        return;
    m_watch.received(0);
    if (m_reply->isFinished())
        onFinished();
    else
        onReadyRead();
}

void Download::onFinished()
{
    if (!m_reply)
        return;
    // Drain what is left: the rest of a body cut short, or the headers of an
    // answer without one. A failed connection has neither.
    if (m_refusal.outcome && (m_headersChecked || m_reply->error() == QNetworkReply::NoError)) {
        onReadyRead();
        if (!m_reply || m_holding)
            return; // complete, failed for good, or the rest follows when the hasher has room
    }
    Transfer::Verdict verdict = m_refusal.outcome ? Transfer::judge(m_reply) : m_refusal;
    if (verdict.outcome) {
        verdict.outcome = Outcome::failure(Error::DownloadFailed,
                                           QStringLiteral("%1 ended after %2 of %3 bytes").arg(m_reply->url().toString())
                                               .arg(m_written).arg(m_entry.size),
                                           m_reply->url().toString());
        verdict.retryable = true;
    }
    dropReply();
    failAttempt(verdict);
}

void Download::restartFromZero()
{
    m_part.resize(0);
    m_written = 0;
    m_hasher->restart();
    m_holding = false;
    m_validator.clear();
    m_source.clear();
    QFile::remove(m_metaPath);
}

void Download::saveMeta()
{
    QJsonObject meta;
    meta.insert(MetaSha256, m_entry.sha256);
    meta.insert(MetaValidator, QString::fromLatin1(m_validator));
    meta.insert(MetaSource, m_source);
    QString error;
    if (!PlainFile::write(m_metaPath, QJsonDocument(meta).toJson(QJsonDocument::Compact), &error))
        qCWarning(lcVindal) << "cannot write" << m_metaPath << error << "- a later resume starts from zero";
}

QString Download::currentUrl() const
{
    return m_urls.at(qMax(0, m_plan.current())).toString();
}

void Download::failAttempt(const Transfer::Verdict &verdict)
{
    qCWarning(lcVindal) << "download attempt failed:" << verdict.outcome.message;
    m_plan.fail(verdict);
    m_watch.stop();
    QTimer::singleShot(m_plan.delayMs(), this, &Download::attempt);
}

void Download::complete()
{
    dropReply();
    m_watch.stop();
    // The hasher may still be working through its queue.
    m_hasher->whenHashed([this](const QString &sha256) {
        QMetaObject::invokeMethod(this, [this, sha256] { verified(sha256); }, Qt::QueuedConnection);
    });
}

void Download::verified(const QString &sha256)
{
    if (m_finished)
        return; // the deadline came first
    if (sha256 != m_entry.sha256) {
        Transfer::Verdict verdict;
        verdict.outcome = Outcome::failure(Error::ChecksumMismatch,
                                           QStringLiteral("%1 from %2 has SHA-256 %3, the index says %4").arg(m_entry.file, currentUrl(), sha256, m_entry.sha256),
                                           m_entry.file);
        // Bytes of one server: it serves a wrong file, the others may not.
        // Bytes of several (a resume from another server's part): any of
        // them may have lied, so this one starts again from the first byte.
        verdict.retryable = m_plan.current() < 0 || m_source != currentUrl();
        restartFromZero();
        if (verdict.retryable)
            m_plan.repeat();
        return failAttempt(verdict);
    }
    QString error;
    if (!PlainFile::rename(&m_part, m_partPath, m_finalPath, &error)) {
        return finish(Outcome::failure(Error::DiskFull, QStringLiteral("cannot rename \"%1\" to \"%2\": %3").arg(m_partPath, m_finalPath, error),
                                       m_finalPath));
    }
    QFile::remove(m_metaPath);
    m_progress(m_entry.size, m_entry.size);
    finish(Outcome::success());
}

void Download::finish(const Outcome &outcome)
{
    if (m_finished)
        return;
    m_finished = true;
    m_watch.stop();
    m_deadline.stop();
    dropReply();
    m_part.close();
    // A failure before the first byte (a 404, say) leaves nothing to resume.
    if (!outcome && m_hasher && m_written == 0 && QFile::remove(m_partPath))
        QFile::remove(m_metaPath);
    m_lock.unlock();
    const Done done = m_done;
    done(outcome, m_finalPath);
}

void Download::dropReply()
{
    if (!m_reply)
        return;
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    reply->abort();
    reply->deleteLater();
}

} // namespace Vindal
