// Loads the product example shipped in examples/product and checks that the
// engine reads it as docs/configuration.md describes.
#include "logcapture.h"
#include "testmain.h"
#include "testplatform.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"
#include "platform/skglobal.h"

#include <QtCore/QTemporaryDir>

using namespace Corbeth;

class tst_ExampleConfig : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // An older ScanStudio recorded where it lives; the shared data folder
        // is a custom tag read from the store.
        SKGlobal *store = SKGlobal::instance();
        store->setSettingValue(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\ScanStudio"),
                               QStringLiteral("installPath"), m_dir.filePath(QStringLiteral("ScanStudio")));
        store->setSettingValue(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Shared"),
                               QStringLiteral("dataPath"), m_dir.filePath(QStringLiteral("Shared")));
        LogCapture log;
        const CBEnum::ErrorCode loaded = PtrManager::instance()->configer()->setConfigPath(QStringLiteral(CORBETH_EXAMPLE_CONFIG));
        CORBETH_SKIP_IF_PLUGINS_REFUSED(loaded, log);
        QCOMPARE(loaded, CBEnum::EC_NoError);
        const char *const faults[] = {"erorr", "cutfiles error", "configdata error", "config fail",
                                      "customtag fail", "settingPath or empty", "plugin dir not exist",
                                      "configdata converted", "configdata clamped"};
        for (const char *fault : faults)
            QVERIFY2(!log.contains(QLatin1String(fault)), qPrintable(log.dump()));
    }
    void cleanupTestCase() { PtrManager::destroyInstance(); }

    // What the example shows is read as shown: the older version's folder as
    // the install path, a custom tag, a driver setup checked, the uninstall
    // command, and both additions merged over the base description.
    void installDescription()
    {
        Installer *installer = PtrManager::instance()->installer().data();
        QCOMPARE(installer->installPath(), m_dir.filePath(QStringLiteral("ScanStudio")));
        QCOMPARE(installer->expandPath(QStringLiteral("${sharedDataPath}")), m_dir.filePath(QStringLiteral("Shared")));
        QVERIFY(!PtrManager::instance()->configer()->moduleServiceConfig().value(QStringLiteral("moduleInfo")).toMap().isEmpty());
        InstallInfoPtr install = installer->installInfo();
        QCOMPARE(install->process.first().extraProcess, QList<ExtraProcess>{EP_CheckDriver});
        QCOMPARE(install->settings.at(1).key.value(QStringLiteral("UninstallString")).toString(),
                 QStringLiteral("${installPath}/uninstall/Uninstall.exe"));
        QCOMPARE(install->olderSoftwareInfo.process.first().extraProcess, QList<ExtraProcess>{EP_WaitExecOlderUninstall});

        QVERIFY(installer->setCurrentAddtions({QStringLiteral("colorCamera"), QStringLiteral("samples")}));
        install = installer->installInfo();
        QCOMPARE(install->checkDrivers,
                 (QList<CBEnum::DriverType>{CBEnum::DT_Vimba, CBEnum::DT_3W, CBEnum::DT_Turntable}));
        QCOMPARE(install->settings.first().key.value(QStringLiteral("colorCamera")).toString(), QStringLiteral("enabled"));
        QCOMPARE(installer->uninstallInfo()->whiteList.size(), 3);
    }
};

CORBETH_TEST_MAIN(tst_ExampleConfig)
#include "tst_exampleconfig.moc"
