#include "streamhasher_p.h"

#include "digest_p.h"

namespace Vindal {

StreamHasher::StreamHasher(qint64 capacity, std::function<void()> roomAgain)
    : m_capacity(capacity)
    , m_roomAgain(std::move(roomAgain))
    , m_thread([this] { run(); })
{
}

StreamHasher::~StreamHasher()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void StreamHasher::addFilePrefix(const QString &path, qint64 size)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_prefixPath = path;
        m_prefixSize = size;
    }
    m_wake.notify_all();
}

bool StreamHasher::add(const QByteArray &buffer)
{
    bool full;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(buffer);
        m_queued += buffer.size();
        full = m_full = m_queued >= m_capacity;
    }
    m_wake.notify_all();
    return !full;
}

void StreamHasher::restart()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_generation;
        m_queue.clear();
        m_queued = 0;
        m_full = false;
        m_prefixPath.clear();
    }
    m_wake.notify_all();
}

void StreamHasher::whenHashed(std::function<void(const QString &)> done)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = std::move(done);
    }
    m_wake.notify_all();
}

void StreamHasher::run()
{
    Digest sha256(Digest::Sha256);
    unsigned generation = 0;
    bool failed = false;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] {
            return m_stop || m_generation != generation || !m_prefixPath.isEmpty() || !m_queue.empty() || m_done;
        });
        if (m_stop)
            return;
        if (m_generation != generation) {
            generation = m_generation;
            failed = false;
            sha256.reset();
            continue;
        }
        if (!m_prefixPath.isEmpty()) {
            const QString path = m_prefixPath;
            const qint64 size = m_prefixSize;
            lock.unlock(); // restart() never waits for the disk
            const bool read = sha256.addFile(path, size);
            lock.lock();
            if (m_generation == generation) {
                failed = failed || !read;
                m_prefixPath.clear();
            }
            continue;
        }
        if (!m_queue.empty()) {
            const QByteArray buffer = m_queue.front();
            lock.unlock();
            sha256.add(buffer.constData(), buffer.size());
            lock.lock();
            if (m_generation != generation)
                continue; // restarted meanwhile: what was hashed is void
            m_queue.pop_front();
            m_queued -= buffer.size();
            if (m_full && m_queued <= m_capacity / 2) {
                m_full = false;
                lock.unlock();
                m_roomAgain();
                lock.lock();
            }
            continue;
        }
        const auto done = std::move(m_done);
        m_done = nullptr;
        const QString result = failed ? QString() : sha256.hex();
        lock.unlock();
        done(result);
        lock.lock();
    }
}

} // namespace Vindal
