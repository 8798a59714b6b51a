// Steps around the operations: older software, the self-deleting cleanup
// tool, the offline package next to the program and the download cache.
#include "installer/installer.h"

#include "installer/downloadcache.h"
#include "logging_p.h"
#include "platform/filetrust.h"
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>

namespace Corbeth {

namespace {

// The cleanup tool's file, with the ".exe" it has on Windows or without.
const char *const kCleanupToolNames[] = {"corbeth-cleanup.exe", "corbeth-cleanup"};

bool holdsFiles(const QString &dir)
{
    if (dir.isEmpty() || !QDir(dir).exists())
        return false;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    return it.hasNext();
}

} // namespace

QString Installer::latestPackage(const QString &dir)
{
    const QFileInfoList entries
        = QDir(dir).entryInfoList({QStringLiteral("*.tolmpkg")}, QDir::Files | QDir::NoDotAndDotDot, QDir::NoSort);
    if (entries.isEmpty()) {
        qCDebug(lcCorbeth) << "No .tolmpkg files found in" << dir;
        return QString();
    }
    QFileInfo latest = entries.first();
    for (const QFileInfo &entry : entries) {
        if (latest.lastModified() < entry.lastModified())
            latest = entry;
    }
    qCDebug(lcCorbeth) << "Latest .tolmpkg file found: " << latest.absoluteFilePath();
    return latest.absoluteFilePath();
}

bool Installer::searchPackage(const QString &dir, QString &found)
{
    const QString package = latestPackage(dir);
    if (package.isEmpty())
        return false;
    m_offlinePackage = package;
    found = package;
    return true;
}

bool Installer::checkIfOfflineInstall(QString &packagePath, QString &verifyPath)
{
    // An offline installer ships its package next to the program.
    if (!searchPackage(QCoreApplication::applicationDirPath(), packagePath))
        return false;
    const QString companion = packagePath + QLatin1String(".verify");
    verifyPath = QFile::exists(companion) ? companion : QString();
    qCDebug(lcCorbeth) << "offline package" << packagePath << verifyPath;
    return true;
}

void Installer::removeUpdateDir()
{
    if (m_installPath.isEmpty()) {
        qCWarning(lcCorbeth) << "remove update dir" << "install path is empty";
        return;
    }
    qCDebug(lcCorbeth) << "remove update dir" << DownloadCache::folderOf(m_installPath);
    if (!DownloadCache::remove(m_installPath))
        qCWarning(lcCorbeth) << "remove update dir fail" << DownloadCache::folderOf(m_installPath);
}

QString Installer::olderInstallPathFromSettings(const OlderSoftwareInfo &older)
{
    // The settings store is asked again: an uninstall since the configuration
    // was loaded may have removed the entry.
    if (!older.settingPath.isEmpty() && !older.key.isEmpty())
        return SKGlobal::instance()->settingValue(older.settingPath, older.key).toString();
    return older.olderInstallPath;
}

bool Installer::checkOldSoftwareIsExist()
{
    const QString path = olderRemoval().older.olderInstallPath;
    const bool exists = holdsFiles(path);
    qCDebug(lcCorbeth) << "older software" << path << exists;
    return exists;
}

Installer::OlderRemoval Installer::olderRemoval() const
{
    OlderRemoval removal;
    if (!m_installInfo)
        return removal;
    removal.older = m_installInfo->olderSoftwareInfo;
    removal.older.olderInstallPath = olderInstallPathFromSettings(removal.older);
    for (ProcessHelper &process : removal.older.process) {
        process.program = expandPath(process.program);
        for (QString &arg : process.args)
            arg = expandPath(arg);
    }
    for (QString &file : removal.older.removeFiles)
        file = expandPath(file);
    if (m_uninstallInfo) {
        for (const QString &file : qAsConst(m_uninstallInfo->whiteList))
            removal.keep << expandPath(file);
    }
    return removal;
}

bool Installer::uninstallOldSoftware()
{
    return uninstallOldSoftware(olderRemoval());
}

bool Installer::uninstallOldSoftware(const OlderRemoval &removal)
{
    const QString &path = removal.older.olderInstallPath;
    if (!holdsFiles(path)) {
        qCDebug(lcCorbeth) << "older software" << path << false;
        return true;
    }
    qCInfo(lcCorbeth) << "uninstall older software" << path;
    // Paths are expanded already: the steps below find no variable to replace.
    const CBEnum::ErrorCode code = processExe(removal.older.process);
    if (code != CBEnum::EC_NoError) {
        qCCritical(lcCorbeth) << "older software uninstall fail" << code;
        return false;
    }
    removeFiles(removal.older.removeFiles, removal.keep);
    removeSettings(removal.older.removeSettings);
    return true;
}

bool Installer::copySuicideTool()
{
    // The tool ships with the engine: beside the program, in the installed
    // prefix's libexec or bin, or with the product in its install folder; it
    // must run from elsewhere to remove that folder. A copy that another user
    // could have put or changed there is never run (the engine often runs as
    // root).
    QStringList folders{QCoreApplication::applicationDirPath(),
                        QCoreApplication::applicationDirPath() + QLatin1String("/../libexec/corbeth"),
                        QCoreApplication::applicationDirPath() + QLatin1String("/../libexec")};
#ifdef CORBETH_INSTALL_LIBEXECDIR
    folders << QStringLiteral(CORBETH_INSTALL_LIBEXECDIR "/corbeth") << QStringLiteral(CORBETH_INSTALL_LIBEXECDIR)
            << QStringLiteral(CORBETH_INSTALL_BINDIR);
#endif
    if (!m_installPath.isEmpty())
        folders << m_installPath;
    QString source;
    QStringList looked;
    for (const QString &dir : qAsConst(folders)) {
        const QString folder = QDir::cleanPath(dir);
        if (looked.contains(folder))
            continue;
        looked << folder;
        for (const char *name : kCleanupToolNames) {
            const QString candidate = QDir(folder).filePath(QLatin1String(name));
            if (!source.isEmpty() || !QFileInfo(candidate).isFile())
                continue;
            if (const QString why = FileTrust::whyUntrusted(candidate); !why.isEmpty())
                looked.last() += QStringLiteral(" (refused: %1)").arg(why);
            else
                source = candidate;
        }
    }
    if (source.isEmpty()) {
        qCCritical(lcCorbeth).noquote() << "suicide tool not found: the cleanup tool corbeth-cleanup is in none of"
                                        << looked.join(QLatin1String(", "));
        return false;
    }
    const QFileInfo info(source);
    const QString target = QDir::temp().filePath(QStringLiteral("%1-%2%3")
                                                     .arg(info.completeBaseName())
                                                     .arg(QCoreApplication::applicationPid())
                                                     .arg(info.suffix().isEmpty() ? QString()
                                                                                  : QLatin1Char('.') + info.suffix()));
    if (QFile::exists(target))
        QFile::remove(target);
    if (!QFile::copy(source, target)) {
        qCWarning(lcCorbeth) << "suicide tool copy fail" << source << target;
        return false;
    }
    m_suicideToolPath = target;
    qCDebug(lcCorbeth) << "suicide tool" << target;
    return true;
}

void Installer::suicide(const QString &dir)
{
    if ((m_suicideToolPath.isEmpty() || !QFile::exists(m_suicideToolPath)) && !copySuicideTool())
        return;
    QStringList args{QStringLiteral("--pid"), QString::number(QCoreApplication::applicationPid()),
                     QStringLiteral("--dir"), QDir(dir).absolutePath()};
    // White-listed files of the uninstall survive the folder's removal too.
    if (m_uninstallInfo) {
        for (const QString &entry : qAsConst(m_uninstallInfo->whiteList))
            args << QStringLiteral("--keep") << QDir(expandPath(entry)).absolutePath();
    }
    qint64 pid = 0;
    m_isSuicide = QProcess::startDetached(m_suicideToolPath, args, QDir::tempPath(), &pid);
    qCInfo(lcCorbeth) << "suicide" << dir << m_isSuicide << pid;
}

} // namespace Corbeth
