#include "logcapture.h"
#include "testfiles.h"
#include "testmain.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"
#include "platform/skglobal.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

using namespace Corbeth;

namespace {
const QString velmira = QStringLiteral("velmira");
const QString tolm = QStringLiteral("tolmInstallerModuleInfo");
const QString moduleWithE = QStringLiteral("downloadModueleInfo");
const QString module = QStringLiteral("downloadModuleInfo");
QVariantMap section(const char *tag) { return {{QStringLiteral("tag"), QString::fromLatin1(tag)}}; }
QStringList list(const char *joined) { return QString::fromLatin1(joined).split(QLatin1Char('|')); }
} // namespace

// The configuration document and the install description read from it.
class tst_Configer : public QObject
{
    Q_OBJECT
    QScopedPointer<SettingsSandbox> m_settings;
    Configer *configer() { return PtrManager::instance()->configer().data(); }
    Installer *load(const QByteArray &document)
    {
        configer()->setConfigData(QJsonDocument::fromJson(document).object().toVariantMap());
        return PtrManager::instance()->installer().data();
    }

private slots:
    void init() { m_settings.reset(new SettingsSandbox); }
    void cleanup()
    {
        PtrManager::destroyInstance();
        m_settings.reset();
    }

    // Only a document that already holds the three looked-up sections counts
    // as "same" when sent again: the lookups add the missing keys as nulls.
    void sameDocumentTwice_data()
    {
        QTest::addColumn<QVariantMap>("document");
        QTest::addColumn<bool>("same");
        QTest::newRow("all three sections")
            << QVariantMap{{velmira, section("v")}, {tolm, section("t")}, {moduleWithE, section("m")}} << true;
        QTest::newRow("other spelling only")
            << QVariantMap{{velmira, section("v")}, {tolm, section("t")}, {module, section("m")}} << false;
        QTest::newRow("no sections") << QVariantMap{{QStringLiteral("clearProcess"), QStringList()}} << false;
    }
    void sameDocumentTwice()
    {
        QFETCH(QVariantMap, document);
        QFETCH(bool, same);
        QSignalSpy changed(configer(), &Configer::configDataChanged);
        QCOMPARE(configer()->setConfigData(document), CBEnum::EC_NoError);
        LogCapture log;
        QCOMPARE(configer()->setConfigData(document), CBEnum::EC_NoError);
        QCOMPARE(changed.count(), same ? 1 : 2);
        QCOMPARE(log.contains(QStringLiteral("configdata is same")), same);
        QVERIFY(configer()->configData().contains(moduleWithE));
    }

    // The spelling with the extra "e" wins; the module service gets that section.
    void downloadModuleSection()
    {
        QVariantMap service{{QStringLiteral("moduleInfo"), QStringLiteral("replaced")},
                            {QStringLiteral("repository"), QStringLiteral("r")}};
        QVariantMap document{{velmira, service}, {module, section("plain")}};
        QCOMPARE(configer()->setConfigData(document), CBEnum::EC_NoError);
        QCOMPARE(configer()->downloadModuleInfo(), section("plain"));
        document.insert(moduleWithE, section("extra"));
        QCOMPARE(configer()->setConfigData(document), CBEnum::EC_NoError);
        QCOMPARE(configer()->downloadModuleInfo(), section("extra"));
        service.insert(QStringLiteral("moduleInfo"), section("extra"));
        QCOMPARE(configer()->moduleServiceConfig(), service);
    }

    void refusedInputKeepsTheLoadedDocument_data()
    {
        QTest::addColumn<QByteArray>("content"); // empty: no file at all
        QTest::newRow("missing file") << QByteArray();
        QTest::newRow("not JSON") << QByteArray("{\"install\": ");
        QTest::newRow("JSON array") << QByteArray("[1, 2]");
        QTest::newRow("empty object") << QByteArray("{}");
    }
    void refusedInputKeepsTheLoadedDocument()
    {
        QFETCH(QByteArray, content);
        QCOMPARE(configer()->setConfigData({{velmira, section("good")}}), CBEnum::EC_NoError);
        const QVariantMap before = configer()->configData();
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("corbeth.json"));
        QVERIFY(content.isEmpty() || writeFile(path, content));
        QSignalSpy changed(configer(), &Configer::configDataChanged);
        QCOMPARE(configer()->setConfigPath(path), CBEnum::EC_FileNotOpen);
        QCOMPARE(configer()->setConfigData({}), CBEnum::EC_ConfigDataError);
        QCOMPARE(changed.count(), 0);
        QCOMPARE(configer()->configData(), before);
        QCOMPARE(configer()->velmiraInfo(), section("good"));
    }

    // A word is the key without its prefix, first letter in either case; "" is the first value.
    void enumerationWords_data()
    {
        QTest::addColumn<QString>("word");
        QTest::addColumn<int>("level"); // -1: refused
        QTest::newRow("empty") << QString() << int(EL_Warn);
        QTest::newRow("lower") << QStringLiteral("critical") << int(EL_Critical);
        QTest::newRow("upper first") << QStringLiteral("Warn") << int(EL_Warn);
        QTest::newRow("capitals") << QStringLiteral("CRITICAL") << -1;
        QTest::newRow("full key") << QStringLiteral("EL_Warn") << -1;
    }
    void enumerationWords()
    {
        QFETCH(QString, word);
        QFETCH(int, level);
        ErrorLevel parsed = EL_Critical;
        QCOMPARE(Configer::strToErrorLevel(word, parsed), level >= 0);
        QCOMPARE(int(parsed), level >= 0 ? level : int(EL_Critical)); // refused: left as it was
    }

    // Each fault is logged with the texts of the parts that read it, in order;
    // a list keeps the entries before its bad one, and the load goes on.
    void malformedInputIsLoggedAndSkipped_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<QStringList>("logLines");
        QTest::addColumn<int>("kept"); // entries loaded, over every list and tag
        const auto row = [](const char *name, const QByteArray &document, const char *logLines, int kept) {
            QTest::newRow(name) << document << list(logLines) << kept;
        };
        const auto process = [](const char *bad) {
            return R"({"install": {"process": [
                {"path": "a.exe", "waitTime": 2, "runingTimeout": 30, "extraProcess": ["checkDriver"]},)"
                + QByteArray(bad) + R"(, {"path": "c.exe", "waitTime": 0, "runingTimeout": -1}],
                "settings": {"HKEY_CURRENT_USER\\SOFTWARE\\A": {"v": 1}}}})";
        };
        row("no waitTime", process(R"({"path": "b", "runingTimeout": 5})"), "configdata error|process driver erorr", 2);
        row("waitTime an object", process(R"({"waitTime": {}, "runingTimeout": 5})"),
            "configdata error|process driver erorr", 2);
        row("unknown level", process(R"({"waitTime": 1, "runingTimeout": 5, "errorLevel": "loud"})"),
            "error level config fail|process driver erorr", 2);
        row("unknown extra", process(R"({"waitTime": 1, "runingTimeout": 5, "extraProcess": ["reboot"]})"),
            "extraProcess config fail|process driver erorr", 2);
        row("unknown driver", R"({"install": {"checkDrivers": ["vimba", "nonsense", "turntable"]}})",
            "str to emun error|check driver erorr", 1);
        row("level in capitals", R"({"install": {"coverFiles": [{"src": "a", "dest": "b"},
            {"src": "c", "dest": "d", "errorLevel": "Warn"}, {"src": "e", "dest": "f", "errorLevel": "WARN"},
            {"src": "g", "dest": "h"}]}})",
            "error level config fail|cutfiles error", 2);
        row("older without locator", R"({"install": {"olderSoftwareInfo": {"removeFiles": ["x"]}}})",
            "settingPath or empty", 0);
        row("customTag without name", R"({"customTag": [{"name": "first"}, {"name": "first", "value": {}},
            {"value": {"settingPath": "HKLM\\A", "key": "k"}}, {"name": "never"}]})",
            "not contain name|customtag fail", 1);
    }
    void malformedInputIsLoggedAndSkipped()
    {
        QFETCH(QByteArray, document);
        QFETCH(QStringList, logLines);
        QFETCH(int, kept);
        LogCapture log;
        Installer *installer = load(document);
        int at = 0;
        for (const QString &line : qAsConst(logLines)) {
            at = log.indexOf(line, at);
            QVERIFY2(at >= 0, qPrintable(line + QLatin1Char('\n') + log.dump()));
        }
        QVERIFY(log.contains(QStringLiteral("init installer success")));
        const InstallInfoPtr info = installer->installInfo();
        QCOMPARE(info->process.size() + info->checkDrivers.size() + info->coverFiles.size() + info->links.size()
                     + info->settings.size() + info->removeFiles.size() + int(info->forceInstall)
                     + installer->customTags().size() + installer->updateInfo()->coverFiles.size(),
                 kept);
        if (!info->process.isEmpty())
            QCOMPARE(info->process.first().program, QStringLiteral("a.exe"));
        QCOMPARE(installer->installPath(), QString());
    }

    // A value of another type is converted, with a warning naming its key, and
    // its neighbours are kept.
    void valuesAreConverted_data()
    {
        QTest::addColumn<QByteArray>("section");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("summary");
        const auto row = [](const char *name, const QByteArray &section, const char *key, const char *summary) {
            QTest::newRow(name) << section << QString::fromLatin1(key) << QString::fromLatin1(summary);
        };
        row("boolean as text", R"({"forceInstall": "true"})", "forceInstall", "force");
        row("false as text", R"({"forceInstall": "false"})", "forceInstall", "");
        row("one driver as text", R"({"checkDrivers": "vimba"})", "checkDrivers", "drivers 1");
        row("one file as text", R"({"removeFiles": "a", "whiteList": ["k", 2]})", "whiteList", "remove a white k|2");
        row("number as text", R"({"process": [{"path": 5, "waitTime": "7", "runingTimeout": -1}]})", "waitTime",
            "process 5 7 -1");
        row("beyond 32 bits", R"({"process": [{"waitTime": 1e12, "runingTimeout": -1e12}]})", "waitTime",
            "process  2147483647 -2147483648");
        row("one bad settings entry", R"({"settings": {"HKLM/A": 5, "HKLM/B": {"v": 1}}})", "HKLM/A",
            "settings HKLM/A HKLM/B");
        row("links not a list", R"({"links": "x", "removeSettings": ["s"]})", "links", "removeSettings s");
        row("level as number", R"({"coverFiles": [{"src": "a", "dest": "b", "errorLevel": 0}]})", "errorLevel", "");
    }
    void valuesAreConverted()
    {
        QFETCH(QByteArray, section);
        QFETCH(QString, key);
        QFETCH(QString, summary);
        LogCapture log;
        const InstallInfoPtr info = load(R"({"install": )" + section + "}")->installInfo();
        QStringList parts;
        if (info->forceInstall)
            parts << QStringLiteral("force");
        if (!info->checkDrivers.isEmpty())
            parts << QStringLiteral("drivers %1").arg(info->checkDrivers.size());
        if (!info->removeFiles.isEmpty())
            parts << QStringLiteral("remove ") + info->removeFiles.join(QLatin1Char('|'));
        if (!info->whiteList.isEmpty())
            parts << QStringLiteral("white ") + info->whiteList.join(QLatin1Char('|'));
        if (!info->removeSettings.isEmpty())
            parts << QStringLiteral("removeSettings ") + info->removeSettings.join(QLatin1Char('|'));
        for (const ProcessHelper &p : info->process)
            parts << QStringLiteral("process %1 %2 %3").arg(p.program).arg(p.waitTime).arg(p.runingTimeout);
        if (!info->settings.isEmpty()) {
            QStringList paths;
            for (const SettingInfo &setting : info->settings)
                paths << setting.path;
            parts << QStringLiteral("settings ") + paths.join(QLatin1Char(' '));
        }
        // A level word that does not exist fails its item; "0" is not a word.
        if (!info->coverFiles.isEmpty())
            parts << QStringLiteral("cover");
        QCOMPARE(parts.join(QLatin1Char(' ')), summary);
        const bool clamped = summary.contains(QLatin1String("2147483647"));
        const int at = log.indexOf(clamped ? QStringLiteral("configdata clamped") : QStringLiteral("configdata converted"));
        QVERIFY2(at >= 0 && log.indexOf(key, at) >= 0, qPrintable(log.dump()));
        QVERIFY(!log.contains(QStringLiteral("configdata error")));
    }

    // Qt finds "true" and true equal, so the corrected document counts as the
    // same: the first load must already have read it as true.
    void convertedValueSurvivesTheSameDocument()
    {
        Installer *installer = load(R"({"install": {"forceInstall": "true"}})");
        QVERIFY(installer->forceInstall());
        load(R"({"install": {"forceInstall": true}})");
        QVERIFY(installer->forceInstall());
    }

    void clearProcessKeepsItsValueWhenAbsent()
    {
        Installer *installer = load(R"({"clearProcess": ["a.exe"]})");
        load(R"({"install": {}})");
        QCOMPARE(installer->clearProcessList(), list("a.exe"));
        load(R"({"clearProcess": "b.exe", "install": {}})");
        QCOMPARE(installer->clearProcessList(), list("b.exe"));
    }

    // Fixed variables first, in their order, then custom tags by name.
    void expansion_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("unknown stays") << QStringLiteral("${nothing}/${installPath}")
                                       << QStringLiteral("${nothing}//App");
        QTest::newRow("fixed wins over a tag") << QStringLiteral("${installPath}") << QStringLiteral("/App");
        QTest::newRow("tag holding a later tag") << QStringLiteral("${a}") << QStringLiteral("B/x");
        QTest::newRow("tag holding an earlier tag") << QStringLiteral("${z}") << QStringLiteral("${b}");
        QTest::newRow("program folder") << QStringLiteral("${TolmInstallerPath}/plugins")
                                        << QCoreApplication::applicationDirPath() + QStringLiteral("/plugins");
        QTest::newRow("package folder") << QStringLiteral("${installPackagePath}")
                                        << QFileInfo(QStringLiteral("/downloads")).absoluteFilePath();
    }
    void expansion()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        const QString tags = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Tags");
        const char *const values[][2] = {{"a", "${b}/x"}, {"b", "B"}, {"z", "${b}"}, {"installPath", "/Tag"}};
        for (const auto &value : values)
            SKGlobal::instance()->setSettingValue(tags, QLatin1String(value[0]), QLatin1String(value[1]));
        SKGlobal::instance()->setSettingValue(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"),
                                              QStringLiteral("path"), QStringLiteral("/downloads/product.tolmpkg"));
        Installer *installer = load(R"({"customTag": [
            {"name": "a", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "a"}},
            {"name": "b", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "b"}},
            {"name": "z", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "z"}},
            {"name": "installPath", "value": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Tags", "key": "installPath"}}]})");
        installer->setInstallPath(QStringLiteral("/App"));
        QCOMPARE(installer->expandPath(text), expected);
    }

    void additionsAreAddedOnceAndSwitchedOnByName()
    {
        Installer *installer = load(R"({
            "install": {"removeFiles": ["base"], "settings": {"HKLM\\P": {"a": "base", "b": "base"}},
                        "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKLM\\Old", "key": "k"}}},
            "additions": {
                "one": {"install": {"removeFiles": ["one", "base"], "settings": {"HKLM\\P": {"b": "one", "c": "one"}},
                                    "forceInstall": true}},
                "broken": 5,
                "two": {"install": {"removeFiles": ["two"],
                                    "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKLM\\Two", "key": "k"}}},
                        "uninstall": {"whiteList": ["keep"]}}}})");
        const InstallInfoPtr parsed = installer->installInfo();

        LogCapture log;
        QVERIFY(!installer->setCurrentAddtions(list("one|three")));
        QVERIFY(log.contains(QStringLiteral("total additions not contain ::;"), QtCriticalMsg));
        QCOMPARE(installer->installInfo(), parsed);

        QVERIFY(installer->setCurrentAddtions(list("one|two")));
        const InstallInfoPtr merged = installer->installInfo();
        QCOMPARE(merged->removeFiles, list("one|base|two"));
        QCOMPARE(merged->settings.size(), 1);
        QCOMPARE(merged->settings.first().key,
                 (QVariantMap{{QStringLiteral("a"), QStringLiteral("base")}, {QStringLiteral("b"), QStringLiteral("base")},
                              {QStringLiteral("c"), QStringLiteral("one")}}));
        QCOMPARE(merged->olderSoftwareInfo.settingPath, QStringLiteral("HKLM\\Two"));
        QVERIFY(merged->forceInstall);
        QCOMPARE(installer->uninstallInfo()->whiteList, list("keep"));
        QCOMPARE(parsed->removeFiles, list("base")); // the parsed set is untouched

        log.clear();
        QVERIFY(installer->setCurrentAddtions(list("one|two")));
        QVERIFY(installer->setCurrentAddtions({}));
        QCOMPARE(installer->installInfo(), merged);
        QVERIFY(!log.contains(QStringLiteral("set additions success")));

        // A reload starts again from the parsed set, and names read before are refused.
        load(R"({"install": {"removeFiles": ["reloaded"]}, "additions": {"two": {}, "four": {}}})");
        QVERIFY(log.contains(QStringLiteral("addition repetition key:"), QtCriticalMsg));
        QCOMPARE(installer->installInfo()->removeFiles, list("reloaded"));
        QVERIFY(installer->setCurrentAddtions(list("two")));
        QCOMPARE(installer->installInfo()->removeFiles, list("two|reloaded"));
        QVERIFY(!installer->setCurrentAddtions(list("four")));
    }
};

CORBETH_TEST_MAIN(tst_Configer)
#include "tst_configer.moc"
