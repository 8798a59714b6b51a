#include "parthasher_p.h"

#include "digest_p.h"

#include <QtCore/QFile>

namespace Vindal {

PartHasher::PartHasher(const QString &path)
    : m_path(path)
    , m_thread([this] { run(); })
{
}

PartHasher::~PartHasher()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void PartHasher::grow(qint64 available)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_available = available;
    }
    m_wake.notify_all();
}

void PartHasher::restart()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_generation;
        m_available = 0;
    }
    m_wake.notify_all();
}

void PartHasher::whenHashed(qint64 size, std::function<void(const QString &)> done)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_target = size;
        m_done = std::move(done);
    }
    m_wake.notify_all();
}

void PartHasher::run()
{
    Digest sha256(Digest::Sha256);
    QFile file(m_path);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 hashed = 0;
    unsigned generation = 0;
    bool failed = false;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] {
            return m_stop || m_generation != generation || (!failed && hashed < m_available)
                || (m_done && (failed || hashed >= m_target));
        });
        if (m_stop)
            return;
        if (m_generation != generation) {
            generation = m_generation;
            hashed = 0;
            failed = false;
            sha256.reset();
            continue;
        }
        if (m_done && (failed || hashed >= m_target)) {
            const auto done = std::move(m_done);
            m_done = nullptr;
            const QString result = failed || hashed != m_target ? QString() : sha256.hex();
            lock.unlock();
            done(result);
            lock.lock();
            continue;
        }
        const qint64 want = qMin<qint64>(m_available - hashed, buffer.size());
        lock.unlock();
        qint64 n = -1;
        if ((file.isOpen() || file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) && file.seek(hashed))
            n = file.read(buffer.data(), want);
        lock.lock();
        if (m_generation != generation)
            continue; // the file was emptied meanwhile; what was read is void
        if (n <= 0) {
            failed = true;
            continue;
        }
        sha256.add(buffer.constData(), n);
        hashed += n;
    }
}

} // namespace Vindal
