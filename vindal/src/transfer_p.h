#ifndef VINDAL_TRANSFER_P_H
#define VINDAL_TRANSFER_P_H

#include <vindal/outcome.h>

#include "repositoryconfig_p.h"

#include <QtCore/QElapsedTimer>
#include <QtNetwork/QNetworkRequest>

class QNetworkReply;

namespace Vindal {

// What every transfer of the client shares: how a request is made, how a
// finished reply is judged, and in which order the repository's URLs are
// tried.
namespace Transfer {

QNetworkRequest makeRequest(const QUrl &url, const RepositoryConfig &config);

struct Verdict
{
    Outcome outcome;
    bool retryable = false; // worth another attempt at the same URL
    int retryAfterMs = 0;   // the server's wish, capped
    int status = 0;         // the HTTP status of a server's error answer
};

// Judges a reply whose transfer ended (or whose headers arrived) without
// the caller having aborted it.
Verdict judge(QNetworkReply *reply);
// The HTTP status, 200 for file URLs.
int statusOf(QNetworkReply *reply);

} // namespace Transfer

// The order of attempts over the base URLs: each base in turn, round after
// round, until every base has failed for good or the rounds are used up.
class AttemptPlan
{
public:
    AttemptPlan(int bases, int retries) : m_bases(bases), m_rounds(1 + retries), m_dropped(bases, false) {}

    // The base of the next attempt, -1 when none is left.
    int next();
    int current() const { return m_current; }
    // Records the current attempt's failure; a failure that is not
    // retryable drops the base from later rounds.
    void fail(const Transfer::Verdict &verdict);
    // Makes the next attempt one more at the current base.
    void repeat()
    {
        if (m_current >= 0)
            --m_attempt;
    }
    // The delay before the next attempt, in milliseconds.
    int delayMs() const;
    // The outcome to report when no attempt is left: the last failure's.
    Outcome finalOutcome() const;

private:
    int m_bases;
    int m_rounds;
    int m_attempt = 0;
    int m_current = -1;
    int m_retryAfterMs = 0;
    QVector<bool> m_dropped;
    Outcome m_last;
};

// Lets progress through at most about 20 times a second.
class ProgressThrottle
{
public:
    bool ready()
    {
        if (m_timer.isValid() && m_timer.elapsed() < 50)
            return false;
        m_timer.start();
        return true;
    }

private:
    QElapsedTimer m_timer;
};

} // namespace Vindal

#endif // VINDAL_TRANSFER_P_H
