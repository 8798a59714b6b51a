#ifndef VINDAL_DOWNLOAD_P_H
#define VINDAL_DOWNLOAD_P_H

#include "packageindex_p.h"
#include "repositoryconfig_p.h"
#include "streamhasher_p.h"
#include "transfer_p.h"
#include "transferwatch_p.h"

#include <QtCore/QFile>
#include <QtCore/QLockFile>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;

namespace Vindal {

// Downloads one package file into a folder. The bytes go to "<file>.part"
// and are hashed (SHA-256) from memory as they arrive; the file gets its
// final name only once its size and SHA-256 match the index. (Its MD5 is the
// index's: equal SHA-256 means equal bytes.) A ".part" left by an earlier
// attempt is resumed with a range request (If-Range, sent only to the server
// that gave the validator, guards against a changed file). "<file>.part.lock" keeps a second download of the same file into the
// same folder out. Reading stops while the disk or the hash is behind, so
// memory stays bounded whatever their speed. Lives on the manager's thread;
// deleting it stops the transfer and keeps the ".part" for a later resume.
class Download : public QObject
{
public:
    // progress(received, total); done(outcome, final path).
    using Progress = std::function<void(qint64 received, qint64 total)>;
    using Done = std::function<void(const Outcome &outcome, const QString &path)>;

    Download(QNetworkAccessManager *network, const RepositoryConfig &config, const QList<QUrl> &urls,
             const IndexEntry &entry, const QString &folder, Progress progress, Done done, QObject *parent);
    ~Download() override;

    void start();

private:
    struct Resume;

    void prepared(const std::shared_ptr<Resume> &resume);
    void attempt();
    void onReadyRead();
    void resumeReading();
    void onFinished();
    bool acceptHeaders();
    void restartFromZero();
    void saveMeta();
    QString currentUrl() const;
    void failAttempt(const Transfer::Verdict &verdict);
    void complete();
    void verified(const QString &sha256);
    void finish(const Outcome &outcome);
    void dropReply();
    void removePart();

    QNetworkAccessManager *m_network;
    RepositoryConfig m_config;
    QList<QUrl> m_urls;
    IndexEntry m_entry;
    QString m_finalPath;
    QString m_partPath;
    QString m_metaPath;
    Progress m_progress;
    Done m_done;
    AttemptPlan m_plan;
    ProgressThrottle m_throttle;

    QFile m_part; // opened from m_partPath without a name
    QLockFile m_lock;
    std::unique_ptr<StreamHasher> m_hasher;
    bool m_holding = false; // reading paused until the hasher has room
    bool m_finished = false;
    qint64 m_written = 0;
    QByteArray m_validator;
    QString m_source; // the URL every byte of the part came from; empty when several or unknown
    QPointer<QNetworkReply> m_reply;
    bool m_rangeRequested = false;
    bool m_headersChecked = false;
    Transfer::Verdict m_refusal; // set when this side ended the attempt
    TransferWatch m_watch;
    QTimer m_deadline;
};

} // namespace Vindal

#endif // VINDAL_DOWNLOAD_P_H
