#include "command.h"

#include "configfile.h"
#include "exitcodes.h"
#include "failurecause.h"
#include "formatbytes.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>

#include <algorithm>
#include <memory>

using Corbeth::CBEnum;
using Corbeth::FailureCause;
using Corbeth::Manager;
using Corbeth::SetupTask;

namespace {

bool is(const QString &name, const char *command)
{
    return name == QLatin1String(command);
}

} // namespace

Command::Command(Options options, Reporter *reporter, QObject *parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_reporter(reporter)
    , m_task(&m_manager)
{
    connect(&m_manager, &Manager::taskStatusChanged, this, [this](uint status) { m_reporter->status(status); });
    connect(&m_manager, &Manager::progress, this, &Command::onProgress);
    connect(&m_manager, &Manager::errorOccurred, this, &Command::onError);
    connect(&m_manager, &Manager::finished, this, &Command::onFinished);
    const auto report = [this](const char *name) {
        return [this, name] { m_reporter->signal(QString::fromLatin1(name)); };
    };
    connect(&m_manager, &Manager::onlineInstallFinished, this, report("onlineInstallFinished"));
    connect(&m_manager, &Manager::installPackageFinished, this, report("installPackageFinished"));
    connect(&m_manager, &Manager::uninstallPackageFinished, this, report("uninstallPackageFinished"));
    connect(&m_manager, &Manager::selfUpgradeFinished, this, report("selfUpgradeFinished"));
    connect(&m_manager, &Manager::uncompressPackageFinished, this, report("uncompressPackageFinished"));
    connect(&m_manager, &Manager::downloadPackageFinished, this, report("downloadPackageFinished"));
    connect(&m_manager, &Manager::getHardwareInfoFinished, this, &Command::showHardware);
    connect(&m_manager, &Manager::pluginFinished, this,
            [this](const QString &name, const QVariantMap &result, const QString &id) {
                m_reporter->signal(QStringLiteral("pluginFinished"));
                QStringList lines;
                for (auto it = result.cbegin(); it != result.cend(); ++it)
                    lines << it.key() + QLatin1Char('=') + it.value().toString();
                m_reporter->info(lines.join(QLatin1Char('\n')),
                                 {{QStringLiteral("plugin"), name}, {QStringLiteral("id"), id},
                                  {QStringLiteral("result"), QJsonObject::fromVariantMap(result)}});
                if (m_phase == Plugin)
                    finish(CorbethExit::Success);
            });

    connect(&m_task, &SetupTask::progress, this, [this](double percent) { m_reporter->progress(percent); });
    connect(&m_task, &SetupTask::transfer, this,
            [this](qint64 received, qint64 total, double rate) { m_reporter->transfer(received, total, rate); });
    connect(&m_task, &SetupTask::succeeded, this, [this] {
        qint64 saved = 0;
        if (const QString delta = m_task.deltaReport(&saved); !delta.isEmpty())
            m_reporter->info(delta, {{QStringLiteral("bytesSaved"), double(saved)}});
        finish(CorbethExit::Success);
    });
    connect(&m_task, &SetupTask::cancelled, this, [this] { finish(CorbethExit::Cancelled); });
    connect(&m_task, &SetupTask::failed, this, [this](CBEnum::ErrorCode code) { fail(code, failure(code)); });
}

void Command::start()
{
    QTimer::singleShot(0, this, &Command::run);
}

void Command::cancel()
{
    if (m_done || m_cancelling)
        return;
    m_cancelling = true;
    if (m_task.isRunning()) {
        m_task.cancel();
        return;
    }
    if (m_phase == Download || m_phase == SelfUpdate || m_phase == Patch) {
        // The engine ends the task with TS_Aborted and finished().
        m_manager.revocateInstall();
        return;
    }
    finish(CorbethExit::Cancelled);
}

QString Command::failure(CBEnum::ErrorCode code)
{
    const QString package = !m_options.package.isEmpty() ? m_options.package : m_options.from;
    const QString installPath = m_manager.installPath().isEmpty() ? QFileInfo(m_options.config).absoluteFilePath()
                                                                  : m_manager.installPath();
    // What the engine or the repository client said is more than the code tells.
    if (const QString cause = FailureCause::text(); !cause.isEmpty())
        return QStringLiteral("%1 failed: %2").arg(m_options.name, cause);
    switch (code) {
    case CBEnum::EC_Timeout:
    case CBEnum::EC_UnknownNetworkError:
    case CBEnum::EC_NetworkError_FileDownloadedError:
        return QStringLiteral("%1 failed: cannot download from %2")
            .arg(m_options.name, m_manager.configData()
                                     .value(QStringLiteral("velmira")).toMap()
                                     .value(QStringLiteral("repository")).toString());
    case CBEnum::EC_VerifyFailed:
        return QStringLiteral("%1 failed: the package does not match its .verify: %2")
            .arg(m_options.name, QFileInfo(package).absoluteFilePath());
    case CBEnum::EC_FileNotOpen:
        return QStringLiteral("%1 failed: cannot open %2")
            .arg(m_options.name, package.isEmpty() ? installPath : QFileInfo(package).absoluteFilePath());
    case CBEnum::EC_SoftwarePathError:
        return QStringLiteral("%1 failed: no usable install folder: %2").arg(m_options.name, installPath);
    default: return QStringLiteral("%1 failed at %2").arg(m_options.name, installPath);
    }
}

bool Command::configure(bool online)
{
    int exitCode = CorbethExit::Success;
    if (const QString problem = Corbeth::ConfigFile::problem(m_options.config, exitCode); !problem.isEmpty()) {
        m_reporter->error(exitCode == CorbethExit::fromError(CBEnum::EC_ConfigDataError) ? CBEnum::EC_ConfigDataError
                                                                                         : CBEnum::EC_FileNotOpen,
                          problem);
        finish(exitCode);
        return false;
    }
    const CBEnum::ErrorCode loaded = m_manager.setConfigPath(m_options.config);
    const QString file = QFileInfo(m_options.config).absoluteFilePath();
    // A missing plug-in folder gives the same code as a missing file, but the
    // document is in force: only the plug-in command needs that folder.
    const bool inForce = loaded == CBEnum::EC_FileNotOpen && !m_manager.configData().isEmpty();
    if (inForce && is(m_options.name, "plugin")) {
        fail(loaded, QStringLiteral("no plug-in folder (\"plugin\".\"loadPath\") for the configuration %1").arg(file));
        return false;
    }
    if (loaded != CBEnum::EC_NoError && !inForce) {
        fail(loaded, QStringLiteral("cannot read the configuration %1").arg(file));
        return false;
    }
    if (m_options.retryRounds > 0)
        SetupTask::boundRetries(m_manager, m_options.retryRounds);
    for (const QString &warning : FailureCause::takeConfigWarnings())
        m_reporter->warning(warning);
    if (!m_options.additions.isEmpty() && !m_manager.setCurrentAddtions(m_options.additions)) {
        m_reporter->error(CBEnum::EC_ConfigDataError,
                          QStringLiteral("unknown addition among %1 in %2 (known: %3)")
                              .arg(m_options.additions.join(QLatin1Char(',')), m_options.config,
                                   m_manager.configData().value(QStringLiteral("additions")).toMap().keys().join(
                                       QLatin1Char(','))));
        finish(CorbethExit::Usage);
        return false;
    }
    m_manager.setForceInstall(m_options.force);
    m_manager.setNeedUninstallOlder(m_options.removeOlder);
    if (online) {
        const CBEnum::ErrorCode remote = m_manager.initRemote();
        if (remote != CBEnum::EC_NoError) {
            fail(remote, QStringLiteral("the repository (\"velmira\") is missing or refused in the configuration %1").arg(m_options.config));
            return false;
        }
    }
    return true;
}

bool Command::needInstallPath()
{
    if (!m_options.path.isEmpty())
        m_manager.setInstallPath(QDir(m_options.path).absolutePath());
    if (!m_manager.installPath().isEmpty())
        return true;
    fail(CBEnum::EC_SoftwarePathError, QStringLiteral("%1 failed: no install path, pass --path").arg(m_options.name));
    return false;
}

void Command::run()
{
    FailureCause::reset();
    const QString &name = m_options.name;
    if (is(name, "verify") || is(name, "search")) {
        runLookup();
    } else if (is(name, "hardware")) {
        m_phase = Hardware;
        m_manager.getHardwareInfo();
    } else if (is(name, "install") || is(name, "update") || is(name, "uninstall")) {
        runTask();
    } else if (is(name, "patch")) {
        if (!configure(false) || !needInstallPath())
            return;
        if (m_manager.configData().value(QStringLiteral("updatePatch")).toMap().isEmpty()) {
            fail(CBEnum::EC_ConfigDataError,
                 QStringLiteral("patch failed: the configuration %1 has no \"updatePatch\" section")
                     .arg(QFileInfo(m_options.config).absoluteFilePath()));
            return;
        }
        m_phase = Patch;
        const bool ok = m_manager.installPatch();
        if (m_cancelling)
            finish(CorbethExit::Cancelled);
        else if (!ok)
            fail(m_syncError == CBEnum::EC_NoError ? CBEnum::EC_UnknownError : m_syncError,
                 QStringLiteral("patch failed at %1").arg(m_manager.installPath()));
        else
            finish(CorbethExit::Success);
    } else if (is(name, "download")) {
        if (!configure(true))
            return;
        if (m_options.path.isEmpty()) {
            m_reporter->error(CBEnum::EC_SoftwarePathError, QStringLiteral("no download folder: pass --path"));
            finish(CorbethExit::Usage);
            return;
        }
        QDir().mkpath(m_options.path);
        m_phase = Download;
        m_manager.downloadPackage(QDir(m_options.path).absolutePath());
    } else if (is(name, "self-update")) {
        if (!configure(true))
            return;
        m_phase = SelfUpdate;
        if (!m_manager.checkSelfUpdateAndDownload() && !m_done) {
            m_phase = Idle; // no task ran
            m_reporter->info(QStringLiteral("the installer is up to date"));
            finish(CorbethExit::Success);
        }
    } else if (is(name, "plugin")) {
        if (!configure(false))
            return;
        m_phase = Plugin;
        QString id;
        const CBEnum::ErrorCode code = m_manager.requestPlugin(m_options.argument, m_options.params, id);
        if (code != CBEnum::EC_NoError)
            fail(code, QStringLiteral("plugin %1 was refused (configuration %2)").arg(m_options.argument, m_options.config));
    }
}

void Command::runTask()
{
    const QString &name = m_options.name;
    const bool offline = !m_options.package.isEmpty() || !m_options.from.isEmpty();
    if (!configure(!offline && !is(name, "uninstall")))
        return;
    if (!needInstallPath())
        return;
    QString package = m_options.package;
    if (!m_options.from.isEmpty()) {
        CBEnum::ErrorCode error = CBEnum::EC_NoError;
        package = m_task.findPackage(m_options.from, error);
        if (package.isEmpty()) {
            fail(error == CBEnum::EC_NoError ? CBEnum::EC_FileNotOpen : error,
                 QStringLiteral("%1 failed: no valid package in %2").arg(name, QFileInfo(m_options.from).absoluteFilePath()));
            return;
        }
    } else if (!package.isEmpty()) {
        package = QFileInfo(package).absoluteFilePath();
    }
    m_phase = Task;
    m_task.setUninstallFlow(m_options.flow);
    const SetupTask::Kind kind = is(name, "install") ? SetupTask::Install
        : is(name, "update")                         ? SetupTask::Update
                                                     : SetupTask::Uninstall;
    m_task.start(kind, m_manager.installPath(), package);
}

void Command::runLookup()
{
    const bool verify = is(m_options.name, "verify");
    QString dir = m_options.argument;
    std::unique_ptr<QTemporaryDir> single;
    const QFileInfo package(m_options.argument);
    if (verify) {
        if (!package.isFile()) {
            fail(CBEnum::EC_FileNotOpen, QStringLiteral("verify failed: no package at %1").arg(package.absoluteFilePath()));
            return;
        }
        // The engine checks the newest package of a folder: give it a folder
        // holding only this package and its companion.
        single = std::make_unique<QTemporaryDir>();
        dir = single->path();
        const QString verifyFile = package.absoluteFilePath() + QLatin1String(".verify");
        QFile::link(package.absoluteFilePath(), single->filePath(package.fileName()));
        if (QFile::exists(verifyFile))
            QFile::link(verifyFile, single->filePath(package.fileName() + QLatin1String(".verify")));
    }
    CBEnum::ErrorCode error = CBEnum::EC_NoError;
    const QString found = m_task.findPackage(dir, error);
    if (found.isEmpty()) {
        fail(error == CBEnum::EC_NoError ? CBEnum::EC_FileNotOpen : error,
             verify ? QStringLiteral("verify failed: the package does not match its .verify: %1").arg(package.absoluteFilePath())
                    : QStringLiteral("search failed: no valid package in %1").arg(package.absoluteFilePath()));
        return;
    }
    const QString shown = verify ? package.absoluteFilePath() : found;
    m_reporter->info(verify ? QStringLiteral("verified %1").arg(shown) : shown, {{QStringLiteral("package"), shown}});
    finish(CorbethExit::Success);
}

void Command::onProgress(double percent)
{
    if (m_done || m_cancelling || m_phase == Task || m_phase == Idle)
        return;
    m_reporter->progress(percent);
    if (m_phase == Download && m_manager.taskStatus() == CBEnum::TS_Downloading) {
        const qint64 total = std::max<qint64>(0, m_manager.packageSize());
        const qint64 received = qint64(std::clamp(percent, 0.0, 100.0) / 100.0 * double(total));
        // A resumed download starts with what an earlier run received: the
        // rate counts only what arrives from now on.
        if (!m_transferClock.isValid()) {
            m_transferClock.start();
            m_transferBase = received;
        }
        const double seconds = m_transferClock.elapsed() / 1000.0;
        m_reporter->transfer(received, total, seconds > 0.2 ? double(received - m_transferBase) / seconds : 0.0);
    }
}

void Command::onError(CBEnum::ErrorCode code)
{
    // The shared task reports its own failures.
    if (m_done || m_phase == Task || m_phase == Idle)
        return;
    if (m_phase == Patch) {
        m_syncError = code;
        return;
    }
    if (m_cancelling) {
        finish(CorbethExit::Cancelled);
        return;
    }
    // The engine stays parked on its failed step until it is released.
    QTimer::singleShot(0, &m_manager, [manager = &m_manager] { manager->revocateInstall(); });
    fail(code, failure(code));
}

void Command::onFinished()
{
    m_reporter->signal(QStringLiteral("finished"));
    if (m_done || (m_phase != Download && m_phase != SelfUpdate))
        return;
    if (m_cancelling) {
        finish(CorbethExit::Cancelled);
        return;
    }
    if (m_phase == Download)
        m_reporter->info(QStringLiteral("downloaded into %1").arg(QDir(m_options.path).absolutePath()),
                         {{QStringLiteral("folder"), QDir(m_options.path).absolutePath()}});
    finish(CorbethExit::Success);
}

void Command::showHardware(const Corbeth::HardwareInfo &info)
{
    m_reporter->signal(QStringLiteral("getHardwareInfoFinished"));
    QStringList lines;
    QJsonArray cpus, gpus, memories;
    for (const auto &cpu : info.cpuInfos) {
        cpus.append(QJsonObject{{QStringLiteral("name"), cpu.name},
                                {QStringLiteral("maxClockSpeed"), cpu.maxClockSpeed},
                                {QStringLiteral("coreNum"), cpu.coreNum}});
        lines << QStringLiteral("cpu     %1, %2 cores, %3 MHz").arg(cpu.name).arg(cpu.coreNum).arg(cpu.maxClockSpeed);
    }
    for (const auto &gpu : info.gpuInfos) {
        gpus.append(QJsonObject{{QStringLiteral("name"), gpu.name},
                                {QStringLiteral("adapterRAM"), gpu.adapterRAM},
                                {QStringLiteral("driverVersion"), gpu.driverVersion}});
        lines << QStringLiteral("gpu     %1 %2").arg(gpu.name, gpu.driverVersion).trimmed();
    }
    for (const auto &memory : info.memInfos) {
        memories.append(QJsonObject{{QStringLiteral("capacity"), memory.capacity},
                                    {QStringLiteral("speed"), memory.speed}});
        lines << QStringLiteral("memory  %1").arg(formatBytes(memory.capacity));
    }
    m_reporter->info(lines.join(QLatin1Char('\n')),
                     {{QStringLiteral("cpus"), cpus}, {QStringLiteral("gpus"), gpus},
                      {QStringLiteral("memories"), memories}});
    if (m_phase == Hardware)
        finish(CorbethExit::Success);
}

void Command::fail(CBEnum::ErrorCode code, const QString &message)
{
    if (m_done)
        return;
    m_reporter->error(code, message);
    finish(FailureCause::exitCode(code));
}

void Command::finish(int exitCode)
{
    if (m_done)
        return;
    m_done = true;
    // Lookups and the inventory are no tasks: they have no bar to complete.
    if (exitCode == CorbethExit::Success && m_phase != Idle && m_phase != Hardware && m_phase != Plugin)
        m_reporter->progress(100);
    // The summary comes last: the engine's finished() may still be on its way
    // to the other receivers of the signal that ended the task.
    QTimer::singleShot(0, this, [this, exitCode] {
        const QString outcome = exitCode == CorbethExit::Success ? QStringLiteral("succeeded")
            : exitCode == CorbethExit::Cancelled                 ? QStringLiteral("cancelled")
                                                                 : QStringLiteral("failed");
        m_reporter->summary(m_options.name, exitCode, outcome);
        emit done(exitCode);
    });
}
