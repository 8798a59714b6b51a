#ifndef CORBETH_TOOLS_SETUPTASK_H
#define CORBETH_TOOLS_SETUPTASK_H

#include <corbeth/manager.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QTemporaryDir>

#include <memory>

namespace Corbeth {

// One install, update or uninstall driven through the Manager, as the window,
// its silent mode and the command-line installer all need it: one bar from 0 to 100 over every step, the
// stage, the transfer figures, and exactly one of succeeded, failed or
// cancelled at the end.
class SetupTask : public QObject
{
    Q_OBJECT
public:
    enum Kind { Install, Update, Uninstall };

    explicit SetupTask(Manager *manager, QObject *parent = nullptr);

    // The newest verified package in dir, or empty (error is set when one lies
    // there but fails its check).
    QString findPackage(const QString &dir, CBEnum::ErrorCode &error);

    // Starts from the event loop, so the caller can show its page first.
    // package empty: from the repository.
    void start(Kind kind, const QString &path, const QString &package);
    void cancel();
    bool isRunning() const { return m_state == Running || m_state == Cancelling; }

    // The operation an uninstall runs, "uninstall" unless set.
    void setUninstallFlow(const QString &flow) { m_uninstallFlow = flow; }

    // After an update from the repository through a delta package: how many
    // bytes it saved (*saved, negative when it did not apply and the full
    // package came after it) and a sentence saying so; empty otherwise.
    QString deltaReport(qint64 *saved = nullptr) const;

    // A short readable name of a task status ("Downloading").
    static QString stageName(uint status);
    // Gives the engine's endless download retries an end (rounds of them),
    // unless the configuration already sets one: a program nobody watches
    // must stop on its own.
    static void boundRetries(Manager &manager, int rounds);

signals:
    void progress(double percent);
    void stageChanged(const QString &stage);
    // Bytes of the package received so far; total 0 when the engine does not know it.
    void transfer(qint64 received, qint64 total, double bytesPerSecond);
    void succeeded();
    void failed(Corbeth::CBEnum::ErrorCode code);
    void cancelled();

private:
    enum State { Idle, Running, Cancelling, Done };
    enum Phase { None, OnlineInstall, OfflineInstall, Download, Unpack, RunUpdate, RunUninstall };

    void run();
    void enter(Phase phase);
    void onProgress(double percent);
    void onStatus(uint status);
    void onError(CBEnum::ErrorCode code);
    void onFinished();
    void unpackUpdate(const QString &package);
    void adoptPackageConfig();
    void finish(CBEnum::ErrorCode code = CBEnum::EC_NoError);

    Manager *m_manager;
    State m_state = Idle;
    Phase m_phase = None;
    Kind m_kind = Install;
    QString m_path;
    QString m_productPath; // the engine's path while an update downloads elsewhere
    QString m_package;
    QString m_uninstallFlow = QStringLiteral("uninstall");
    std::unique_ptr<QTemporaryDir> m_downloadDir;
    uint m_status = CBEnum::TS_Freeing;
    double m_shown = 0;
    QElapsedTimer m_transferClock;
    qint64 m_transferBase = 0;
};

} // namespace Corbeth

#endif // CORBETH_TOOLS_SETUPTASK_H
