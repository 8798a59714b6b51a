#ifndef VINDAL_PARTHASHER_P_H
#define VINDAL_PARTHASHER_P_H

#include <QtCore/QString>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Vindal {

// Computes the SHA-256 of a file while another thread writes it, on a thread
// of its own, reading back what the writer has put on disk (from the page
// cache, normally). The transfer never waits for the hash, and no data is
// held in memory for it.
class PartHasher
{
public:
    explicit PartHasher(const QString &path);
    ~PartHasher(); // stops the thread; no callback runs after it returns

    // The writer reports how many bytes the file holds now.
    void grow(qint64 available);
    // The writer emptied the file and starts again.
    void restart();
    // Calls done, on the hasher's thread, with the SHA-256 once size bytes
    // are hashed (empty when the file could not be read).
    void whenHashed(qint64 size, std::function<void(const QString &sha256)> done);

private:
    void run();

    QString m_path;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    qint64 m_available = 0;
    unsigned m_generation = 0;
    bool m_stop = false;
    qint64 m_target = -1;
    std::function<void(const QString &)> m_done;
    std::thread m_thread;
};

} // namespace Vindal

#endif // VINDAL_PARTHASHER_P_H
