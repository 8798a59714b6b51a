#ifndef CORBETH_INSTALLINFO_H
#define CORBETH_INSTALLINFO_H

#include <corbeth/cbenum.h>

#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

QT_BEGIN_NAMESPACE
class QDebug;
QT_END_NAMESPACE

namespace Corbeth {

// The records of one operation's install description ("install", "uninstall",
// "update" or "updatePatch" in the configuration). Paths are kept as written;
// their path variables are expanded where they are used.

struct LinkInfo
{
    QString src;  // the shortcut's target
    QString dest; // the shortcut file to create
    QString icon; // the shortcut's icon, a file or a theme name; may be empty
};

struct SettingInfo
{
    QString path;    // registry key path, beginning with its hive
    QVariantMap key; // value name -> value
};

struct ProcessHelper
{
    ErrorLevel level = EL_Critical;
    QString program;
    QStringList args;
    QList<ExtraProcess> extraProcess;
    int waitTime = 0;       // seconds of linger after the program ended
    int runingTimeout = -1; // seconds; -1 waits without limit
};

struct CoverFileInfo
{
    QPair<QString, QString> pair; // (src, dest)
    ErrorLevel level = EL_Critical;
};

struct OlderSoftwareInfo
{
    QString settingPath;
    QString key;
    QString olderInstallPath; // read from the settings store when the description is loaded
    QList<ProcessHelper> process;
    QStringList removeSettings;
    QStringList removeFiles;
};

struct InstallInfo
{
    QList<LinkInfo> links;
    QList<SettingInfo> settings;
    QList<ProcessHelper> process;
    QList<CBEnum::DriverType> checkDrivers;
    QList<CoverFileInfo> coverFiles;
    QStringList removeFiles;
    QStringList removeSettings;
    OlderSoftwareInfo olderSoftwareInfo;
    QStringList whiteList;
    bool forceInstall = false;
};

using InstallInfoPtr = QSharedPointer<InstallInfo>;

// The four operations' descriptions; every pointer of a freshly parsed set is non-null.
struct InstallInfoSet
{
    InstallInfoPtr install;
    InstallInfoPtr uninstall;
    InstallInfoPtr update;
    InstallInfoPtr updatePatch;
};

// Entries equal in every field; merging additions adds an entry only once.
bool operator==(const LinkInfo &a, const LinkInfo &b);
bool operator==(const ProcessHelper &a, const ProcessHelper &b);
bool operator==(const CoverFileInfo &a, const CoverFileInfo &b);

QDebug operator<<(QDebug debug, const InstallInfo &info);

} // namespace Corbeth

#endif // CORBETH_INSTALLINFO_H
