#include "logcapture.h"
#include "packtool.h"
#include "testmain.h"
#include "vindaltest.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"
#include "modules/vindaler.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QScopeGuard>
#include <QtCore/QTemporaryDir>
#include <QtCore/QUrl>
#include <QtTest/QSignalSpy>

using namespace Corbeth;

class tst_Vindaler : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();

    void maxVersion_data();
    void maxVersion();
    void toErrorCode_data();
    void toErrorCode();
    void nullReply();
    void downloadWithoutConfig();
    void temporaryStoragePath_data();
    void temporaryStoragePath();
    void refusedConfigDoesNotInit();
    void downloadVerifyUnpack_data();
    void downloadVerifyUnpack();
    void upgradeTakesLastCodeAndHighestVersion();

private:
    // Publishes the shared source tree (or the given folder) as module "app".
    bool publish(const QString &repo, const QString &version, const QString &folder = QString());
    static QVariantMap serviceConfig(const QString &url, const QString &module);

    QTemporaryDir m_work;
    QString m_source;
};

void tst_Vindaler::initTestCase()
{
    QVERIFY(m_work.isValid());
    m_source = m_work.filePath(QStringLiteral("source"));
    QVERIFY(PackTool::makeTree(m_source));
}

bool tst_Vindaler::publish(const QString &repo, const QString &version, const QString &folder)
{
    const QString package = m_work.filePath(QStringLiteral("app-%1.tolmpkg").arg(version));
    PackTool::Run run = PackTool::run({QStringLiteral("create"), folder.isEmpty() ? m_source : folder,
                                       QStringLiteral("-o"), package});
    if (run.exitCode == 0)
        run = PackTool::run({QStringLiteral("publish"), package, QStringLiteral("--repo"), repo,
                             QStringLiteral("--module"), QStringLiteral("app"), QStringLiteral("--version"), version});
    if (run.exitCode != 0)
        qWarning().noquote() << run.err;
    return run.exitCode == 0;
}

// The "velmira" section as the engine hands it over, with its "moduleInfo".
QVariantMap tst_Vindaler::serviceConfig(const QString &url, const QString &module)
{
    return {{QStringLiteral("repository"), url},
            {QStringLiteral("moduleInfo"), QVariantMap{{QStringLiteral("module"), module}}}};
}

void tst_Vindaler::maxVersion_data()
{
    QTest::addColumn<QString>("a");
    QTest::addColumn<QString>("b");
    QTest::addColumn<QString>("expected");
    // Textual on purpose: "10" sorts before "9".
    QTest::newRow("textual parts") << QStringLiteral("1.10.0") << QStringLiteral("1.9.0") << QStringLiteral("1.9.0");
    QTest::newRow("later part decides") << QStringLiteral("1.2.3") << QStringLiteral("1.2.4") << QStringLiteral("1.2.4");
    QTest::newRow("first part decides") << QStringLiteral("2.0.0") << QStringLiteral("1.9.9") << QStringLiteral("2.0.0");
    QTest::newRow("equal prefix keeps a") << QStringLiteral("1.2.0") << QStringLiteral("1.2") << QStringLiteral("1.2.0");
}

void tst_Vindaler::maxVersion()
{
    QFETCH(QString, a);
    QFETCH(QString, b);
    QFETCH(QString, expected);
    QCOMPARE(Vindaler::maxVersion(a, b), expected);
}

void tst_Vindaler::toErrorCode_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("expected");
    QTest::newRow("success") << 0 << int(CBEnum::EC_NoError);
    QTest::newRow("time-out") << 0x5003 << int(CBEnum::EC_Timeout);
    QTest::newRow("configuration") << 0x5072007 << int(CBEnum::EC_ConfigDataError);
    QTest::newRow("one") << 1 << int(CBEnum::EC_UnknownNetworkError);
}

void tst_Vindaler::toErrorCode()
{
    QFETCH(int, error);
    QFETCH(int, expected);
    QCOMPARE(int(Vindaler::toErrorCode(error)), expected);
}

void tst_Vindaler::nullReply()
{
    Vindaler vindaler;
    LogCapture log;
    QCOMPARE(vindaler.checkReply(nullptr), Vindal::Error::NoReply);
    QVariant result(42);
    QCOMPARE(vindaler.waitReply(nullptr, result), Vindal::Error::NoReply);
    QCOMPARE(result, QVariant(42));
    QCOMPARE(log.count(QStringLiteral("erorrOccurred nullptr"), QtCriticalMsg), 2);
}

void tst_Vindaler::downloadWithoutConfig()
{
    Vindaler vindaler;
    LogCapture log;
    QCOMPARE(vindaler.downloadOfflineModule(QStringLiteral("app")), nullptr);
    QCOMPARE(vindaler.downloadModule(QStringLiteral("app")), nullptr);
    const int empty = log.indexOf(QStringLiteral("config is empty"));
    QVERIFY2(empty >= 0 && log.indexOf(QStringLiteral("init fail"), empty) > empty, qPrintable(log.dump()));
}

void tst_Vindaler::temporaryStoragePath_data()
{
    QTest::addColumn<QVariantMap>("startDownload");
    QTest::addColumn<QString>("expected");
    QTest::newRow("none yet") << QVariantMap() << QStringLiteral("/new/cache");
    QTest::newRow("configured one stays")
        << QVariantMap{{QStringLiteral("temporaryStoragePath"), QStringLiteral("/old/cache")}}
        << QStringLiteral("/old/cache");
}

void tst_Vindaler::temporaryStoragePath()
{
    QFETCH(QVariantMap, startDownload);
    QFETCH(QString, expected);
    QTemporaryDir repo;
    QVERIFY(repo.isValid());
    QVariantMap config = serviceConfig(QUrl::fromLocalFile(repo.path()).toString(), QStringLiteral("app"));
    if (!startDownload.isEmpty())
        config.insert(QStringLiteral("startDownload"), startDownload);

    Vindaler vindaler;
    Vindal::Reply *reply = vindaler.setConfigData(config);
    QVERIFY(reply);
    reply->deleteLater();
    LogCapture log;
    vindaler.setTemporaryStoragePath(QStringLiteral("/new/cache"));
    const QVariantMap stored = vindaler.config().value(QStringLiteral("startDownload")).toMap();
    QCOMPARE(stored.value(QStringLiteral("temporaryStoragePath")).toString(), expected);
    QCOMPARE(log.contains(QStringLiteral("config startDownload configuration"), QtWarningMsg), !startDownload.isEmpty());
}

void tst_Vindaler::refusedConfigDoesNotInit()
{
    Vindaler vindaler;
    QSignalSpy inited(&vindaler, &Vindaler::initSuccess);
    LogCapture log;
    Vindal::Reply *reply = vindaler.setConfigData(serviceConfig(QStringLiteral("gopher://nowhere"), QStringLiteral("app")));
    QVERIFY(reply);
    QVariant result;
    QCOMPARE(vindaler.waitReply(reply, result), Vindal::Error::ConfigError);
    QVERIFY(!vindaler.isInited());

    // A download tries the configuration once more, and gives up.
    QCOMPARE(vindaler.downloadOfflineModule(QStringLiteral("app")), nullptr);
    QVERIFY2(log.contains(QStringLiteral("init fail"), QtCriticalMsg), qPrintable(log.dump()));
    QVERIFY(!vindaler.isInited());
    QCOMPARE(inited.count(), 0);
}

void tst_Vindaler::downloadVerifyUnpack_data()
{
    QTest::addColumn<QString>("server");
    QTest::newRow("file") << QStringLiteral("file");
    QTest::newRow("nginx") << QStringLiteral("nginx");
    QTest::newRow("dropped, resumed") << QStringLiteral("drop");
}

// The whole way a package takes: made and published with corbeth-pack, fetched
// through the adapter, checked, and unpacked into a tree identical to the source.
void tst_Vindaler::downloadVerifyUnpack()
{
    QFETCH(QString, server);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString repo = dir.filePath(QStringLiteral("repo"));
    QString url = QUrl::fromLocalFile(repo).toString();
    VindalTest::Nginx nginx;
    VindalTest::FaultServer faults;
    if (server == QLatin1String("nginx")) {
        if (!nginx.load())
            QSKIP("the nginx fixture is not running (ctest starts it)");
        const QString name = QStringLiteral("vindaler-") + QFileInfo(dir.path()).fileName();
        repo = QDir(nginx.www).filePath(name);
        url = QStringLiteral("http://127.0.0.1:%1/%2").arg(nginx.http).arg(name);
    }
    const auto removeRepo = qScopeGuard([repo] { QDir(repo).removeRecursively(); });
    QVERIFY(publish(repo, QStringLiteral("1.0.0")));
    if (server == QLatin1String("drop")) {
        // The first transfer of the package breaks off halfway.
        QVERIFY(faults.start(repo));
        url = faults.url(server);
    }

    Vindaler vindaler;
    Vindal::Reply *configured = vindaler.setConfigData(serviceConfig(url, QStringLiteral("app")));
    QVERIFY(configured);
    const QString cache = dir.filePath(QStringLiteral("install/arvenorDownloadCache"));
    QVERIFY(QDir().mkpath(cache));
    vindaler.setTemporaryStoragePath(cache);

    LogCapture log;
    Vindal::Reply *reply = vindaler.downloadOfflineModule(dir.filePath(QStringLiteral("install")));
    QVERIFY2(reply, qPrintable(log.dump()));
    QSignalSpy progress(reply, &Vindal::Reply::downloadProgress);
    QVariant answer;
    QCOMPARE(vindaler.waitReply(reply, answer), Vindal::Error::NoError);
    configured->deleteLater();

    const QVariantMap result = answer.toMap();
    const QString path = result.value(QStringLiteral("path")).toString();
    QVERIFY2(QFileInfo(path).isFile(), qPrintable(path));
    QCOMPARE(QFileInfo(path).absolutePath(), QFileInfo(cache).absoluteFilePath());
    QCOMPARE(result.value(QStringLiteral("version")).toString(), QStringLiteral("1.0.0"));
    QCOMPARE(result.value(QStringLiteral("bytesTotal")).toLongLong(), QFileInfo(path).size());
    QCOMPARE(result.value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString(),
             QFileInfo(path).fileName());
    QCOMPARE(result.value(QStringLiteral("md5Value")).toString(), PackTool::md5Of(path));
    if (server == QLatin1String("drop"))
        QVERIFY2(faults.log().contains("Range: bytes="), faults.log().constData());
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(0).toLongLong(), QFileInfo(path).size());
    QCOMPARE(vindaler.packageInfo().value(QStringLiteral("md5Value")).toString(), PackTool::md5Of(path));

    // Configured once already: a second request goes straight to the service.
    log.clear();
    Vindal::Reply *again = vindaler.downloadOfflineModule(dir.filePath(QStringLiteral("install")));
    QVERIFY(again);
    QVERIFY2(!log.contains(QStringLiteral("ready for finished")), qPrintable(log.dump()));
    QCOMPARE(vindaler.waitReply(again, answer), Vindal::Error::NoError);

    const QString target = dir.filePath(QStringLiteral("install/app"));
    auto *unpack = new Vindal::Reply;
    QSignalSpy finished(unpack, &Vindal::Reply::finished);
    QSignalSpy unpackProgress(unpack, &Vindal::Reply::progress);
    vindaler.loadOfflinePackage(unpack, path, target);
    QVERIFY(finished.wait(60000) || finished.count() == 1);
    QCOMPARE(finished.first().first().toMap().value(QStringLiteral("errorCode")).toInt(), 0);
    QVERIFY(!unpackProgress.isEmpty());
    delete unpack;
    QVERIFY(VindalTest::snapshot(target) == VindalTest::snapshot(m_source));
}

void tst_Vindaler::upgradeTakesLastCodeAndHighestVersion()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString repo = dir.filePath(QStringLiteral("repo"));
    const QString package = dir.filePath(QStringLiteral("setup.tolmpkg"));
    PackTool::Run run = PackTool::run({QStringLiteral("create"), m_source, QStringLiteral("-o"), package});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    // The service lists them newest first (1.10.0 A, 1.9.0 A, 1.9.0 B, 1.2.0 B):
    // the last entry's code is MC-B, and textually 1.9.0 is the highest version.
    const QList<QPair<QString, QString>> upgrades{{QStringLiteral("MC-A"), QStringLiteral("1.9.0")},
                                                  {QStringLiteral("MC-A"), QStringLiteral("1.10.0")},
                                                  {QStringLiteral("MC-B"), QStringLiteral("1.2.0")},
                                                  {QStringLiteral("MC-B"), QStringLiteral("1.9.0")}};
    for (const auto &upgrade : upgrades) {
        const QString copy = dir.filePath(QStringLiteral("setup-%1-%2.tolmpkg").arg(upgrade.first, upgrade.second));
        QVERIFY(QFile::copy(package, copy));
        run = PackTool::run({QStringLiteral("publish"), copy, QStringLiteral("--repo"), repo,
                             QStringLiteral("--model-code"), upgrade.first, QStringLiteral("--version"),
                             upgrade.second});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    }

    // No model code of its own: the service offers the upgrades of every model.
    Configer *configer = PtrManager::instance()->configer().data();
    QCOMPARE(configer->setConfigData({{QStringLiteral("tolmInstallerModuleInfo"),
                                       QVariantMap{{QStringLiteral("environment"), QStringLiteral("test")},
                                                   {QStringLiteral("lang"), QStringLiteral("en")},
                                                   {QStringLiteral("os"), QStringLiteral("linux")}}}}),
             CBEnum::EC_NoError);

    Vindaler vindaler;
    QVariant ignored;
    QCOMPARE(vindaler.waitReply(vindaler.setConfigData(serviceConfig(QUrl::fromLocalFile(repo).toString(),
                                                                     QStringLiteral("app"))),
                                ignored),
             Vindal::Error::NoError);

    Vindal::Reply *reply = vindaler.checkUpgradeAndDownload(dir.path());
    QVERIFY(reply);
    QVariant answer;
    QCOMPARE(vindaler.waitReply(reply, answer), Vindal::Error::NoError);
    const QVariantMap result = answer.toMap();
    QCOMPARE(result.value(QStringLiteral("modelCode")).toString(), QStringLiteral("MC-B"));
    QCOMPARE(result.value(QStringLiteral("version")).toString(), QStringLiteral("1.9.0"));
    QCOMPARE(result.value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString(),
             QStringLiteral("setup-MC-B-1.9.0.tolmpkg"));
}

CORBETH_TEST_MAIN(tst_Vindaler)
#include "tst_vindaler.moc"
