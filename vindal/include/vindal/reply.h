#ifndef VINDAL_REPLY_H
#define VINDAL_REPLY_H

#include <vindal/error.h>
#include <vindal/vindal_export.h>

#include <QtCore/QObject>
#include <QtCore/QVariantMap>

namespace Vindal {

class ReplyPrivate;

// The result of one asynchronous request. finished() is emitted exactly once,
// with {"errorCode": int, "result": ...} ("errorMessage" too on failure).
// The receiver of a reply owns it and deletes it with deleteLater().
class VINDAL_EXPORT Reply : public QObject
{
    Q_OBJECT
public:
    explicit Reply(QObject *parent = nullptr);
    ~Reply() override;

    // The request's state: NoError while it runs and after success, the
    // failure's code once it failed.
    Error::ErrorCode status() const;
    bool isFinished() const;
    // The map finished() carried, once isFinished() is true (empty before).
    // status(), isFinished() and result() may be called from any thread, so
    // a receiver on another thread that connects late can still take the
    // result: connect, then check isFinished().
    QVariantMap result() const;

public slots:
    // Stops the request; it finishes with Error::Cancelled unless it had finished.
    void abort();

signals:
    void finished(const QVariantMap &result);
    void progress(qint64 done, qint64 total);
    void downloadProgress(qint64 received, qint64 total);

private:
    friend class ReplyPrivate;
    friend class Manager;
    friend class ManagerPrivate;
    ReplyPrivate *d;
};

} // namespace Vindal

#endif // VINDAL_REPLY_H
