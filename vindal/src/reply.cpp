#include "reply_p.h"

#include <QtCore/QMutexLocker>

namespace Vindal {

void ReplyChannel::progress(qint64 done, qint64 total)
{
    QMutexLocker lock(&m_mutex);
    if (m_reply && !m_finished)
        emit m_reply->progress(done, total);
}

void ReplyChannel::downloadProgress(qint64 received, qint64 total)
{
    QMutexLocker lock(&m_mutex);
    if (m_reply && !m_finished)
        emit m_reply->downloadProgress(received, total);
}

bool ReplyChannel::finish(Error::ErrorCode code, const QVariant &result, const QString &message)
{
    QMutexLocker lock(&m_mutex);
    if (m_finished)
        return false;
    QVariantMap map;
    map.insert(QStringLiteral("errorCode"), int(code));
    map.insert(QStringLiteral("result"), result);
    if (code != Error::NoError)
        map.insert(QStringLiteral("errorMessage"), message);
    // Stored before the flag turns: whoever sees isFinished() finds the map.
    m_result = map;
    m_status = code;
    m_finished = true;
    m_abortHandler = nullptr;
    if (m_reply)
        emit m_reply->finished(map);
    return true;
}

QVariantMap ReplyChannel::result() const
{
    QMutexLocker lock(&m_mutex);
    return m_result;
}

void ReplyChannel::finishLater(QObject *context, Error::ErrorCode code, const QString &message)
{
    m_status = code;
    std::weak_ptr<ReplyChannel> self;
    {
        QMutexLocker lock(&m_mutex);
        if (!m_reply || m_finished)
            return;
        self = ReplyPrivate::channel(m_reply);
    }
    QMetaObject::invokeMethod(context, [self, code, message] {
        if (const auto channel = self.lock())
            channel->finish(code, QVariant(), message);
    }, Qt::QueuedConnection);
}

void ReplyChannel::setAbortHandler(std::function<void()> handler)
{
    QMutexLocker lock(&m_mutex);
    m_abortHandler = std::move(handler);
}

void ReplyChannel::clearAbortHandler()
{
    setAbortHandler(nullptr);
}

void ReplyChannel::requestAbort()
{
    // Handlers run under the lock: once clearAbortHandler() has returned, the
    // job that set one can go away safely. They only post to their job.
    QMutexLocker lock(&m_mutex);
    if (m_finished || m_aborted.exchange(true))
        return;
    if (m_abortHandler)
        m_abortHandler();
    else
        finish(Error::Cancelled, QVariant(), QStringLiteral("the request was cancelled"));
}

void ReplyChannel::detach()
{
    QMutexLocker lock(&m_mutex);
    m_reply = nullptr;
    if (!m_finished && !m_aborted.exchange(true) && m_abortHandler)
        m_abortHandler();
    m_abortHandler = nullptr;
}

Reply::Reply(QObject *parent)
    : QObject(parent)
    , d(new ReplyPrivate)
{
    d->m_channel.reset(new ReplyChannel(this));
}

Reply::~Reply()
{
    d->m_channel->detach();
    delete d;
}

Error::ErrorCode Reply::status() const
{
    return d->m_channel->status();
}

bool Reply::isFinished() const
{
    return d->m_channel->isFinished();
}

QVariantMap Reply::result() const
{
    return d->m_channel->result();
}

void Reply::abort()
{
    d->m_channel->requestAbort();
}

} // namespace Vindal
