#include "logcapture.h"
#include "testmain.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"

#include <QtCore/QFile>
#include <QtCore/QMetaEnum>
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
        QTest::newRow("wrong type") << QVariantMap{{moduleWithE, QStringLiteral("text")}} << QString();
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
        QTest::addColumn<QByteArray>("enumeration");
        QTest::addColumn<QString>("word");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QByteArray>("key");
        QTest::newRow("empty level") << QByteArray("ErrorLevel") << QString() << true << QByteArray("EL_Warn");
        QTest::newRow("warn") << QByteArray("ErrorLevel") << QStringLiteral("warn") << true << QByteArray("EL_Warn");
        QTest::newRow("Critical") << QByteArray("ErrorLevel") << QStringLiteral("Critical") << true
                                  << QByteArray("EL_Critical");
        QTest::newRow("capitals") << QByteArray("ErrorLevel") << QStringLiteral("CRITICAL") << false << QByteArray();
        QTest::newRow("full key") << QByteArray("ErrorLevel") << QStringLiteral("EL_Warn") << false << QByteArray();
        QTest::newRow("vimba") << QByteArray("DriverType") << QStringLiteral("vimba") << true << QByteArray("DT_Vimba");
        QTest::newRow("3W_V4") << QByteArray("DriverType") << QStringLiteral("3W_V4") << true
                               << QByteArray("DT_3W_V4");
        QTest::newRow("empty driver") << QByteArray("DriverType") << QString() << true << QByteArray("DT_3W");
        QTest::newRow("unknown driver") << QByteArray("DriverType") << QStringLiteral("nonsense") << false
                                        << QByteArray();
        QTest::newRow("older uninstall") << QByteArray("ExtraProcess") << QStringLiteral("waitExecOlderUninstall")
                                         << true << QByteArray("EP_WaitExecOlderUninstall");
        QTest::newRow("empty extra") << QByteArray("ExtraProcess") << QString() << true
                                     << QByteArray("EP_CheckDriver");
    }
    void enumerationWords()
    {
        QFETCH(QByteArray, enumeration);
        QFETCH(QString, word);
        QFETCH(bool, ok);
        QFETCH(QByteArray, key);
        bool converted = false;
        int value = -2;
        QMetaEnum meta;
        if (enumeration == "ErrorLevel") {
            ErrorLevel level;
            converted = Configer::strToErrorLevel(word, level);
            value = level;
            meta = QMetaEnum::fromType<ErrorLevel>();
        } else if (enumeration == "DriverType") {
            CBEnum::DriverType type;
            converted = Configer::strToDriverType(word, type);
            value = type;
            meta = QMetaEnum::fromType<CBEnum::DriverType>();
        } else {
            ExtraProcess extra;
            converted = Configer::strToExtraProcess(word, extra);
            value = extra;
            meta = QMetaEnum::fromType<ExtraProcess>();
        }
        QCOMPARE(converted, ok);
        QCOMPARE(value, ok ? meta.keyToValue(key.constData()) : -1);
    }
};

CORBETH_TEST_MAIN(tst_Configer)
#include "tst_configer.moc"
