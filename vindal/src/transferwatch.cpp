#include "transferwatch_p.h"

namespace Vindal {

TransferWatch::TransferWatch(const RepositoryConfig &config, std::function<void(const QString &)> expired, QObject *parent)
    : QObject(parent)
    , m_stallMs(config.stallTimeoutMs)
    , m_minimumBytes(qint64(config.minimumRate) * config.rateWindowMs / 1000)
    , m_windowMs(config.rateWindowMs)
    , m_expired(std::move(expired))
{
    m_stall.setSingleShot(true);
    m_stall.setInterval(m_stallMs);
    connect(&m_stall, &QTimer::timeout, this, [this] {
        stop();
        m_expired(QStringLiteral("no data from %1 for %2 s").arg(m_url).arg(m_stallMs / 1000.0));
    });
    m_window.setInterval(m_windowMs);
    connect(&m_window, &QTimer::timeout, this, &TransferWatch::windowEnded);
}

void TransferWatch::start(const QString &url)
{
    m_url = url;
    m_running = true;
    m_inWindow = 0;
    m_holding = m_heldInWindow = false;
    m_stall.start();
    if (m_minimumBytes > 0)
        m_window.start();
}

void TransferWatch::stop()
{
    m_running = false;
    m_stall.stop();
    m_window.stop();
}

void TransferWatch::received(qint64 bytes)
{
    if (!m_running)
        return;
    m_inWindow += bytes;
    m_holding = false;
    m_stall.start();
}

void TransferWatch::hold()
{
    m_holding = m_heldInWindow = true;
    m_stall.stop();
}

void TransferWatch::windowEnded()
{
    const qint64 got = m_inWindow;
    const bool slow = !m_heldInWindow && got < m_minimumBytes;
    m_inWindow = 0;
    m_heldInWindow = m_holding;
    if (!slow)
        return;
    stop();
    m_expired(QStringLiteral("%1 sent %2 bytes in %3 s, less than the minimum of %4 bytes/s")
                  .arg(m_url).arg(got).arg(m_windowMs / 1000.0).arg(m_minimumBytes * 1000 / m_windowMs));
}

} // namespace Vindal
