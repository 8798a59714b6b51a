#ifndef CORBETH_CONFIGER_H
#define CORBETH_CONFIGER_H

#include <corbeth/cbenum.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace Corbeth {

// Holds the engine's one configuration document, cuts out the module service's
// sections, hands the plug-in folder on and announces every real change with
// configDataChanged(). The install description is parsed by the Installer when
// it hears that signal. The store never writes the document back.
class Configer : public QObject
{
    Q_OBJECT
public:
    explicit Configer(QObject *parent = nullptr);
    ~Configer() override;

    CBEnum::ErrorCode setConfigPath(const QString &path);
    CBEnum::ErrorCode setConfigData(const QVariantMap &data);

    QVariantMap configData() const { return m_configData; }
    QVariantMap velmiraInfo() const { return m_velmiraInfo; }
    QVariantMap tolmInstallerModuleInfo() const { return m_tolmInstallerModuleInfo; }
    QVariantMap downloadModuleInfo() const { return m_downloadModuleInfo; }
    QString version() const { return m_version; }

    // What the module service is configured with: the "velmira" section with
    // "moduleInfo" set to the download module section.
    QVariantMap moduleServiceConfig() const;

    // Configuration words name enumeration keys without their prefix, first
    // letter in either case ("critical" -> EL_Critical). An empty word gives the
    // enumeration's first key.
    static bool strToDriverType(const QString &name, CBEnum::DriverType &out);
    static bool strToErrorLevel(const QString &name, ErrorLevel &out);
    static bool strToExtraProcess(const QString &name, ExtraProcess &out);

signals:
    void configDataChanged();

private:
    QVariantMap m_configData;
    QVariantMap m_velmiraInfo;
    QVariantMap m_tolmInstallerModuleInfo;
    QVariantMap m_downloadModuleInfo;
    QString m_version;
};

} // namespace Corbeth

#endif // CORBETH_CONFIGER_H
