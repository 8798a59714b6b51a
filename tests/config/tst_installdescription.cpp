#include "logcapture.h"
#include "testmain.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QScopedPointer>

using namespace Corbeth;

namespace {

QVariantMap json(const char *text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(text), &error);
    if (error.error != QJsonParseError::NoError)
        qFatal("bad test document: %s", qPrintable(error.errorString()));
    return document.object().toVariantMap();
}

const QString productKey = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Product");

} // namespace

class tst_InstallDescription : public QObject
{
    Q_OBJECT
    QScopedPointer<SettingsSandbox> m_settings;

    Installer *load(const QVariantMap &document)
    {
        PtrManager::instance()->configer()->setConfigData(document);
        return PtrManager::instance()->installer().data();
    }
    Installer *load(const char *document) { return load(json(document)); }

private slots:
    void init() { m_settings.reset(new SettingsSandbox); }
    void cleanup()
    {
        PtrManager::destroyInstance();
        m_settings.reset();
    }

    // Entries before the bad one stay, later ones are dropped, and the section
    // goes on with the keys after "process".
    void processListStopsAtTheBadEntry_data()
    {
        QTest::addColumn<QByteArray>("bad");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("no waitTime") << QByteArray(R"({"path": "b", "runingTimeout": 5})")
                                     << QStringLiteral("configdata error");
        QTest::newRow("not an object") << QByteArray("7") << QStringLiteral("configdata error");
        QTest::newRow("unknown level") << QByteArray(R"({"waitTime": 1, "runingTimeout": 5, "errorLevel": "loud"})")
                                       << QStringLiteral("error level config fail");
        QTest::newRow("unknown extra") << QByteArray(R"({"waitTime": 1, "runingTimeout": 5, "extraProcess": ["reboot"]})")
                                       << QStringLiteral("extraProcess config fail");
        QTest::newRow("extra not a list")
            << QByteArray(R"({"waitTime": 1, "runingTimeout": 5, "extraProcess": "checkDriver"})")
            << QStringLiteral("extraProcess config fail");
    }
    void processListStopsAtTheBadEntry()
    {
        QFETCH(QByteArray, bad);
        QFETCH(QString, logLine);
        const QByteArray document = R"({"install": {"process": [
            {"path": "a.exe", "waitTime": 2, "runingTimeout": 30, "extraProcess": ["checkDriver"]},)" + bad + R"(,
            {"path": "c.exe", "waitTime": 0, "runingTimeout": -1}],
            "settings": {"HKEY_CURRENT_USER\\SOFTWARE\\A": {"v": 1}}}})";
        LogCapture log;
        const InstallInfoPtr info = load(document.constData())->installInfo();
        QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
        QVERIFY(log.indexOf(logLine) < log.indexOf(QStringLiteral("process driver erorr")));
        QCOMPARE(info->process.size(), 1);
        QCOMPARE(info->process.first().program, QStringLiteral("a.exe"));
        QCOMPARE(info->settings.size(), 1);
    }

    void wordsStopTheirListAtTheFirstUnknownOne()
    {
        LogCapture log;
        const InstallInfoPtr info = load(R"({"install": {
            "checkDrivers": ["vimba", "nonsense", "turntable"],
            "coverFiles": [{"src": "a", "dest": "b"}, {"src": "c", "dest": "d", "errorLevel": "Warn"},
                           {"src": "e", "dest": "f", "errorLevel": "WARN"}, {"src": "g", "dest": "h"}]}})")
                                        ->installInfo();
        QCOMPARE(info->checkDrivers, QList<CBEnum::DriverType>{CBEnum::DT_Vimba});
        QVERIFY(log.contains(QStringLiteral("str to emun error"), QtWarningMsg));
        QVERIFY(log.contains(QStringLiteral("check driver erorr"), QtWarningMsg));
        QCOMPARE(info->coverFiles.size(), 2);
        QCOMPARE(info->coverFiles.at(0).level, EL_Critical);
        QCOMPARE(info->coverFiles.at(1).level, EL_Warn);
        QVERIFY(log.contains(QStringLiteral("error level config fail"), QtCriticalMsg));
        QVERIFY(log.contains(QStringLiteral("cutfiles error"), QtWarningMsg));
    }

    // A value of the wrong JSON type is logged with the text of the part that
    // reads it, and the load still completes.
    void wrongTypesAreLoggedAndSkipped_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("links string") << QByteArray(R"({"install": {"links": "x"}})") << QStringLiteral("links  erorr");
        QTest::newRow("settings array") << QByteArray(R"({"install": {"settings": []}})")
                                        << QStringLiteral("settings  erorr");
        QTest::newRow("coverFiles object") << QByteArray(R"({"install": {"coverFiles": {}}})")
                                           << QStringLiteral("cutfiles error");
        QTest::newRow("drivers string") << QByteArray(R"({"install": {"checkDrivers": "vimba"}})")
                                        << QStringLiteral("check driver erorr");
        QTest::newRow("removeFiles string") << QByteArray(R"({"install": {"removeFiles": "a"}})")
                                            << QStringLiteral("configdata error");
        QTest::newRow("forceInstall string") << QByteArray(R"({"install": {"forceInstall": "yes"}})")
                                             << QStringLiteral("configdata error");
        QTest::newRow("install array") << QByteArray(R"({"install": []})") << QStringLiteral("configdata error");
        QTest::newRow("customTag object") << QByteArray(R"({"customTag": {}})") << QStringLiteral("customtag fail");
        QTest::newRow("addition number") << QByteArray(R"({"additions": {"x": 1}})") << QStringLiteral("customtag fail");
    }
    void wrongTypesAreLoggedAndSkipped()
    {
        QFETCH(QByteArray, document);
        QFETCH(QString, logLine);
        LogCapture log;
        Installer *installer = load(document.constData());
        QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
        QVERIFY(log.contains(QStringLiteral("init installer success")));
        const InstallInfoPtr info = installer->installInfo();
        QVERIFY(info);
        QVERIFY(info->links.isEmpty() && info->settings.isEmpty() && info->removeFiles.isEmpty());
        QVERIFY(!info->forceInstall);
        QVERIFY(installer->updateInfo() && installer->updateInfo()->coverFiles.isEmpty());
    }

    void clearProcessKeepsItsValueWhenAbsentOrBroken()
    {
        Installer *installer = load(R"({"clearProcess": ["a.exe"]})");
        load(R"({"clearProcess": 5, "install": {}})");
        QCOMPARE(installer->clearProcessList(), QStringList{QStringLiteral("a.exe")});
        load(R"({"install": {"forceInstall": true}})");
        QCOMPARE(installer->clearProcessList(), QStringList{QStringLiteral("a.exe")});
        QVERIFY(installer->forceInstall());
    }

    void olderInstallationFromTheSettingsStore_data()
    {
        QTest::addColumn<QByteArray>("older");
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("expected");
        QTest::newRow("found") << QByteArray(R"({"getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Product", "key": "installPath"}, "removeFiles": ["${olderInstallPath}/cache"]})")
                               << QStringLiteral("/opt/product") << QStringLiteral("/opt/product");
        QTest::newRow("no locator") << QByteArray(R"({"removeFiles": ["x"]})") << QStringLiteral("/opt/product")
                                    << QString();
    }
    void olderInstallationFromTheSettingsStore()
    {
        QFETCH(QByteArray, older);
        QFETCH(QString, stored);
        QFETCH(QString, expected);
        if (!stored.isEmpty())
            SKGlobal::instance()->setSettingValue(productKey, QStringLiteral("installPath"), stored);
        LogCapture log;
        Installer *installer = load((R"({"install": {"olderSoftwareInfo": )" + older + "}}").constData());
        QCOMPARE(installer->olderSoftwarePath(), expected);
        QCOMPARE(installer->installPath(), expected);
        const bool located = older.contains("getOlderInstallPath");
        QCOMPARE(log.contains(QStringLiteral("settingPath or empty")), !located);
        QCOMPARE(log.contains(QStringLiteral("OLD oldInstallPath")), located);
    }

    void expansion_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("install path") << QStringLiteral("${installPath}/bin") << QStringLiteral("/App/bin");
        QTest::newRow("no placeholder") << QStringLiteral("$installPath/bin") << QStringLiteral("$installPath/bin");
        QTest::newRow("unknown stays") << QStringLiteral("${nothing}/${installPath}")
                                       << QStringLiteral("${nothing}//App");
        QTest::newRow("fixed wins over a tag") << QStringLiteral("${installPath}") << QStringLiteral("/App");
        QTest::newRow("tag holding a later tag") << QStringLiteral("${a}") << QStringLiteral("B/x");
        QTest::newRow("tag holding an earlier tag") << QStringLiteral("${z}") << QStringLiteral("${b}");
        QTest::newRow("program folder") << QStringLiteral("${TolmInstallerPath}/plugins")
                                        << QCoreApplication::applicationDirPath() + QStringLiteral("/plugins");
        QTest::newRow("package folder") << QStringLiteral("${installPackagePath}") << QStringLiteral("/downloads");
    }
    void expansion()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        SKGlobal *store = SKGlobal::instance();
        const QString tags = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Tags");
        store->setSettingValue(tags, QStringLiteral("a"), QStringLiteral("${b}/x"));
        store->setSettingValue(tags, QStringLiteral("b"), QStringLiteral("B"));
        store->setSettingValue(tags, QStringLiteral("z"), QStringLiteral("${b}"));
        store->setSettingValue(tags, QStringLiteral("installPath"), QStringLiteral("/Tag"));
        store->setSettingValue(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"),
                               QStringLiteral("path"), QStringLiteral("/downloads/product.tolmpkg"));
        Installer *installer = load(R"({"customTag": [
            {"name": "a", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "a"}},
            {"name": "b", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "b"}},
            {"name": "z", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "z"}},
            {"name": "installPath", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "installPath"}}]})");
        installer->setInstallPath(QStringLiteral("/App"));
        QCOMPARE(installer->expandPath(text), expected);
    }

    void customTagWithoutNameStopsTheList()
    {
        LogCapture log;
        Installer *installer = load(R"({"customTag": [{"name": "first"}, {"name": "first", "value": {}},
            {"value": {"settingPath": "HKLM\\A", "key": "k"}}, {"name": "never"}]})");
        QCOMPARE(installer->customTags().keys(), QStringList{QStringLiteral("first")});
        QVERIFY(log.contains(QStringLiteral("not contain name"), QtCriticalMsg));
        QVERIFY(log.contains(QStringLiteral("customtag fail"), QtCriticalMsg));
    }

    void additionsAreAddedOnceAndSwitchedOnByName()
    {
        Installer *installer = load(R"({
            "install": {"removeFiles": ["base"], "settings": {"HKLM\\P": {"a": "base", "b": "base"}},
                        "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKLM\\Old", "key": "k"}}},
            "additions": {
                "one": {"install": {"removeFiles": ["one", "base"], "settings": {"HKLM\\P": {"b": "one", "c": "one"}},
                                    "forceInstall": true}},
                "two": {"install": {"removeFiles": ["two"],
                                    "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKLM\\Two", "key": "k"}}},
                        "uninstall": {"whiteList": ["keep"]}}}})");
        const InstallInfoPtr parsed = installer->installInfo();

        LogCapture log;
        QVERIFY(!installer->setCurrentAddtions({QStringLiteral("one"), QStringLiteral("three")}));
        QVERIFY(log.contains(QStringLiteral("total additions not contain ::;"), QtCriticalMsg));
        QCOMPARE(installer->installInfo(), parsed);

        QVERIFY(installer->setCurrentAddtions({QStringLiteral("one"), QStringLiteral("two")}));
        const InstallInfoPtr merged = installer->installInfo();
        QCOMPARE(merged->removeFiles,
                 (QStringList{QStringLiteral("one"), QStringLiteral("base"), QStringLiteral("two")}));
        QCOMPARE(merged->settings.size(), 1);
        QCOMPARE(merged->settings.first().key,
                 (QVariantMap{{QStringLiteral("a"), QStringLiteral("base")}, {QStringLiteral("b"), QStringLiteral("base")},
                              {QStringLiteral("c"), QStringLiteral("one")}}));
        QCOMPARE(merged->olderSoftwareInfo.settingPath, QStringLiteral("HKLM\\Two"));
        QVERIFY(merged->forceInstall);
        QCOMPARE(installer->uninstallInfo()->whiteList, QStringList{QStringLiteral("keep")});
        QCOMPARE(parsed->removeFiles, QStringList{QStringLiteral("base")}); // the parsed set is untouched
        QVERIFY(log.indexOf(QStringLiteral("set additions success")) < log.indexOf(QStringLiteral("install changed")));
        QVERIFY(log.indexOf(QStringLiteral("update changed")) < log.indexOf(QStringLiteral("updatepatch changed")));

        log.clear();
        QVERIFY(installer->setCurrentAddtions({QStringLiteral("one"), QStringLiteral("two")}));
        QVERIFY(installer->setCurrentAddtions({}));
        QCOMPARE(installer->installInfo(), merged);
        QVERIFY(!log.contains(QStringLiteral("set additions success")));

        // A reload starts again from the parsed set, and names read before are refused.
        load(R"({"install": {"removeFiles": ["reloaded"]}, "additions": {"two": {}, "four": {}}})");
        QVERIFY(log.contains(QStringLiteral("addition repetition key:"), QtCriticalMsg));
        QCOMPARE(installer->installInfo()->removeFiles, QStringList{QStringLiteral("reloaded")});
        QVERIFY(installer->setCurrentAddtions({QStringLiteral("two")}));
        QCOMPARE(installer->installInfo()->removeFiles, (QStringList{QStringLiteral("two"), QStringLiteral("reloaded")}));
        QVERIFY(!installer->setCurrentAddtions({QStringLiteral("four")}));
    }

};

CORBETH_TEST_MAIN(tst_InstallDescription)
#include "tst_installdescription.moc"
