// Shortcuts, settings and the engine's own record of uninstall commands.
#include "installer/installer.h"

#include "logging_p.h"
#include "platform/shortcut.h"
#include "platform/skglobal.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace Corbeth {

namespace {

const QLatin1String kUninstallRoot("HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall");
const QLatin1String kEngineKey("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller");

} // namespace

bool Installer::links(const QList<LinkInfo> &items)
{
    for (const LinkInfo &item : items) {
        const QString src = expandPath(item.src);
        if (!QFile::exists(src)) {
            qCCritical(lcCorbeth) << "link src not exist" << src;
            continue;
        }
        const QString dest = Shortcut::fileFor(expandPath(item.dest));
        // A link left by an earlier install may point nowhere and still be in the way.
        if (QFile::exists(dest) || QFileInfo(dest).isSymLink())
            QFile::remove(dest);
        // A shortcut may go into a folder of its own ("Start Menu/Vendor").
        QDir().mkpath(QFileInfo(dest).absolutePath());
        if (Shortcut::create(src, expandPath(item.dest), expandPath(item.icon)))
            qCDebug(lcCorbeth) << "success link" << src << dest;
        else
            qCCritical(lcCorbeth) << "link fail" << src << dest;
    }
    return true;
}

void Installer::settings(const QList<SettingInfo> &items)
{
    SKGlobal *global = SKGlobal::instance();
    for (const SettingInfo &item : items) {
        for (auto it = item.key.cbegin(); it != item.key.cend(); ++it) {
            const bool isCommand = it.key() == QLatin1String("UninstallString")
                || it.key() == QLatin1String("QuietUninstallString");
            if (item.path.contains(kUninstallRoot) && it.key() == QLatin1String("UninstallString"))
                addUninstallObj(item.path, it.value().toString());
            const QString text = it.value().toString();
            const QString value = QDir::toNativeSeparators(isCommand ? expandCommand(text) : expandPath(text));
            global->setSettingValue(item.path, it.key(), value);
        }
    }
}

void Installer::addUninstallObj(const QString &settingPath, const QString &uninstallCommand)
{
    SKGlobal *global = SKGlobal::instance();
    QVariantMap record = global->settingValue(kEngineKey, QStringLiteral("UninstallObj")).toMap();
    const QVariantMap entry{
        {QStringLiteral("installPath"), m_installPath},
        {QStringLiteral("tolmInstallPath"), QDir::fromNativeSeparators(expandCommand(uninstallCommand))},
    };
    // Keys written by earlier versions were computed this way; changing it would
    // orphan their entries.
    const QString key = settingPath.right(settingPath.lastIndexOf(QLatin1Char('\\')));
    qCDebug(lcCorbeth) << "appname" << key;
    record.insert(key, entry);
    qCDebug(lcCorbeth) << record;
    global->setSettingValue(kEngineKey, QStringLiteral("UninstallObj"), record);
}

void Installer::removeSettings(const QStringList &paths)
{
    for (const QString &path : paths) {
        qCDebug(lcCorbeth) << "remove setting" << paths;
        SKGlobal::instance()->clearSettings(path);
    }
}

void Installer::removeFileAssociations()
{
    for (const char *type : {"\\.stl", "\\.stlfile", "\\.obj", "\\.objfile", "\\.beb", "\\.bebfile"})
        SKGlobal::instance()->clearSettings(QLatin1String("HKCR") + QLatin1String(type));
}

} // namespace Corbeth
