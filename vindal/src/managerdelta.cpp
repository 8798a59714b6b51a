// Unpacking a delta package: applying it to the install, and when that
// cannot be done (the installed files are not the version it starts from,
// or the delta is refused), downloading and unpacking the full package in
// the same request.
#include "manager_p.h"

#include "deltaapplier_p.h"
#include "logging_p.h"
#include "reply_p.h"
#include "statestore_p.h"
#include "transfer_p.h"

#include <QtCore/QFileInfo>
#include <QtCore/QMutexLocker>

namespace Vindal {

namespace {

// The unpack reply's one bar, in parts per million: the delta's apply
// first, then the full package's download and unpacking share what is
// left. Never moves back, whatever step reports.
class DeltaProgress
{
public:
    static const qint64 Scale = 1000000;

    explicit DeltaProgress(const std::shared_ptr<ReplyChannel> &channel) : m_channel(channel) {}

    void report(double fraction)
    {
        const qint64 value = qMin(Scale - 1, qint64(m_from + fraction * (Scale - m_from)));
        if (value <= m_shown.load() || !m_throttle.ready())
            return;
        m_shown = value;
        m_channel->progress(value, Scale);
    }
    // What follows shares the rest of the bar.
    void restFrom() { m_from = m_shown.load(); }
    void finish() { m_channel->progress(Scale, Scale); }

private:
    std::shared_ptr<ReplyChannel> m_channel;
    std::atomic<qint64> m_shown{0};
    qint64 m_from = 0;
    ProgressThrottle m_throttle;
};

// What the fall-back carries from the failed apply to the full package.
struct FallBack
{
    FallBack(const std::shared_ptr<ReplyChannel> &channel, const QVariantMap &delta, const QString &module)
        : progress(channel), delta(delta), module(module)
    {
    }
    DeltaProgress progress;
    QVariantMap delta;
    QString module;
    DeltaManifest manifest; // empty unless the delta's manifest is the one for this version
};

} // namespace

void ManagerPrivate::applyDelta(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job)
{
    const QVariantMap delta = job.delivered.value(QStringLiteral("delta")).toMap();
    const QString module = job.delivered.value(QStringLiteral("module")).toString();
    DeltaApplier applier(job.packageFile, job.targetFolder, job.limits);
    if (!delta.isEmpty())
        applier.expect(module, delta.value(QStringLiteral("to")).toString(), delta.value(QStringLiteral("fullSha256")).toString());
    const auto state = std::make_shared<FallBack>(channel, delta, module);
    DeltaProgress *const progress = &state->progress;
    const Outcome outcome = applier.run([&](qint64 done, qint64 total) {
        if (channel->isAborted() || *m_shuttingDown)
            return false;
        progress->report(double(done) / double(qMax<qint64>(1, total)));
        return true;
    });
    QVariantMap result{{QStringLiteral("file"), job.packageFile}, {QStringLiteral("path"), job.targetFolder},
                       {QStringLiteral("bytesTotal"), QFileInfo(job.packageFile).size()}};
    if (outcome) {
        QVariantMap applied = delta;
        applied.insert(QStringLiteral("applied"), true);
        noteDelta(applied, job, applier.manifest().module, applier.manifest().to);
        result.insert(QStringLiteral("delta"), applied);
        progress->finish();
        channel->clearAbortHandler();
        channel->finish(Error::NoError, result);
        return;
    }
    // Only a delta this manager downloaded has a full package to fall back
    // to; a cancelled or disk-bound failure would not fare better with it.
    if (delta.isEmpty() || outcome.code == Error::Cancelled || outcome.code == Error::DiskFull) {
        qCWarning(lcVindal).noquote() << "applying the delta failed:" << errorKey(outcome.code) << outcome.message;
        result.insert(QStringLiteral("entry"), outcome.subject);
        channel->clearAbortHandler();
        channel->finish(outcome.code, result, outcome.message);
        return;
    }
    if (*m_shuttingDown) {
        channel->clearAbortHandler();
        channel->finish(Error::Cancelled, result, QStringLiteral("the module service was shut down"));
        return;
    }
    qCWarning(lcVindal).noquote() << "the delta does not apply, downloading the full package instead:" << outcome.message;
    progress->restFrom();
    if (applier.isBound())
        state->manifest = applier.manifest();
    QMetaObject::invokeMethod(q, [this, channel, job, state] { fallBack(channel, job, state); }, Qt::QueuedConnection);
}

void ManagerPrivate::fallBack(const std::shared_ptr<ReplyChannel> &channel, const UnpackJob &job, const std::shared_ptr<void> &holder)
{
    const auto state = std::static_pointer_cast<FallBack>(holder);
    const QVariantMap &delta = state->delta;
    if (channel->isAborted() || *m_shuttingDown) {
        channel->clearAbortHandler();
        channel->finish(Error::Cancelled, QVariant(), QStringLiteral("unpacking was cancelled"));
        return;
    }
    RepositoryRequest::Target target;
    target.name = state->module;
    target.version = delta.value(QStringLiteral("to")).toString();
    target.pinned = true; // the version the delta was chosen for, whatever the marks say
    Reply *download = request(RepositoryRequest::Fetch, target);
    QPointer<Reply> guard(download);
    channel->setAbortHandler([guard] { QMetaObject::invokeMethod(guard, [guard] { if (guard) guard->abort(); }, Qt::QueuedConnection); });
    QObject::connect(download, &Reply::downloadProgress, download, [state](qint64 received, qint64 total) {
        state->progress.report(0.5 * double(received) / double(qMax<qint64>(1, total)));
    });
    QObject::connect(download, &Reply::finished, download, [this, channel, job, state, download](const QVariantMap &params) {
        download->deleteLater();
        const int code = params.value(QStringLiteral("errorCode")).toInt();
        const QVariantMap full = params.value(QStringLiteral("result")).toMap();
        if (code != Error::NoError || *m_shuttingDown) {
            channel->clearAbortHandler();
            channel->finish(Error::ErrorCode(code ? code : Error::Cancelled), full,
                            QStringLiteral("the delta did not apply, and the full package failed: %1")
                                .arg(params.value(QStringLiteral("errorMessage")).toString()));
            return;
        }
        channel->setAbortHandler([] {});
        m_unpackPool->start([this, channel, job, state, full] {
            const QString package = full.value(QStringLiteral("path")).toString();
            const QVariantMap &delta = state->delta;
            const Outcome outcome = Package::extract(package, job.targetFolder, [&](qint64 done, qint64 total) {
                if (channel->isAborted() || *m_shuttingDown)
                    return false;
                state->progress.report(0.5 + 0.5 * double(done) / double(qMax<qint64>(1, total)));
                return true;
            }, job.limits);
            QVariantMap result{{QStringLiteral("file"), package}, {QStringLiteral("path"), job.targetFolder},
                               {QStringLiteral("bytesTotal"), QFileInfo(package).size()}};
            QVariantMap fellBack = delta;
            fellBack.insert(QStringLiteral("applied"), false);
            fellBack.insert(QStringLiteral("bytesSaved"), -delta.value(QStringLiteral("size")).toLongLong());
            result.insert(QStringLiteral("delta"), fellBack);
            if (outcome) {
                // The files the new version dropped go as the delta would
                // have removed them, so the install ends as the delta's would.
                DeltaApplier::removeDropped(state->manifest, job.targetFolder);
                noteDelta(fellBack, job, state->module, delta.value(QStringLiteral("to")).toString());
                state->progress.finish();
            } else {
                result.insert(QStringLiteral("entry"), outcome.subject);
            }
            channel->clearAbortHandler();
            channel->finish(outcome.code, result, outcome.message);
        });
    });
}

void ManagerPrivate::noteDelta(const QVariantMap &delta, const UnpackJob &job, const QString &module, const QString &version)
{
    {
        QMutexLocker lock(&m_mutex);
        m_packageInfo.insert(QStringLiteral("delta"), delta);
    }
    noteInstalled(job, module, version);
}

void ManagerPrivate::noteInstalled(const UnpackJob &job, const QString &module, const QString &version)
{
    // A record that cannot be written costs the next update its delta only.
    if (!module.isEmpty() && !job.identity.isEmpty())
        StateStore::setInstalled(job.identity, module, version);
}

} // namespace Vindal
