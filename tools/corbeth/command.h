#ifndef CORBETH_CLI_COMMAND_H
#define CORBETH_CLI_COMMAND_H

#include "reporter.h"
#include "setuptask.h"

#include <corbeth/manager.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QVariantMap>

// One run of the tool: drives one operation through the public Manager,
// reports what happens and ends with the exit code (see docs/cli.md).
// Install, update and uninstall go through the same SetupTask as the
// installer window; the other operations are single engine tasks.
class Command : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        QString name;
        QString config;
        QString path;
        QString package;
        QString from;
        QString flow = QStringLiteral("uninstall");
        QString argument;
        QStringList additions;
        QVariantMap params;
        bool force = false;
        bool removeOlder = false;
        int retryRounds = 3;
    };

    Command(Options options, Reporter *reporter, QObject *parent = nullptr);

    // Starts from the event loop; done(exitCode) follows exactly once.
    void start();
    // Revokes the running operation; done(130) follows once it has ended.
    void cancel();

signals:
    void done(int exitCode);

private:
    // What runs besides the shared task; their end comes from the engine.
    enum Phase { Idle, Task, Download, Patch, SelfUpdate, Hardware, Plugin };

    void run();
    void runTask();
    void runLookup();
    bool configure(bool online);
    bool needInstallPath();
    void onProgress(double percent);
    void onError(Corbeth::CBEnum::ErrorCode code);
    void onFinished();
    void showHardware(const Corbeth::HardwareInfo &info);
    void fail(Corbeth::CBEnum::ErrorCode code, const QString &message);
    void finish(int exitCode);
    // The error line's text for a code the engine reported.
    QString failure(Corbeth::CBEnum::ErrorCode code);

    Options m_options;
    Reporter *m_reporter;
    Corbeth::Manager m_manager;
    Corbeth::SetupTask m_task;
    Phase m_phase = Idle;
    Corbeth::CBEnum::ErrorCode m_syncError = Corbeth::CBEnum::EC_NoError;
    QElapsedTimer m_transferClock;
    qint64 m_transferBase = 0;
    bool m_cancelling = false;
    bool m_done = false;
};

#endif // CORBETH_CLI_COMMAND_H
