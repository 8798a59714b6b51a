#ifndef VINDAL_REPLY_P_H
#define VINDAL_REPLY_P_H

#include <vindal/reply.h>

#include <QtCore/QPointer>
#include <QtCore/QRecursiveMutex>
#include <QtCore/QVariant>

#include <atomic>
#include <functional>
#include <memory>

namespace Vindal {

// The state a reply shares with the job that serves it. Jobs run on the
// manager's thread or on a worker thread while the reply lives on yet another
// thread and may be deleted by its receiver at any time, so every access goes
// through this object and is safe from any thread. Deleting a running reply
// aborts its job quietly.
class ReplyChannel
{
public:
    void progress(qint64 done, qint64 total);
    void downloadProgress(qint64 received, qint64 total);

    // Emits finished() exactly once; later calls are ignored (false).
    bool finish(Error::ErrorCode code, const QVariant &result = QVariant(), const QString &message = QString());
    // Sets the status at once but emits finished() from context's event loop,
    // so that a caller who connects after the request returned still hears it.
    void finishLater(QObject *context, Error::ErrorCode code, const QString &message);

    // Called once, under the channel's lock, from the thread that calls
    // abort() (or deletes the reply); it must only post to its job. Without
    // a handler an abort finishes the reply with Error::Cancelled.
    void setAbortHandler(std::function<void()> handler);
    void clearAbortHandler();
    void requestAbort();

    QVariantMap result() const;
    bool isAborted() const { return m_aborted.load(); }
    bool isFinished() const { return m_finished.load(); }
    Error::ErrorCode status() const { return Error::ErrorCode(m_status.load()); }

private:
    friend class Reply;
    explicit ReplyChannel(Reply *reply) : m_reply(reply) {}
    void detach();

    mutable QRecursiveMutex m_mutex;
    Reply *m_reply;
    std::function<void()> m_abortHandler;
    QVariantMap m_result;
    std::atomic<bool> m_aborted{false};
    std::atomic<bool> m_finished{false};
    std::atomic<int> m_status{Error::NoError};
};

class ReplyPrivate
{
public:
    static std::shared_ptr<ReplyChannel> channel(Reply *reply) { return reply->d->m_channel; }

private:
    friend class Reply;
    std::shared_ptr<ReplyChannel> m_channel;
};

} // namespace Vindal

#endif // VINDAL_REPLY_P_H
