#ifndef CORBETH_INSTALLER_H
#define CORBETH_INSTALLER_H

#include "config/installinfo.h"

#include <corbeth/cbenum.h>

#include <QtCore/QAtomicInt>
#include <QtCore/QDir>
#include <QtCore/QMap>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtCore/QVector>
#include <QtCore/QWaitCondition>

#include <functional>

class QEventLoop;

namespace Corbeth {

// Carries out one operation of the install description on this machine.
//
// The configuration side (loading the descriptions, path variables, custom
// tags, additions) is in config/installerconfig.cpp; the operations and their
// steps are in the installer_*.cpp files beside this header.
class Installer : public QObject
{
    Q_OBJECT
public:
    using InstallCallback = std::function<CBEnum::ErrorCode()>;

    explicit Installer(QObject *parent = nullptr);
    ~Installer() override;

    // --- configuration side ---------------------------------------------------
    // Replaces every "${name}" placeholder the engine knows, in a fixed order,
    // then the custom tags in name order; unknown placeholders stay.
    QString expandPath(const QString &path) const;
    // A command line's placeholders replaced, each word that then holds a
    // blank quoted ("${installPath}/un /S" in "My Apps" stays two arguments).
    QString expandCommand(const QString &command) const;
    // Whether path holds a placeholder the engine knows whose value is empty:
    // "${desktop}/${tag}" would then name the desktop itself.
    bool hasEmptyVariable(const QString &path) const;

    // The section parser and its item parsers. An item parser returns false at
    // the first bad entry; what it appended before stays.
    static InstallInfoPtr parseInstallInfo(const QVariantMap &section);
    static bool parseCoverFiles(const QVariant &value, QList<CoverFileInfo> &out);
    static bool parseDrivers(const QVariant &value, QList<CBEnum::DriverType> &out);
    static bool parseProcess(const QVariant &value, QList<ProcessHelper> &out);
    static bool parseSettings(const QVariant &value, QList<SettingInfo> &out);
    static bool parseLinks(const QVariant &value, QList<LinkInfo> &out);
    static bool parseOlderSoftware(const QVariant &value, OlderSoftwareInfo &out);
    static bool parseErrorLevel(const QVariantMap &item, ErrorLevel &level);
    static InstallInfoSet parseInstallInfoSet(const QVariantMap &document);
    // Additions are merged onto base in the given order, base entries last.
    static InstallInfoSet mergeInstallInfoSets(const QList<InstallInfoSet> &additions, const InstallInfoSet &base);

    bool parseCustomTag(const QList<QVariant> &tags);
    bool parseAdditions(const QVariantMap &additions);
    bool setCurrentAddtions(const QStringList &names);
    QStringList currentAddtions() const { return m_currentAdditions; }

    void setInstallPath(const QString &path);
    QString installPath() const { return m_installPath; }
    // "${packageVersion}": the version of the package unpacked last, empty
    // when nothing tells it.
    void setPackageVersion(const QString &version) { m_packageVersion = version; }
    void setOlderInstallPath(const QString &path);
    QString olderSoftwarePath() const;
    void setForceInstall(bool force) { m_forceInstall = force; }
    bool forceInstall() const { return m_forceInstall; }
    void setNeedUninstallOlder(bool need) { m_needUninstall = need; }
    bool needUninstallOlder() const { return m_needUninstall; }
    void setInstallCallback(InstallCallback callback) { m_installCallback = std::move(callback); }

    InstallInfoPtr installInfo() const { return m_installInfo; }
    InstallInfoPtr uninstallInfo() const { return m_uninstallInfo; }
    InstallInfoPtr updateInfo() const { return m_updateInfo; }
    InstallInfoPtr updatePatchInfo() const { return m_updatePatchInfo; }
    InstallInfoSet parsedInstallInfoSet() const { return m_parsedSet; }
    QStringList clearProcessList() const { return m_clearProcess; }
    QMap<QString, QString> customTags() const { return m_customTags; }

    // --- operations -------------------------------------------------------------
    double currentProgress() const { return m_progress; }
    void advanceProgress(double step, double ceiling);

    // File operations.
    bool cutFiles(const QList<CoverFileInfo> &items);
    bool checkPathExist(ErrorLevel level, const QVariantMap &params, const QString &name);
    bool coverFile(const QString &src, const QString &dest);
    bool copyDir(const QString &srcDir, const QString &destDir, QDir::Filters filters, const QString &suffix);
    bool makeDir(const QString &path);
    bool removeFiles(const QStringList &files, const QStringList &whiteList);
    bool removeDir(const QDir &dir);
    void filesToWhite(const QStringList &whiteList);
    void whiteToFiles(const QStringList &whiteList);
    // Gives back their names to the white-listed files of the uninstall and
    // update descriptions that a run killed between filesToWhite and
    // whiteToFiles left under their marker names. Every operation starts with it.
    void recoverWhiteList();

    // Shortcuts, settings and uninstall entries.
    bool links(const QList<LinkInfo> &items);
    void settings(const QList<SettingInfo> &items);
    void addUninstallObj(const QString &settingPath, const QString &uninstallCommand);
    void removeSettings(const QStringList &paths);
    void removeFileAssociations();

    // Process step.
    CBEnum::ErrorCode processExe(const QList<ProcessHelper> &list);
    static QStringList splitArguments(const QString &commandLine);

    // Steps around the operations.
    bool clearProcess();
    bool driverExist(const QList<CBEnum::DriverType> &drivers);
    bool checkOldSoftwareIsExist();
    bool uninstallOldSoftware();
    // Removing the older software as the description says now, every path
    // expanded: a job off the engine's thread works on it while the
    // configuration may be replaced.
    struct OlderRemoval
    {
        OlderSoftwareInfo older;
        QStringList keep; // the uninstall's white list
    };
    OlderRemoval olderRemoval() const;
    bool uninstallOldSoftware(const OlderRemoval &removal);
    // The programs of the clear-process list, by file name; closing them needs
    // nothing else of the engine.
    QStringList programsToClose() const;
    static bool closePrograms(const QStringList &names);
    bool copySuicideTool();
    void suicide(const QString &dir);
    bool isSuicide() const { return m_isSuicide; }
    bool checkIfOfflineInstall(QString &packagePath, QString &verifyPath);
    bool searchPackage(const QString &dir, QString &found);
    // The package that the last successful search found.
    QString offlinePackage() const { return m_offlinePackage; }
    void removeUpdateDir();

    // The newest ".tolmpkg" file of dir, or an empty string.
    static QString latestPackage(const QString &dir);

    // Revocation. abort() makes the running operation stop before its next
    // step and releases every wait it is parked in (a failed step otherwise
    // leaves its operation waiting for ever); nothing already done is undone.
    // The next operation starts afresh.
    void abort();
    // Blocks until no task of the engine runs on the thread pool.
    void waitForIdle();
    bool isBusy() const { return m_tasks.loadAcquire() != 0; }

public slots:
    bool installPackage();
    bool uninstallPackage(QString flow);
    bool update();
    bool updatePatch();
    void onConfigDataChanged();

signals:
    void progress(double progress);
    void riseOfProgress(double rise);
    void installPackageFinished();
    void uninstallPackageFinished();
    void installPathChanged();
    void errorOccurred(CBEnum::ErrorCode error);

private:
    // The recursive part of copyDir; root is the folder the copy started from.
    bool copyTree(const QString &srcDir, const QString &destDir, QDir::Filters filters, const QString &suffix,
                  const QString &root);
    void copyLink(const QFileInfo &link, const QString &target, const QString &root);
    // Operations remember the epoch they started in; abort() moves it on.
    int epoch() const { return m_epoch.loadAcquire(); }
    bool revoked(int epoch) const;
    // Runs loop unless the operation was revoked; abort() quits it.
    void waitIn(QEventLoop &loop, int epoch);
    void startTask(std::function<void()> task);
    // Runs task on the pool and waits, until it quits the loop it is given or
    // the operation is revoked, and then until the task has returned.
    void runAndWait(int epoch, const std::function<void(QEventLoop *)> &task);
    void waitForTask(int epoch, int intervalMs, double ceiling, const std::function<void(QEventLoop *)> &task);
    bool runInstallSteps(int epoch);
    bool runUninstallSteps();
    void loadDriverIdentification();
    static QString olderInstallPathFromSettings(const OlderSoftwareInfo &older);
    void initStandardLocations();
    // Each placeholder with its value, in the order expandPath() replaces them.
    QVector<QPair<QString, QString>> pathVariables() const;
    InstallInfoSet currentSet() const;
    void setCurrentSet(const InstallInfoSet &set);

    QString m_installPath;
    QString m_packageVersion;
    InstallInfoPtr m_installInfo;
    InstallInfoPtr m_uninstallInfo;
    InstallInfoPtr m_updatePatchInfo;
    InstallInfoPtr m_updateInfo;
    InstallInfoSet m_parsedSet;
    double m_progress = 0.0;
    // The update's creeping timer and its install steps advance it from two threads.
    QMutex m_progressMutex;
    InstallCallback m_installCallback;
    bool m_needUninstall = false;
    bool m_forceInstall = false;
    QStringList m_clearProcess;

    // Path variables fixed when the engine is made.
    QString m_packagePath;
    QString m_startMenuPrograms;
    QString m_desktop;
    QString m_appDataPath;
    QMap<QString, QString> m_customTags;
    QMap<QString, InstallInfoSet> m_additions;
    QStringList m_currentAdditions;

    // How each driver type is recognised on this machine (configuration
    // "driverIdentification", with built-in defaults).
    QMap<int, QStringList> m_driverIds;

    QAtomicInt m_epoch;
    QAtomicInt m_tasks;
    QMutex m_waitMutex;
    QWaitCondition m_idle;
    QSet<QEventLoop *> m_loops;

    // Set by a copy that began but could not be completed (a full disk).
    bool m_writeFailed = false;

    bool m_isSuicide = false;
    QString m_suicideToolPath;

    QString m_offlinePackage;
};

} // namespace Corbeth

#endif // CORBETH_INSTALLER_H
