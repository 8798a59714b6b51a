#ifndef VINDAL_TRANSFERWATCH_P_H
#define VINDAL_TRANSFERWATCH_P_H

#include "repositoryconfig_p.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <functional>

namespace Vindal {

// Ends a transfer that is too slow: one that received nothing for the stall
// time-out, or less than the minimum rate over a whole rate window (a slow
// drip that would otherwise keep it alive for ever). A window in which this
// side held the reading back (its disk or hash was behind) does not count.
class TransferWatch : public QObject
{
public:
    // expired(why) is called at most once per start(), with a sentence
    // naming the URL; the caller aborts the transfer.
    TransferWatch(const RepositoryConfig &config, std::function<void(const QString &why)> expired, QObject *parent);

    void start(const QString &url);
    void stop();
    // Bytes taken from the transfer (0 when reading resumes after a hold).
    void received(qint64 bytes);
    // Reading is paused by this side.
    void hold();

private:
    void windowEnded();

    const int m_stallMs;
    const qint64 m_minimumBytes; // per window
    const int m_windowMs;
    std::function<void(const QString &)> m_expired;
    QString m_url;
    QTimer m_stall;
    QTimer m_window;
    bool m_running = false;
    qint64 m_inWindow = 0;
    bool m_holding = false;
    bool m_heldInWindow = false;
};

} // namespace Vindal

#endif // VINDAL_TRANSFERWATCH_P_H
