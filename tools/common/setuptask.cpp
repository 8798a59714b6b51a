#include "setuptask.h"

#include "failurecause.h"

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QLocale>
#include <QtCore/QTimer>

#include <algorithm>

namespace Corbeth {

namespace {

// Each step's share of the one bar the user sees.
struct Band
{
    double from;
    double to;
};

} // namespace

SetupTask::SetupTask(Manager *manager, QObject *parent)
    : QObject(parent)
    , m_manager(manager)
{
    connect(m_manager, &Manager::progress, this, &SetupTask::onProgress);
    connect(m_manager, &Manager::taskStatusChanged, this, &SetupTask::onStatus);
    connect(m_manager, &Manager::errorOccurred, this, &SetupTask::onError);
    connect(m_manager, &Manager::finished, this, &SetupTask::onFinished);
}

QString SetupTask::findPackage(const QString &dir, CBEnum::ErrorCode &error)
{
    error = CBEnum::EC_NoError;
    if (dir.isEmpty() || QDir(dir).entryList({QStringLiteral("*.tolmpkg")}, QDir::Files).isEmpty())
        return QString();
    // A bad digest is reported through errorOccurred while we are not running.
    const auto connection = connect(m_manager, &Manager::errorOccurred, this,
                                    [&error](CBEnum::ErrorCode code) { error = code; });
    QString found;
    const bool ok = m_manager->searchOfflinePackage(dir, found, QString());
    disconnect(connection);
    if (!ok && error == CBEnum::EC_NoError)
        error = CBEnum::EC_FileNotOpen;
    return ok ? found : QString();
}

void SetupTask::start(Kind kind, const QString &path, const QString &package)
{
    m_kind = kind;
    m_path = path;
    m_package = package;
    m_state = Running;
    m_phase = None;
    m_shown = 0;
    FailureCause::reset();
    emit progress(0);
    QTimer::singleShot(0, this, &SetupTask::run);
}

void SetupTask::run()
{
    if (m_state != Running)
        return;
    if (!m_path.isEmpty())
        m_manager->setInstallPath(m_path);
    switch (m_kind) {
    case Install:
        if (m_package.isEmpty()) {
            enter(OnlineInstall);
            // A refusal at once has already been reported through errorOccurred.
            m_manager->onlineInstall(m_path);
        } else {
            enter(OfflineInstall);
            m_manager->offlineInstall(m_package);
        }
        break;
    case Update:
        if (m_package.isEmpty()) {
            m_downloadDir = std::make_unique<QTemporaryDir>();
            // The download makes its folder the engine's path; the update goes
            // back to the product's folder once it has the package.
            m_productPath = m_manager->installPath();
            enter(Download);
            m_manager->downloadPackage(m_downloadDir->path());
        } else {
            unpackUpdate(m_package);
        }
        break;
    case Uninstall: {
        enter(RunUninstall);
        const bool ok = m_manager->uninstallPackage(m_uninstallFlow);
        if (m_state == Cancelling)
            finish();
        else if (m_state == Running)
            finish(ok ? CBEnum::EC_NoError : CBEnum::EC_UnknownError);
        break;
    }
    }
}

void SetupTask::unpackUpdate(const QString &package)
{
    enter(Unpack);
    m_manager->uncompressPackage(package, m_manager->installPath());
}

void SetupTask::enter(Phase phase)
{
    m_phase = phase;
    m_transferClock.invalidate();
}

void SetupTask::cancel()
{
    if (m_state != Running)
        return;
    m_state = Cancelling;
    m_manager->revocateInstall();
}

void SetupTask::onProgress(double percent)
{
    if (m_state != Running)
        return;
    Band band{0, 100};
    if (m_kind == Update) {
        const bool downloaded = !m_package.isEmpty();
        if (m_phase == Download)
            band = {0, 40};
        else if (m_phase == Unpack)
            band = {downloaded ? 0.0 : 40.0, 80};
        else if (m_phase == RunUpdate)
            band = {80, 100};
    }
    const double overall = band.from + (band.to - band.from) * std::clamp(percent, 0.0, 100.0) / 100.0;
    if (overall > m_shown) {
        m_shown = overall;
        emit progress(m_shown);
    }
    if (m_status == CBEnum::TS_Downloading) {
        // The online install's download fills the first half of its bar.
        const double fraction = std::min(1.0, percent / (m_phase == OnlineInstall ? 50.0 : 100.0));
        const qint64 total = std::max<qint64>(0, m_manager->packageSize());
        const qint64 received = qint64(fraction * double(total));
        // A resumed download starts with what an earlier run received: the
        // rate counts only what arrives from now on.
        if (!m_transferClock.isValid()) {
            m_transferClock.start();
            m_transferBase = received;
        }
        const double seconds = m_transferClock.elapsed() / 1000.0;
        emit transfer(received, total, seconds > 0.2 ? double(received - m_transferBase) / seconds : 0.0);
    }
}

void SetupTask::onStatus(uint status)
{
    // A download or unpacking that went wrong and was retried is no cause of
    // what fails after it.
    if (m_state == Running && (status == CBEnum::TS_Uncompressing || status == CBEnum::TS_Installing))
        FailureCause::reset();
    m_status = status;
    if (m_state == Running && status != CBEnum::TS_Finished && status != CBEnum::TS_Aborted)
        emit stageChanged(stageName(status));
}

void SetupTask::onError(CBEnum::ErrorCode code)
{
    if (m_state == Cancelling) {
        finish();
        return;
    }
    if (m_state != Running)
        return;
    // The engine stays parked on its failed step until it is released.
    QTimer::singleShot(0, m_manager, [manager = m_manager] { manager->revocateInstall(); });
    finish(code);
}

void SetupTask::onFinished()
{
    if (m_state == Cancelling && m_phase != RunUninstall && m_phase != RunUpdate) {
        finish();
        return;
    }
    if (m_state != Running)
        return;
    switch (m_phase) {
    case OnlineInstall:
        // The package copy in the install folder is only worth keeping for a
        // retry; a finished product does not need it.
        m_manager->removeUpdateDir();
        finish();
        break;
    case OfflineInstall:
        finish();
        break;
    case Download: {
        CBEnum::ErrorCode error = CBEnum::EC_NoError;
        const QString found = findPackage(m_downloadDir->path(), error);
        if (found.isEmpty()) {
            finish(error == CBEnum::EC_NoError ? CBEnum::EC_FileNotOpen : error);
            return;
        }
        m_manager->setInstallPath(m_productPath);
        unpackUpdate(found);
        break;
    }
    case Unpack:
        enter(RunUpdate);
        // Not from inside the engine's own signal: the update waits in a nested loop.
        QTimer::singleShot(0, this, [this] {
            if (m_state != Running)
                return;
            adoptPackageConfig();
            const bool ok = m_manager->installPackage();
            if (m_state == Cancelling)
                finish();
            else if (m_state == Running)
                finish(ok ? CBEnum::EC_NoError : CBEnum::EC_UnknownError);
        });
        break;
    case RunUpdate:
    case RunUninstall:
    case None:
        break;
    }
}

void SetupTask::adoptPackageConfig()
{
    // A package may carry its own configuration, "corbeth.json" at its top:
    // the update then runs the new version's "update" description.
    const QString folder = m_manager->installPath();
    const QString own = QDir(folder).filePath(QStringLiteral("corbeth.json"));
    if (folder.isEmpty() || !QFileInfo(own).isFile())
        return;
    if (m_manager->setConfigPath(own) != CBEnum::EC_NoError)
        qWarning("corbeth.json of the new version cannot be used; the update runs the configuration given");
    // The new description may name the folder another way: the update stays where it unpacked.
    m_manager->setInstallPath(folder);
}

void SetupTask::finish(CBEnum::ErrorCode code)
{
    const State was = m_state;
    m_state = Done;
    m_phase = None;
    m_downloadDir.reset();
    if (was == Cancelling) {
        emit cancelled();
    } else if (code != CBEnum::EC_NoError) {
        // The download cache stays for a retry to resume from, unless there is
        // nothing in it to resume.
        const QString cache = QDir(m_path).filePath(QStringLiteral("arvenorDownloadCache"));
        if (m_kind == Install && !m_path.isEmpty() && QFileInfo(cache).isDir()
            && !QDirIterator(cache, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories).hasNext())
            m_manager->removeUpdateDir();
        emit failed(code);
    } else {
        if (m_shown < 100)
            emit progress(m_shown = 100);
        emit succeeded();
    }
}

QString SetupTask::deltaReport(qint64 *saved) const
{
    const QVariantMap delta = m_manager->packageInfo().value(QStringLiteral("delta")).toMap();
    if (m_kind != Update || !delta.contains(QStringLiteral("applied")))
        return QString();
    const QLocale locale;
    const qint64 size = delta.value(QStringLiteral("size")).toLongLong();
    const qint64 full = delta.value(QStringLiteral("fullSize")).toLongLong();
    if (saved)
        *saved = delta.value(QStringLiteral("bytesSaved")).toLongLong();
    if (delta.value(QStringLiteral("applied")).toBool())
        return tr("The update downloaded a delta of %1 instead of the full %2, saving %3.")
            .arg(locale.formattedDataSize(size), locale.formattedDataSize(full), locale.formattedDataSize(full - size));
    return tr("The installed files were not those of version %1, so the full package (%2) was downloaded after the delta (%3).")
        .arg(delta.value(QStringLiteral("from")).toString(), locale.formattedDataSize(full), locale.formattedDataSize(size));
}

void SetupTask::boundRetries(Manager &manager, int rounds)
{
    QVariantMap config = manager.configData();
    QVariantMap download = config.value(QStringLiteral("download")).toMap();
    if (download.contains(QStringLiteral("retryRounds")))
        return;
    download.insert(QStringLiteral("retryRounds"), rounds);
    config.insert(QStringLiteral("download"), download);
    // The stored copy holds the sections the document lacked as nulls; sent
    // back as they are, a null "downloadModueleInfo" would hide the
    // "downloadModuleInfo" the document has.
    for (auto it = config.begin(); it != config.end();)
        it = it.value().isNull() ? config.erase(it) : std::next(it);
    manager.setConfigData(config);
}

QString SetupTask::stageName(uint status)
{
    switch (status) {
    case CBEnum::TS_Downloading: return tr("Downloading");
    case CBEnum::TS_Uninstalling: return tr("Removing");
    case CBEnum::TS_Uncompressing: return tr("Unpacking");
    case CBEnum::TS_Installing: return tr("Installing");
    case CBEnum::TS_Verifying: return tr("Checking the package");
    default: return tr("Preparing");
    }
}

} // namespace Corbeth
