// The configuration side of the Installer: the install description's load and
// parsers, path variables, custom tags and additions.
#include "installer/installer.h"

#include "config/configer.h"
#include "config/configvalue.h"
#include "logging_p.h"
#include "manager/ptrmanager.h"
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QStandardPaths>

#include <algorithm>

namespace Corbeth {

using namespace ConfigValue;

namespace {

const char installerSettingPath[] = "HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller";

// Each element of a list, taken as an object.
template<typename Parse>
bool forEachObject(const QVariant &value, const QString &key, Parse parse)
{
    const QVariantList items = ConfigValue::toList(value, key);
    for (const QVariant &element : items) {
        if (!parse(ConfigValue::toMap(element, key)))
            return false;
    }
    return true;
}

template<typename T>
void appendNew(QList<T> &target, const QList<T> &source)
{
    for (const T &item : source) {
        if (!target.contains(item))
            target.append(item);
    }
}

// Lists in order, each entry once; settings of one registry path combined, the
// later value of a name winning; olderSoftwareInfo and forceInstall from the
// last part but those of the additions override it when they set them.
InstallInfoPtr mergeInstallInfos(const QList<InstallInfoPtr> &additions, const InstallInfoPtr &base)
{
    auto merged = InstallInfoPtr::create();
    QList<InstallInfoPtr> parts = additions;
    parts.append(base);
    for (const InstallInfoPtr &part : qAsConst(parts)) {
        if (!part)
            continue;
        appendNew(merged->links, part->links);
        appendNew(merged->process, part->process);
        appendNew(merged->checkDrivers, part->checkDrivers);
        appendNew(merged->coverFiles, part->coverFiles);
        appendNew(merged->removeFiles, part->removeFiles);
        appendNew(merged->removeSettings, part->removeSettings);
        appendNew(merged->whiteList, part->whiteList);
        for (const SettingInfo &setting : part->settings) {
            auto same = std::find_if(merged->settings.begin(), merged->settings.end(),
                                     [&setting](const SettingInfo &s) { return s.path == setting.path; });
            if (same == merged->settings.end()) {
                merged->settings.append(setting);
                continue;
            }
            for (auto it = setting.key.cbegin(); it != setting.key.cend(); ++it)
                same->key.insert(it.key(), it.value());
        }
    }
    if (base) {
        merged->olderSoftwareInfo = base->olderSoftwareInfo;
        merged->forceInstall = base->forceInstall;
    }
    for (const InstallInfoPtr &addition : additions) {
        if (!addition)
            continue;
        if (!addition->olderSoftwareInfo.settingPath.isEmpty())
            merged->olderSoftwareInfo = addition->olderSoftwareInfo;
        // false cannot be told from an absent key: an addition can only switch it on.
        merged->forceInstall = merged->forceInstall || addition->forceInstall;
    }
    return merged;
}

} // namespace

Installer::Installer(QObject *parent)
    : QObject(parent)
{
    initStandardLocations();
    const QVariant packagePath =
        SKGlobal::instance()->settingValue(QLatin1String(installerSettingPath), QStringLiteral("path"));
    m_packagePath = QDir::fromNativeSeparators(packagePath.toString());
    qCDebug(lcCorbeth) << "user path" << m_packagePath;
    connect(this, &Installer::installPathChanged, this,
            [this] { qCDebug(lcCorbeth) << "installllllll path" << m_installPath; });
}

Installer::~Installer()
{
    // A copy of the cleanup tool that was never started would stay in the
    // temporary folder for good; a started one removes itself.
    if (!m_isSuicide && !m_suicideToolPath.isEmpty())
        QFile::remove(m_suicideToolPath);
}

void Installer::initStandardLocations()
{
    const QStringList startMenu = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    if (startMenu.isEmpty()) {
        qCCritical(lcCorbeth) << "Failed to retrieve Start Menu Programs Path.";
    } else {
        m_startMenuPrograms = startMenu.first();
        qCDebug(lcCorbeth) << "Start Menu Programs Path:" << m_startMenuPrograms;
    }

    // The parent of the application's own data folder, whether or not either
    // exists yet (QDir::cdUp() would refuse a parent that does not exist).
    m_appDataPath = QDir::cleanPath(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)
                                    + QLatin1String("/.."));
    qCDebug(lcCorbeth) << "AppDataLocation" << m_appDataPath;

    const QStringList desktop = QStandardPaths::standardLocations(QStandardPaths::DesktopLocation);
    if (desktop.isEmpty()) {
        qCCritical(lcCorbeth) << "Failed to retrieve DesktopLocation Menu Programs Path.";
    } else {
        m_desktop = desktop.first();
        // Prints the start menu folder, as this line always has.
        qCDebug(lcCorbeth) << "DesktopLocation Menu Programs Path:" << m_startMenuPrograms;
    }
}

InstallInfoSet Installer::currentSet() const
{
    return {m_installInfo, m_uninstallInfo, m_updateInfo, m_updatePatchInfo};
}

void Installer::setCurrentSet(const InstallInfoSet &set)
{
    m_installInfo = set.install;
    m_uninstallInfo = set.uninstall;
    m_updateInfo = set.update;
    m_updatePatchInfo = set.updatePatch;
}

void Installer::onConfigDataChanged()
{
    qCDebug(lcCorbeth) << "config changed";
    const QVariantMap document = PtrManager::instance()->configer()->configData();
    qCInfo(lcCorbeth) << "init installinfo";
    m_parsedSet = parseInstallInfoSet(document);

    const auto clearProcess = document.constFind(QStringLiteral("clearProcess"));
    if (clearProcess != document.cend()) {
        qCInfo(lcCorbeth) << "init clearProcess";
        m_clearProcess = toStringList(*clearProcess, clearProcess.key());
    }

    const auto customTag = document.constFind(QStringLiteral("customTag"));
    if (customTag != document.cend()) {
        if (!parseCustomTag(toList(*customTag, customTag.key())))
            qCCritical(lcCorbeth) << "customtag fail";
    }

    const auto additions = document.constFind(QStringLiteral("additions"));
    if (additions != document.cend()) {
        if (!parseAdditions(toMap(*additions, additions.key())))
            qCCritical(lcCorbeth) << "customtag fail";
    }

    setInstallPath(expandPath(m_parsedSet.install->olderSoftwareInfo.olderInstallPath));
    m_forceInstall = m_parsedSet.install->forceInstall;
    setCurrentSet(m_parsedSet);
    // The additions applied before belonged to the replaced set.
    m_currentAdditions.clear();
    qCInfo(lcCorbeth) << "init installer success";
}

InstallInfoSet Installer::parseInstallInfoSet(const QVariantMap &document)
{
    auto section = [&document](const char *key) {
        const QString name = QLatin1String(key);
        return toMap(document.value(name), name);
    };
    InstallInfoSet set;
    set.install = parseInstallInfo(section("install"));
    qCDebug(lcCorbeth) << "install info by map";
    set.uninstall = parseInstallInfo(section("uninstall"));
    set.update = parseInstallInfo(section("update"));
    set.updatePatch = parseInstallInfo(section("updatePatch"));
    return set;
}

InstallInfoPtr Installer::parseInstallInfo(const QVariantMap &section)
{
    auto info = InstallInfoPtr::create();
    if (section.isEmpty())
        return info;

    auto item = [&section](const char *key, const char *failure, auto parse) {
        const auto it = section.constFind(QLatin1String(key));
        if (it != section.cend() && !parse(*it))
            qCWarning(lcCorbeth) << failure;
    };
    item("coverFiles", "cutfiles error", [&info](const QVariant &v) { return parseCoverFiles(v, info->coverFiles); });
    item("checkDrivers", "check driver erorr",
         [&info](const QVariant &v) { return parseDrivers(v, info->checkDrivers); });
    item("process", "process driver erorr", [&info](const QVariant &v) { return parseProcess(v, info->process); });
    item("settings", "settings  erorr", [&info](const QVariant &v) { return parseSettings(v, info->settings); });
    item("links", "links  erorr", [&info](const QVariant &v) { return parseLinks(v, info->links); });
    item("olderSoftwareInfo", "olderSoftwareInfo  erorr",
         [&info](const QVariant &v) { return parseOlderSoftware(v, info->olderSoftwareInfo); });

    auto stringList = [&section](const char *key, QStringList &out) {
        out = toStringList(section.value(QLatin1String(key)), QLatin1String(key));
    };
    stringList("removeFiles", info->removeFiles);
    stringList("removeSettings", info->removeSettings);
    if (section.contains(QStringLiteral("whiteList"))) {
        qCDebug(lcCorbeth) << "contains whitelist";
        stringList("whiteList", info->whiteList);
    }
    info->forceInstall = toBool(section.value(QStringLiteral("forceInstall")), QStringLiteral("forceInstall"));
    return info;
}

bool Installer::parseCoverFiles(const QVariant &value, QList<CoverFileInfo> &out)
{
    return forEachObject(value, QStringLiteral("coverFiles"), [&out](const QVariantMap &item) {
        CoverFileInfo cover;
        cover.pair.first = toString(item.value(QStringLiteral("src")), QStringLiteral("src"));
        cover.pair.second = toString(item.value(QStringLiteral("dest")), QStringLiteral("dest"));
        if (!parseErrorLevel(item, cover.level))
            return false;
        out.append(cover);
        return true;
    });
}

bool Installer::parseDrivers(const QVariant &value, QList<CBEnum::DriverType> &out)
{
    const QStringList words = toStringList(value, QStringLiteral("checkDrivers"));
    for (const QString &word : words) {
        CBEnum::DriverType type;
        if (!Configer::strToDriverType(word, type)) {
            qCWarning(lcCorbeth) << "str to emun error" << word;
            return false;
        }
        out.append(type);
    }
    return true;
}

bool Installer::parseProcess(const QVariant &value, QList<ProcessHelper> &out)
{
    return forEachObject(value, QStringLiteral("process"), [&out](const QVariantMap &item) {
        ProcessHelper process;
        process.program = toString(item.value(QStringLiteral("path")), QStringLiteral("path"));
        process.args = toStringList(item.value(QStringLiteral("arg")), QStringLiteral("arg"));
        const auto readInt = [&item](const char *key, int &field) {
            if (toInt(item.value(QLatin1String(key)), QLatin1String(key), field))
                return true;
            qCWarning(lcCorbeth) << "configdata error" << item;
            return false;
        };
        if (!readInt("waitTime", process.waitTime) || !readInt("runingTimeout", process.runingTimeout))
            return false;
        if (!parseErrorLevel(item, process.level))
            return false;
        if (item.contains(QStringLiteral("extraProcess"))) {
            const QStringList words
                = toStringList(item.value(QStringLiteral("extraProcess")), QStringLiteral("extraProcess"));
            bool valid = true;
            for (const QString &word : qAsConst(words)) {
                ExtraProcess extra;
                valid = valid && Configer::strToExtraProcess(word, extra);
                if (valid)
                    process.extraProcess.append(extra);
            }
            if (!valid) {
                qCCritical(lcCorbeth) << "extraProcess config fail" << item;
                return false;
            }
        }
        out.append(process);
        return true;
    });
}

bool Installer::parseErrorLevel(const QVariantMap &item, ErrorLevel &level)
{
    const auto it = item.constFind(QStringLiteral("errorLevel"));
    if (it == item.cend())
        return true;
    ErrorLevel parsed;
    if (!Configer::strToErrorLevel(toString(*it, it.key()), parsed)) {
        qCCritical(lcCorbeth) << "error level config fail" << item;
        return false;
    }
    level = parsed;
    return true;
}

bool Installer::parseSettings(const QVariant &value, QList<SettingInfo> &out)
{
    const QVariantMap settings = toMap(value, QStringLiteral("settings"));
    for (auto it = settings.cbegin(); it != settings.cend(); ++it)
        out.append({it.key(), toMap(it.value(), it.key())});
    return true;
}

bool Installer::parseLinks(const QVariant &value, QList<LinkInfo> &out)
{
    return forEachObject(value, QStringLiteral("links"), [&out](const QVariantMap &item) {
        out.append({toString(item.value(QStringLiteral("src")), QStringLiteral("src")),
                    toString(item.value(QStringLiteral("dest")), QStringLiteral("dest")),
                    toString(item.value(QStringLiteral("icon")), QStringLiteral("icon"))});
        return true;
    });
}

bool Installer::parseOlderSoftware(const QVariant &value, OlderSoftwareInfo &out)
{
    const QVariantMap older = toMap(value, QStringLiteral("olderSoftwareInfo"));
    const QVariantMap locator
        = toMap(older.value(QStringLiteral("getOlderInstallPath")), QStringLiteral("getOlderInstallPath"));
    OlderSoftwareInfo parsed;
    parsed.settingPath = toString(locator.value(QStringLiteral("settingPath")), QStringLiteral("settingPath"));
    parsed.key = toString(locator.value(QStringLiteral("key")), QStringLiteral("key"));
    if (parsed.settingPath.isEmpty() || parsed.key.isEmpty()) {
        qCWarning(lcCorbeth) << "settingPath or empty" << locator;
        return true;
    }
    parsed.olderInstallPath = SKGlobal::instance()->settingValue(parsed.settingPath, parsed.key).toString();
    parsed.removeSettings = toStringList(older.value(QStringLiteral("removeSettings")), QStringLiteral("removeSettings"));
    parsed.removeFiles = toStringList(older.value(QStringLiteral("removeFiles")), QStringLiteral("removeFiles"));
    if (!parseProcess(older.value(QStringLiteral("process")), parsed.process)) {
        qCWarning(lcCorbeth) << "process error" << older;
        return false;
    }
    qCDebug(lcCorbeth) << "OLD oldInstallPath" << parsed.olderInstallPath;
    out = parsed;
    return true;
}

QVector<QPair<QString, QString>> Installer::pathVariables() const
{
    // Fixed order: a value holding a later placeholder is expanded further, one
    // holding an earlier placeholder is not.
    QVector<QPair<QString, QString>> variables = {
        {QStringLiteral("${olderInstallPath}"), olderSoftwarePath()},
        {QStringLiteral("${installPath}"), m_installPath},
        {QStringLiteral("${installPackagePath}"), QFileInfo(m_packagePath).absolutePath()},
        {QStringLiteral("${startMenuPrograms}"), m_startMenuPrograms},
        {QStringLiteral("${desktop}"), m_desktop},
        {QStringLiteral("${TolmInstallerPath}"), QCoreApplication::applicationDirPath()},
        {QStringLiteral("${appDataPath}"), m_appDataPath},
        {QStringLiteral("${packageVersion}"), m_packageVersion},
    };
    for (auto it = m_customTags.cbegin(); it != m_customTags.cend(); ++it)
        variables.append({QLatin1String("${") + it.key() + QLatin1Char('}'), it.value()});
    return variables;
}

QString Installer::expandPath(const QString &path) const
{
    if (!path.contains(QLatin1String("${")))
        return path;
    QString expanded = path;
    for (const auto &variable : pathVariables())
        expanded.replace(variable.first, variable.second);
    return expanded;
}

QString Installer::expandCommand(const QString &command) const
{
    // Word by word, as splitArguments() reads the line back; a word the
    // configuration quoted itself is left as written.
    static const QRegularExpression words(QStringLiteral("[^ \\t]+"));
    QString expanded = command;
    int shift = 0;
    for (auto it = words.globalMatch(command); it.hasNext();) {
        const QRegularExpressionMatch word = it.next();
        QString value = expandPath(word.captured());
        if (!word.captured().contains(QLatin1Char('"')) && (value.contains(QLatin1Char(' ')) || value.contains(QLatin1Char('\t'))))
            value = QLatin1Char('"') + value + QLatin1Char('"');
        expanded.replace(word.capturedStart() + shift, word.capturedLength(), value);
        shift += value.size() - word.capturedLength();
    }
    return expanded;
}

bool Installer::hasEmptyVariable(const QString &path) const
{
    if (!path.contains(QLatin1String("${")))
        return false;
    for (const auto &variable : pathVariables()) {
        if (variable.second.isEmpty() && path.contains(variable.first))
            return true;
    }
    return false;
}

bool Installer::parseCustomTag(const QList<QVariant> &tags)
{
    for (const QVariant &tag : tags) {
        const QVariantMap map = toMap(tag, QStringLiteral("customTag"));
        const QString name = toString(map.value(QStringLiteral("name")), QStringLiteral("name"));
        if (name.isEmpty()) {
            qCCritical(lcCorbeth) << "not contain name" << Q_FUNC_INFO;
            return false;
        }
        const QVariantMap source = toMap(map.value(QStringLiteral("value")), QStringLiteral("value"));
        const QString settingPath = toString(source.value(QStringLiteral("settingPath")), QStringLiteral("settingPath"));
        const QString key = toString(source.value(QStringLiteral("key")), QStringLiteral("key"));
        QString value;
        if (!settingPath.isEmpty() && !key.isEmpty())
            value = SKGlobal::instance()->settingValue(settingPath, key).toString();
        qCDebug(lcCorbeth) << "customTag" << name << value;
        m_customTags.insert(name, value);
    }
    qCDebug(lcCorbeth) << "custom tag load success";
    return true;
}

bool Installer::parseAdditions(const QVariantMap &additions)
{
    // Names are only ever added: a name read before is refused, and nothing of
    // this call is kept then.
    QMap<QString, InstallInfoSet> all = m_additions;
    for (auto it = additions.cbegin(); it != additions.cend(); ++it) {
        if (all.contains(it.key())) {
            qCCritical(lcCorbeth) << "addition repetition key:" << it.key();
            return false;
        }
        // One malformed addition is an empty one; its neighbours are kept.
        all.insert(it.key(), parseInstallInfoSet(toMap(it.value(), it.key())));
    }
    m_additions = all;
    return true;
}

InstallInfoSet Installer::mergeInstallInfoSets(const QList<InstallInfoSet> &additions, const InstallInfoSet &base)
{
    auto merge = [&additions](InstallInfoPtr InstallInfoSet::*operation, const InstallInfoSet &baseSet) {
        QList<InstallInfoPtr> parts;
        for (const InstallInfoSet &addition : additions)
            parts.append(addition.*operation);
        return mergeInstallInfos(parts, baseSet.*operation);
    };
    return {merge(&InstallInfoSet::install, base), merge(&InstallInfoSet::uninstall, base),
            merge(&InstallInfoSet::update, base), merge(&InstallInfoSet::updatePatch, base)};
}

bool Installer::setCurrentAddtions(const QStringList &names)
{
    if (names.isEmpty() || names == m_currentAdditions)
        return true;
    QList<InstallInfoSet> sets;
    for (const QString &name : names) {
        const auto it = m_additions.constFind(name);
        if (it == m_additions.cend()) {
            qCCritical(lcCorbeth) << "total additions not contain ::;" << name << "total:" << m_additions.keys();
            return false;
        }
        sets.append(*it);
    }
    // Built on the current set, so additions accumulate until the next load.
    setCurrentSet(mergeInstallInfoSets(sets, currentSet()));
    m_currentAdditions = names;
    qCInfo(lcCorbeth) << "set additions success" << names;
    qCInfo(lcCorbeth) << "install changed" << *m_installInfo;
    qCInfo(lcCorbeth) << "unisntall changed" << *m_uninstallInfo;
    qCInfo(lcCorbeth) << "update changed" << *m_updateInfo;
    qCInfo(lcCorbeth) << "updatepatch changed" << *m_updatePatchInfo;
    return true;
}

void Installer::setInstallPath(const QString &path)
{
    qCDebug(lcCorbeth) << "set installllllllllllpath" << path;
    if (path == m_installPath)
        return;
    m_installPath = path;
    emit installPathChanged();
}

void Installer::setOlderInstallPath(const QString &path)
{
    // Before any configuration there is no install description to hold it yet.
    if (!m_installInfo)
        m_installInfo = InstallInfoPtr::create();
    if (path == m_installInfo->olderSoftwareInfo.olderInstallPath)
        return;
    qCDebug(lcCorbeth) << "older soft path changed" << path;
    m_installInfo->olderSoftwareInfo.olderInstallPath = path;
}

QString Installer::olderSoftwarePath() const
{
    return m_installInfo ? m_installInfo->olderSoftwareInfo.olderInstallPath : QString();
}

} // namespace Corbeth
