#ifndef VINDAL_STREAMHASHER_P_H
#define VINDAL_STREAMHASHER_P_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace Vindal {

// Computes the SHA-256 of a download on a thread of its own, from the
// buffers the transfer already holds: each one is handed over through a
// bounded queue (shared, not copied), so no byte is read back from the disk.
// Only a resumed download's prefix, which is not in memory, is read from its
// file, once.
class StreamHasher
{
public:
    // roomAgain is called on the hasher's thread when a queue that was full
    // has drained to half its capacity.
    StreamHasher(qint64 capacity, std::function<void()> roomAgain);
    ~StreamHasher(); // stops the thread; no callback runs after it returns

    // Hashes the first size bytes of the file before any buffer added later.
    void addFilePrefix(const QString &path, qint64 size);
    // Queues a buffer. False when the queue is full with it: the caller
    // stops handing over buffers until roomAgain.
    bool add(const QByteArray &buffer);
    // Forgets everything hashed or queued: the download starts again.
    void restart();
    // Calls done, on the hasher's thread, with the SHA-256 of everything
    // added so far once it is hashed (empty when the prefix could not be read).
    void whenHashed(std::function<void(const QString &sha256)> done);

private:
    void run();

    const qint64 m_capacity;
    const std::function<void()> m_roomAgain;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<QByteArray> m_queue;
    qint64 m_queued = 0;
    bool m_full = false;
    QString m_prefixPath;
    qint64 m_prefixSize = 0;
    unsigned m_generation = 0;
    bool m_stop = false;
    std::function<void(const QString &)> m_done;
    std::thread m_thread;
};

} // namespace Vindal

#endif // VINDAL_STREAMHASHER_P_H
