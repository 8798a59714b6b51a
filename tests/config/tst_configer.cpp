#include "logcapture.h"
#include "testmain.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

using namespace Corbeth;

namespace {

const QString velmira = QStringLiteral("velmira");
const QString tolm = QStringLiteral("tolmInstallerModuleInfo");
const QString moduleWithE = QStringLiteral("downloadModueleInfo");
const QString module = QStringLiteral("downloadModuleInfo");

QVariantMap section(const QString &tag)
{
    return {{QStringLiteral("tag"), tag}};
}

} // namespace

class tst_Configer : public QObject
{
    Q_OBJECT
    Configer *configer() { return PtrManager::instance()->configer().data(); }

private slots:
    void cleanup() { PtrManager::destroyInstance(); }

    // Only a document that already holds the three looked-up sections counts
    // as "same" when sent again: the lookups add the missing keys as nulls.
    void sameDocumentTwice_data()
    {
        QTest::addColumn<QVariantMap>("document");
        QTest::addColumn<bool>("same");
        QTest::newRow("all three sections") << QVariantMap{{velmira, section(QStringLiteral("v"))},
                                                           {tolm, section(QStringLiteral("t"))},
                                                           {moduleWithE, section(QStringLiteral("m"))}}
                                            << true;
        QTest::newRow("other spelling only") << QVariantMap{{velmira, section(QStringLiteral("v"))},
                                                            {tolm, section(QStringLiteral("t"))},
                                                            {module, section(QStringLiteral("m"))}}
                                             << false;
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

    void downloadModuleSection_data()
    {
        QTest::addColumn<QVariantMap>("document");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain spelling") << QVariantMap{{module, section(QStringLiteral("plain"))}}
                                        << QStringLiteral("plain");
        QTest::newRow("both: extra e wins") << QVariantMap{{module, section(QStringLiteral("plain"))},
                                                           {moduleWithE, section(QStringLiteral("extra"))}}
                                            << QStringLiteral("extra");
    }
    void downloadModuleSection()
    {
        QFETCH(QVariantMap, document);
        QFETCH(QString, expected);
        document.insert(velmira, QVariantMap{{QStringLiteral("moduleInfo"), QStringLiteral("replaced")},
                                             {QStringLiteral("repository"), QStringLiteral("r")}});
        QCOMPARE(configer()->setConfigData(document), CBEnum::EC_NoError);
        QCOMPARE(configer()->downloadModuleInfo().value(QStringLiteral("tag")).toString(), expected);
        const QVariantMap service = configer()->moduleServiceConfig();
        QCOMPARE(service.value(QStringLiteral("repository")).toString(), QStringLiteral("r"));
        QCOMPARE(service.value(QStringLiteral("moduleInfo")).toMap(), configer()->downloadModuleInfo());
    }

    void refusedInputKeepsTheLoadedDocument_data()
    {
        QTest::addColumn<QByteArray>("content"); // empty: no file at all
        QTest::newRow("missing file") << QByteArray();
        QTest::newRow("not JSON") << QByteArray("{\"install\": ");
        QTest::newRow("JSON array") << QByteArray("[1, 2]");
    }
    void refusedInputKeepsTheLoadedDocument()
    {
        QFETCH(QByteArray, content);
        const QVariantMap good{{velmira, section(QStringLiteral("good"))}};
        QCOMPARE(configer()->setConfigData(good), CBEnum::EC_NoError);
        const QVariantMap before = configer()->configData();

        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(QStringLiteral("corbeth.json"));
        if (!content.isEmpty()) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        }
        QSignalSpy changed(configer(), &Configer::configDataChanged);
        LogCapture log;
        QCOMPARE(configer()->setConfigPath(path), CBEnum::EC_FileNotOpen);
        QVERIFY2(log.contains(QStringLiteral("readdddddddd file faillllllllll")), qPrintable(log.dump()));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(configer()->configData(), before);
        QCOMPARE(configer()->velmiraInfo(), section(QStringLiteral("good")));

        QCOMPARE(configer()->setConfigData({}), CBEnum::EC_ConfigDataError);
        QVERIFY(log.contains(QStringLiteral("configdata is empty"), QtCriticalMsg));
        QCOMPARE(configer()->configData(), before);
    }

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
        ErrorLevel parsed;
        QCOMPARE(Configer::strToErrorLevel(word, parsed), level >= 0);
        QCOMPARE(int(parsed), level);
    }

    // The prefix comes from each enumeration's own first key.
    void otherEnumerations()
    {
        CBEnum::DriverType driver;
        QVERIFY(Configer::strToDriverType(QStringLiteral("3W_V4"), driver));
        QCOMPARE(driver, CBEnum::DT_3W_V4);
        ExtraProcess extra;
        QVERIFY(Configer::strToExtraProcess(QStringLiteral("waitExecOlderUninstall"), extra));
        QCOMPARE(extra, EP_WaitExecOlderUninstall);
    }
};

CORBETH_TEST_MAIN(tst_Configer)
#include "tst_configer.moc"
