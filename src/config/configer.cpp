#include "config/configer.h"

#include "installer/installer.h"
#include "logging_p.h"
#include "manager/ptrmanager.h"
#include "platform/skglobal.h"
#include "plugins/pluginhelper.h"

#include <QtCore/QJsonObject>
#include <QtCore/QMetaEnum>

namespace Corbeth {

namespace {

// The prefix is taken from the key of value 0 ("EL_Warn" -> "EL_"), so the
// word "critical" finds "EL_Critical". A full key gets the prefix twice and
// is refused; that keeps the configuration's vocabulary one spelling wide.
bool strToEnum(const QMetaEnum &metaEnum, const QString &name, int &out)
{
    if (name.isEmpty()) {
        out = metaEnum.value(0);
        return true;
    }
    const QString firstKey = QLatin1String(metaEnum.key(0));
    const QString prefix = firstKey.left(firstKey.indexOf(QLatin1Char('_')) + 1);
    QString word = name;
    word[0] = word.at(0).toUpper();
    bool found = false;
    out = metaEnum.keyToValue((prefix + word).toLatin1().constData(), &found);
    return found;
}

// A refused word leaves out as it was: -1 is no value of these enumerations,
// and storing it in one is undefined.
template<typename Enum>
bool convert(const QMetaEnum &metaEnum, const QString &name, Enum &out)
{
    int value = -1;
    const bool found = strToEnum(metaEnum, name, value);
    if (found)
        out = static_cast<Enum>(value);
    return found;
}

} // namespace

Configer::Configer(QObject *parent)
    : QObject(parent)
    , m_version(QStringLiteral("1.0.0"))
{
}

Configer::~Configer() = default;

CBEnum::ErrorCode Configer::setConfigPath(const QString &path)
{
    qCDebug(lcCorbeth) << "set config path" << path;
    QVariantMap map;
    if (!SKGlobal::instance()->readJsonMap(path, map)) {
        qCDebug(lcCorbeth) << "readdddddddd file faillllllllll" << path;
        return CBEnum::EC_FileNotOpen;
    }
    return setConfigData(map);
}

CBEnum::ErrorCode Configer::setConfigData(const QVariantMap &data)
{
    if (data.isEmpty()) {
        qCCritical(lcCorbeth) << "configdata is empty";
        return CBEnum::EC_ConfigDataError;
    }
    if (data == m_configData) {
        qCDebug(lcCorbeth) << "configdata is same";
        return CBEnum::EC_NoError;
    }
    m_configData = data;
    qCInfo(lcCorbeth) << "configdata" << QJsonObject::fromVariantMap(data);

    // The lookups go through the inserting operator on purpose: the keys they
    // add make the next "same" test see a document without these sections as
    // changed, so sending it again reloads it.
    m_velmiraInfo = m_configData[QStringLiteral("velmira")].toMap();
    m_tolmInstallerModuleInfo = m_configData[QStringLiteral("tolmInstallerModuleInfo")].toMap();
    const bool extraE = m_configData.contains(QStringLiteral("downloadModueleInfo"));
    m_downloadModuleInfo = m_configData[QStringLiteral("downloadModueleInfo")].toMap();
    if (!extraE)
        m_downloadModuleInfo = m_configData[QStringLiteral("downloadModuleInfo")].toMap();

    emit configDataChanged();

    if (!m_configData.contains(QStringLiteral("plugin")))
        return CBEnum::EC_NoError;
    const QString loadPath = data.value(QStringLiteral("plugin")).toMap().value(QStringLiteral("loadPath")).toString();
    PtrManager *workers = PtrManager::instance();
    return workers->pluginHelper()->initPluginLoader(workers->installer()->expandPath(loadPath));
}

QVariantMap Configer::moduleServiceConfig() const
{
    QVariantMap config = m_velmiraInfo;
    config.insert(QStringLiteral("moduleInfo"), m_downloadModuleInfo);
    return config;
}

bool Configer::strToDriverType(const QString &name, CBEnum::DriverType &out)
{
    return convert(QMetaEnum::fromType<CBEnum::DriverType>(), name, out);
}

bool Configer::strToErrorLevel(const QString &name, ErrorLevel &out)
{
    return convert(QMetaEnum::fromType<ErrorLevel>(), name, out);
}

bool Configer::strToExtraProcess(const QString &name, ExtraProcess &out)
{
    return convert(QMetaEnum::fromType<ExtraProcess>(), name, out);
}

} // namespace Corbeth
