#include "logcapture.h"
#include "packtool.h"
#include "testmain.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"
#include "modules/vindaler.h"
#include "platform/skglobal.h"

#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtCore/QUrl>
#include <QtNetwork/QTcpServer>
#include <QtTest/QSignalSpy>

using namespace Corbeth;
using namespace VindalTest;

class tst_Vindaler : public QObject
{
    Q_OBJECT
    // The "velmira" section as the engine hands it over, with its "moduleInfo".
    static QVariantMap serviceConfig(const QString &url)
    {
        return {{"repository"_s, url}, {"moduleInfo"_s, QVariantMap{{"module"_s, "app"_s}}}};
    }

    QTemporaryDir m_work;
    QString m_package;

private slots:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        m_package = m_work.filePath("app.tolmpkg"_s);
        QVERIFY(PackTool::makePackage(m_work.filePath("source"_s), m_package));
    }

    // The service's time-out and its other errors reach the client as two codes.
    void toErrorCode()
    {
        QCOMPARE(Vindaler::toErrorCode(Vindal::Error::Timeout), CBEnum::EC_Timeout);
        QCOMPARE(Vindaler::toErrorCode(1), CBEnum::EC_UnknownNetworkError);
    }

    void noServiceNoDownload_data()
    {
        QTest::addColumn<QString>("repository"); // empty: never configured
        QTest::newRow("never configured") << QString();
        QTest::newRow("configuration refused") << "gopher://nowhere"_s;
    }

    // A download configures the service first (once more, after a refusal) and gives up when it cannot.
    void noServiceNoDownload()
    {
        QFETCH(QString, repository);
        Vindaler vindaler;
        QSignalSpy inited(&vindaler, &Vindaler::initSuccess);
        LogCapture log;
        if (!repository.isEmpty()) {
            Vindal::Reply *reply = vindaler.setConfigData(serviceConfig(repository));
            QVERIFY(reply);
            QVariant result;
            QCOMPARE(vindaler.waitReply(reply, result), Vindal::Error::ConfigError);
            reply->deleteLater(); // refused at once: still ours
        }
        QCOMPARE(vindaler.downloadOfflineModule("app"_s), nullptr);
        QCOMPARE(vindaler.downloadModule("app"_s), nullptr);
        // Both give up, and only a missing configuration says it is missing.
        QCOMPARE(log.count("init fail"_s, QtCriticalMsg), 2);
        const int empty = log.indexOf("config is empty"_s);
        QVERIFY2(repository.isEmpty() ? empty >= 0 && empty < log.indexOf("init fail"_s) : empty < 0,
                 qPrintable(log.dump()));
        QVERIFY(!vindaler.isInited());
        QCOMPARE(inited.count(), 0);
    }

    // A request made on the waiting thread while the service is being
    // configured (a retry timer, a click) is refused instead of blocking on
    // the configuration's lock for ever.
    void requestInsideConfigurationWait()
    {
        QTcpServer silent; // accepts, never answers
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        QVariantMap config = serviceConfig("http://127.0.0.1:%1/"_s.arg(silent.serverPort()));
        config.insert("stallTimeout"_s, 1);
        // Not yet accepted, so the download configures the service itself and
        // waits; the timer fires inside that wait.
        Vindaler vindaler;
        vindaler.setConfigData(config)->deleteLater();
        bool nested = false;
        Vindal::Reply *inner = nullptr;
        QTimer::singleShot(200, &vindaler, [&] {
            nested = true;
            inner = vindaler.downloadOfflineModule("app"_s);
        });
        LogCapture log;
        Vindal::Reply *outer = vindaler.downloadOfflineModule("app"_s);
        QVERIFY(nested);
        QCOMPARE(inner, nullptr);
        QVERIFY2(log.contains("init busy"_s, QtCriticalMsg), qPrintable(log.dump()));
        if (outer)
            outer->deleteLater();
    }

    // The engine's cache folder is used unless the configuration names one
    // (tst_managerflows sees downloads land in the engine's).
    void configuredStoragePathStays()
    {
        QVariantMap config = serviceConfig(QUrl::fromLocalFile(m_work.path()).toString());
        config.insert("startDownload"_s, QVariantMap{{"temporaryStoragePath"_s, "/old/cache"_s}});
        Vindaler vindaler;
        Vindal::Reply *reply = vindaler.setConfigData(config);
        QVERIFY(reply);
        reply->deleteLater();
        vindaler.setTemporaryStoragePath("/new/cache"_s);
        QCOMPARE(vindaler.config().value("startDownload"_s).toMap().value("temporaryStoragePath"_s).toString(),
                 "/old/cache"_s);
    }

    // The machine's place in rollouts is drawn once, kept, and handed over
    // whatever the document says; a stored place is taken as it is.
    void rolloutBucketIsKept()
    {
        SettingsSandbox store;
        const auto handedOver = [this] {
            QVariantMap config = serviceConfig(QUrl::fromLocalFile(m_work.path()).toString());
            config.insert("rolloutBucket"_s, -5);
            Vindaler vindaler;
            vindaler.setConfigData(config)->deleteLater();
            return vindaler.config().value("rolloutBucket"_s).toLongLong();
        };
        const qlonglong drawn = handedOver();
        QCOMPARE(handedOver(), drawn);
        SKGlobal::instance()->setSettingValue("HKEY_LOCAL_MACHINE\\SOFTWARE\\Arvenor\\TolmInstaller"_s, "rolloutBucket"_s, "7"_s);
        QCOMPARE(handedOver(), 7LL);
    }

    void upgradeTakesLastCodeAndHighestVersion()
    {
        QTemporaryDir dir;
        const QString repo = dir.filePath("repo"_s);
        // The service lists them newest first (1.10.0 A, 1.9.0 A, 1.9.0 B, 1.2.0 B):
        // the last entry's code is MC-B, and textually 1.9.0 is the highest version.
        const QList<QPair<QString, QString>> upgrades{
            {"MC-A"_s, "1.9.0"_s}, {"MC-A"_s, "1.10.0"_s}, {"MC-B"_s, "1.2.0"_s}, {"MC-B"_s, "1.9.0"_s}};
        for (const auto &upgrade : upgrades) {
            const QString copy = dir.filePath("setup-%1-%2.tolmpkg"_s.arg(upgrade.first, upgrade.second));
            QVERIFY(QFile::copy(m_package, copy));
            QVERIFY(PackTool::ok({"publish"_s, copy, "--repo"_s, repo, "--model-code"_s, upgrade.first, "--version"_s,
                                  upgrade.second}));
        }

        // No model code of its own: the service offers the upgrades of every model.
        Configer *configer = PtrManager::instance()->configer().data();
        const QVariantMap identity{{"environment"_s, "test"_s}, {"lang"_s, "en"_s}, {"os"_s, "linux"_s}};
        QCOMPARE(configer->setConfigData({{"tolmInstallerModuleInfo"_s, identity}}), CBEnum::EC_NoError);

        Vindaler vindaler;
        QVariant answer;
        Vindal::Reply *reply = vindaler.setConfigData(serviceConfig(QUrl::fromLocalFile(repo).toString()));
        QCOMPARE(vindaler.waitReply(reply, answer), Vindal::Error::NoError);
        reply = vindaler.checkUpgradeAndDownload(dir.path());
        QVERIFY(reply);
        QCOMPARE(vindaler.waitReply(reply, answer), Vindal::Error::NoError);
        const QVariantMap result = answer.toMap();
        QCOMPARE(result.value("modelCode"_s).toString(), "MC-B"_s);
        QCOMPARE(result.value("version"_s).toString(), "1.9.0"_s);
        QCOMPARE(result.value("file"_s).toMap().value("name"_s).toString(), "setup-MC-B-1.9.0.tolmpkg"_s);
    }
};

CORBETH_TEST_MAIN(tst_Vindaler)
#include "tst_vindaler.moc"
