// Every flow of the engine as a client sees it: this program links only the
// shared library and includes only its public header. Packages are made and
// published with corbeth-pack and served by nginx or the fault server.
#include <corbeth/manager.h>

#include "logcapture.h"
#include "packtool.h"
#include "testmain.h"
#include "testplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMetaEnum>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtCore/QUrl>
#include <QtTest/QSignalSpy>

using namespace Corbeth;
using namespace VindalTest;

namespace {

// The product: its package holds bin/demo and data/changes.txt; the install
// links the program and writes an uninstall entry (an older version, when
// asked, goes first), the update copies the changes, the patch replaces the
// program, the uninstall removes it all.
const char kProduct[] = R"({
  "velmira": {"repository": "%1", "retries": 0, "stallTimeout": 5},
  "downloadModuleInfo": {"module": "demo"},
  "tolmInstallerModuleInfo": {"modelCode": "DEMO-SETUP", "environment": "test", "os": "linux", "lang": "en"},
  "download": {"retryInterval": 1},
  "install": {
    "links": [{"src": "${installPath}/bin/demo", "dest": "%2/links/Demo.lnk"}],
    "settings": {"HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Demo": {"installPath": "${installPath}"}},
    "olderSoftwareInfo": {
      "getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Old", "key": "path"},
      "removeFiles": ["${olderInstallPath}/old.txt"]
    }
  },
  "update": {"coverFiles": [{"src": "${installPath}/data/changes.txt", "dest": "${installPath}/CHANGES.txt"}]},
  "updatePatch": {"coverFiles": [{"src": "%2/patch/demo", "dest": "${installPath}/bin/demo"}]},
  "uninstall": {
    "removeFiles": ["${installPath}/bin", "${installPath}/data", "${installPath}/CHANGES.txt"],
    "removeSettings": ["HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Demo"]
  }
})";

const QString kRecords = QStringLiteral("SOFTWARE/Arvenor/TolmInstaller/onlinePackageInfo");

QString statusName(uint status)
{
    return QString::fromLatin1(QMetaEnum::fromType<CBEnum::TaskStatus>().valueToKey(int(status)));
}

// A client: one Manager and everything it said, in order.
struct Client
{
    // Package records, settings and the repository client's downgrade marks
    // of one client are not the next one's.
    SettingsSandbox store;
    QTemporaryDir state;
    bool stateSet = qputenv("VINDAL_STATE_FILE", state.filePath("state.json"_s).toUtf8());
    // The sandbox cannot replace the Windows registry: the records go there.
    bool recordsCleared = (storeUserSetting(kRecords, QVariantMap()), true);
    std::unique_ptr<Manager> owner = std::make_unique<Manager>(); // reset: the client deletes it
    Manager &manager = *owner;
    QStringList events;
    QList<double> progress;
    // Progress figures paired with the status they arrived in.
    QList<QPair<uint, double>> bands;
    uint status = CBEnum::TS_Freeing;

    Client()
    {
        QObject::connect(&manager, &Manager::progress, [this](double p) {
            progress << p;
            bands << qMakePair(status, p);
        });
        QObject::connect(&manager, &Manager::taskStatusChanged, [this](uint s) {
            status = s;
            events << statusName(s);
        });
        QObject::connect(&manager, &Manager::errorOccurred, [this](CBEnum::ErrorCode code) {
            events << "error "_s + QString::fromLatin1(QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code));
        });
        const auto record = [this](const char *name) { return [this, name] { events << QString::fromLatin1(name); }; };
        QObject::connect(&manager, &Manager::finished, record("finished"));
        QObject::connect(&manager, &Manager::onlineInstallFinished, record("onlineInstallFinished"));
        QObject::connect(&manager, &Manager::installPackageFinished, record("installPackageFinished"));
        QObject::connect(&manager, &Manager::uninstallPackageFinished, record("uninstallPackageFinished"));
        QObject::connect(&manager, &Manager::downloadPackageFinished, record("downloadPackageFinished"));
        QObject::connect(&manager, &Manager::uncompressPackageFinished, record("uncompressPackageFinished"));
        QObject::connect(&manager, &Manager::selfUpgradeFinished, record("selfUpgradeFinished"));
    }

    bool waitFor(const QString &event, int timeoutMs = 60000)
    {
        return QTest::qWaitFor([&] { return events.contains(event); }, timeoutMs);
    }

    void clear()
    {
        events.clear();
        progress.clear();
        bands.clear();
    }

    // Within one task the bar never goes back, and a task that ran to its
    // end stands at exactly 100: empty when so, what went wrong otherwise.
    QString progressFault() const
    {
        for (int i = 1; i < progress.size(); ++i) {
            if (progress.at(i) < progress.at(i - 1))
                return "progress went back: %1 after %2"_s.arg(progress.at(i)).arg(progress.at(i - 1));
        }
        const double last = progress.isEmpty() ? -1 : progress.last();
        return last == 100.0 ? QString() : "progress ended at %1"_s.arg(last);
    }
};

} // namespace

class tst_ManagerFlows : public QObject
{
    Q_OBJECT

    QTemporaryDir m_work;
    QString m_source;
    QString m_package;
    // A package too big to be checked in an instant, with its companion.
    QString m_bigPackage;
    Nginx m_nginx;
    int m_repoCount = 0;

    QString path(const QString &relative) const { return m_work.filePath(relative); }

    // A fresh repository under nginx's folder, with the package published as 1.0.0.
    QString publish(QString *folder = nullptr, const QString &version = "1.0.0"_s)
    {
        // Named after this run, so the shared access log tells this run's requests apart.
        const QString name = "%1-%2"_s.arg(QFileInfo(m_work.path()).fileName()).arg(++m_repoCount);
        const QString repo = m_nginx.www + QLatin1Char('/') + name;
        if (!PackTool::ok({"publish"_s, m_package, "--repo"_s, repo, "--module"_s, "demo"_s, "--version"_s, version}))
            return QString();
        if (folder)
            *folder = repo;
        return "http://127.0.0.1:%1/%2/"_s.arg(m_nginx.http).arg(name);
    }

    // older: the folder of an older version that the install removes first.
    bool configure(Client &client, const QString &repository, bool online = true, int retryRounds = 0,
                   const QString &older = QString())
    {
        const QByteArray json = QString::fromUtf8(kProduct).arg(repository, m_work.path()).toUtf8();
        QVariantMap config = QJsonDocument::fromJson(json).object().toVariantMap();
        if (retryRounds > 0)
            config.insert("download"_s, QVariantMap{{"retryInterval"_s, 1}, {"retryRounds"_s, retryRounds}});
        storeUserSetting("SOFTWARE/Arvenor/Old/path"_s, older);
        client.manager.setNeedUninstallOlder(!older.isEmpty());
        if (client.manager.setConfigData(config) != CBEnum::EC_NoError)
            return false;
        return !online || client.manager.initRemote() == CBEnum::EC_NoError;
    }

    int packageRequests(const QString &repoName) const
    {
        return readFile(m_nginx.accessLog).count(QByteArray("/" + repoName.toUtf8() + "/modules/demo/demo"));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        if (!m_nginx.load())
            QSKIP("the nginx fixture is not running");
        m_source = path("source"_s);
        m_package = path("demo.tolmpkg"_s);
        QVERIFY(PackTool::makeDemoPackage(m_source, m_package, 3 << 20));
        QVERIFY(writeFile(path("patch/demo"_s), "demo 1.0.1"));
        m_bigPackage = path("big.tolmpkg"_s);
        QFile big(m_bigPackage);
        QVERIFY(big.open(QIODevice::WriteOnly) && big.resize(qint64(256) << 20));
        QVERIFY(writeFile(m_bigPackage + ".verify"_s, PackTool::md5Of(m_bigPackage).toLatin1()));
    }

    // Install, a second install that reuses the cached package, then the update,
    // the patch and the uninstall, each checked on the machine.
    void onlineLifecycle()
    {
        Client client;
        LogCapture log;
        QString folder;
        QVERIFY(configure(client, publish(&folder)));
        const QString repoName = QFileInfo(folder).fileName();
        const QString inst = path("online/inst"_s);

        QVERIFY(client.manager.onlineInstall(inst));
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QCOMPARE(client.events,
                 (QStringList{"TS_Downloading"_s, "TS_Uncompressing"_s, "TS_Installing"_s, "TS_Finished"_s,
                              "installPackageFinished"_s, "onlineInstallFinished"_s, "finished"_s}));
        QCOMPARE(client.progressFault(), QString());
        // Each stage keeps to its share of the bar.
        for (const auto &band : qAsConst(client.bands)) {
            const double p = band.second;
            const bool inBand = band.first == CBEnum::TS_Downloading ? p <= 50.0
                : band.first == CBEnum::TS_Uncompressing            ? p >= 50.0 && p <= 80.0
                                                                    : p >= 80.0;
            QVERIFY2(inBand, qPrintable("%1 at %2"_s.arg(statusName(band.first)).arg(p)));
        }
        QCOMPARE(readFile(inst + "/bin/demo"_s), QByteArray("demo 1.0"));
        QCOMPARE(shortcutTarget(path("links/Demo.lnk"_s)), inst + "/bin/demo"_s);
        QCOMPARE(packageRequests(repoName), 1);
        QVERIFY(QDir(inst + "/arvenorDownloadCache"_s).exists());

        // The same package into the same path: nothing is downloaded, and
        // the flow goes on as if the download had just ended.
        client.clear();
        QVERIFY(client.manager.onlineInstall(inst));
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QCOMPARE(client.events, (QStringList{"TS_Uncompressing"_s, "TS_Installing"_s, "TS_Finished"_s,
                                             "installPackageFinished"_s, "onlineInstallFinished"_s, "finished"_s}));
        QCOMPARE(packageRequests(repoName), 1);
        QCOMPARE(client.progressFault(), QString());

        // Update: version 2 downloaded as an offline package, unpacked over the
        // installation, then the update operation.
        QVERIFY(writeFile(m_source + "/data/changes.txt"_s, "changes 2.0"));
        const QString package2 = path("demo-2.tolmpkg"_s);
        QVERIFY(PackTool::ok({"create"_s, m_source, "-o"_s, package2}));
        QVERIFY(writeFile(m_source + "/data/changes.txt"_s, "changes 1.0"));
        QVERIFY(PackTool::ok(
            {"publish"_s, package2, "--repo"_s, folder, "--module"_s, "demo"_s, "--version"_s, "2.0.0"_s}));
        client.clear();
        client.manager.downloadPackage(path("online/download"_s));
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QVERIFY(client.events.contains("downloadPackageFinished"_s));
        QCOMPARE(client.progressFault(), QString());
        QCOMPARE(client.manager.installPath(), path("online/download"_s)); // where a retry downloads again
        QString found;
        QVERIFY(client.manager.searchOfflinePackage(path("online/download"_s), found, QString()));
        QVERIFY(QFile::exists(found + ".verify"_s));

        client.clear();
        client.manager.uncompressPackage(found, inst);
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QVERIFY(client.events.contains("uncompressPackageFinished"_s));
        client.clear();
        QVERIFY(client.manager.installPackage());
        QCOMPARE(client.events.count("installPackageFinished"_s), 1);
        QCOMPARE(client.events.last(), "finished"_s);
        QCOMPARE(readFile(inst + "/CHANGES.txt"_s), QByteArray("changes 2.0"));
        QCOMPARE(client.progressFault(), QString());

        client.clear();
        QVERIFY(client.manager.installPatch());
        QCOMPARE(client.events.last(), "finished"_s);
        QCOMPARE(readFile(inst + "/bin/demo"_s), QByteArray("demo 1.0.1"));

        client.clear();
        QVERIFY(client.manager.uninstallPackage("uninstall"_s));
        QCOMPARE(client.events,
                 (QStringList{"TS_Uninstalling"_s, "uninstallPackageFinished"_s, "TS_Finished"_s, "finished"_s}));
        QCOMPARE(client.progressFault(), QString());
        QVERIFY(!QFile::exists(inst + "/bin/demo"_s));
        QVERIFY(!QFile::exists(inst + "/CHANGES.txt"_s));
        QCOMPARE(log.count("errorOccured"_s, QtCriticalMsg), 0);
    }

    // The index announces an MD5 the bytes do not have (their SHA-256 is
    // right): the file is never installed, it is deleted and fetched again.
    void md5Mismatch()
    {
        Client client;
        QString folder;
        const QString url = publish(&folder);
        const QString indexPath = folder + "/modules/demo/index.json"_s;
        QJsonObject index = QJsonDocument::fromJson(readFile(indexPath)).object();
        QJsonArray versions = index.value("versions"_s).toArray();
        QJsonObject entry = versions.first().toObject();
        entry.insert("md5"_s, QString(32, QLatin1Char('0')));
        versions[0] = entry;
        index.insert("versions"_s, versions);
        QVERIFY(writeFile(indexPath, QJsonDocument(index).toJson()));
        QVERIFY(configure(client, url));

        const QString inst = path("md5/inst"_s);
        QVERIFY(client.manager.onlineInstall(inst));
        QVERIFY(QTest::qWaitFor([&] { return packageRequests(QFileInfo(folder).fileName()) >= 2; }, 30000));
        QVERIFY(client.events.contains("error EC_VerifyFailed"_s));
        client.manager.revocateInstall();
        QVERIFY(!QFile::exists(inst + "/bin/demo"_s));
        QVERIFY(!client.events.contains("TS_Uncompressing"_s));
    }

    // A repository that answers 503: four attempts at once, then a pause of
    // the configured interval, then the next round.
    void retryRhythm()
    {
        QString folder;
        publish(&folder);
        FaultServer faults;
        QVERIFY(faults.start(folder));
        Client client;
        LogCapture log;
        QVERIFY(configure(client, faults.url("down"_s)));
        QVERIFY(client.manager.onlineInstall(path("retry/inst"_s)));

        QVERIFY2(QTest::qWaitFor([&] { return log.contains("retry too more"_s); }, 30000), qPrintable(log.dump()));
        QElapsedTimer pause;
        pause.start();
        const auto retries = [&] { return log.count(" O_OnlineInstall"_s, QtWarningMsg); };
        const int firstRound = retries();
        QVERIFY(QTest::qWaitFor([&] { return retries() > firstRound; }, 30000));
        QVERIFY2(pause.elapsed() >= 800, qPrintable(QString::number(pause.elapsed())));
        // The new round's attempt reaches the server a moment after it is logged.
        QVERIFY(QTest::qWaitFor([&] { return faults.log().count("GET /down/modules/demo/demo") >= 6; }, 30000));
        client.manager.revocateInstall();
        QCOMPARE(firstRound, 4);
        // No attempt was reported as an error: the engine keeps trying.
        QVERIFY(client.events.filter("error"_s).isEmpty());

        // With a limit of one round, the round's end is the task's end.
        Client limited;
        QVERIFY(configure(limited, faults.url("down"_s), true, 1));
        QVERIFY(limited.manager.onlineInstall(path("retry/limited"_s)));
        QVERIFY(QTest::qWaitFor([&] { return !limited.events.filter("error"_s).isEmpty(); }, 30000));
        QCOMPARE(limited.events.filter("error"_s), QStringList{"error EC_UnknownNetworkError"_s});
        QCOMPARE(limited.manager.taskStatus(), uint(CBEnum::TS_Aborted));

        // A package an earlier client recorded in another folder is installed
        // from there at the first retry.
        Client reusing;
        const QString earlier = path("retry/earlier/demo.tolmpkg"_s);
        QVERIFY(writeFile(earlier, readFile(m_package)));
        const QVariantMap record{{"path"_s, earlier}, {"bytesTotal"_s, QFileInfo(earlier).size()},
                                 {"file"_s, QVariantMap{{"name"_s, "demo.tolmpkg"_s}}}};
        storeUserSetting(kRecords, QVariantMap{{QCoreApplication::applicationName(), record}});
        QVERIFY(configure(reusing, faults.url("down"_s)) && reusing.manager.onlineInstall(path("retry/reused"_s)));
        QVERIFY2(reusing.waitFor("finished"_s), qPrintable(reusing.events.join(QLatin1Char(','))));
        QCOMPARE(readFile(path("retry/reused/bin/demo"_s)), QByteArray("demo 1.0"));
    }

    void interruptions_data()
    {
        // during: the status at which the client acts ("update": inside installPackage());
        // TS_Verifying is the check of a large offline package.
        QTest::addColumn<QString>("during");
        QTest::addColumn<QString>("action"); // revoke, delete (the Manager) or reconfigure
        QTest::addColumn<bool>("olderKept");
        for (const QString &action : {"revoke"_s, "delete"_s}) {
            QTest::addRow("%s download", qPrintable(action)) << "TS_Downloading"_s << action << true;
            QTest::addRow("%s check", qPrintable(action)) << "TS_Verifying"_s << action << true;
            QTest::addRow("%s unpack", qPrintable(action)) << "TS_Uncompressing"_s << action << false;
            QTest::addRow("%s install", qPrintable(action)) << "TS_Installing"_s << action << false;
            QTest::addRow("%s update", qPrintable(action)) << "update"_s << action << false;
        }
        // The running check works on the configuration it started with.
        QTest::newRow("reconfigure check") << "TS_Verifying"_s << "reconfigure"_s << false;
    }

    // Whatever the client does while a task runs, a second task is refused,
    // the task ends once and the older version goes only if its removal had
    // begun; nothing crashes (run under the sanitizers too).
    void interruptions()
    {
        QFETCH(QString, during);
        QFETCH(QString, action);
        QFETCH(bool, olderKept);
        const QString tag = QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'));
        const QString older = path("older-"_s + tag);
        const QString inst = path("interrupt-"_s + tag);
        QVERIFY(writeFile(older + "/old.txt"_s, "1.0"));
        QString folder;
        QString url = publish(&folder);
        FaultServer faults;
        if (during == "TS_Downloading"_s) {
            QVERIFY(faults.start(folder));
            url = faults.url("stall"_s);
        }
        auto client = std::make_unique<Client>();
        LogCapture log;
        QVERIFY(configure(*client, url, true, 0, older));
        bool acted = false, refused = false;
        const auto act = [&] {
            acted = true;
            refused = !client->manager.onlineInstall(inst + "-second"_s);
            if (action == "revoke"_s)
                client->manager.revocateInstall();
            else if (action == "delete"_s)
                client->owner.reset();
            else // a configuration without an older version
                configure(*client, url, false, 0, QString());
        };
        QObject context;
        QObject::connect(&client->manager, &Manager::taskStatusChanged, &context, [&](uint status) {
            if (!acted && statusName(status) == (during == "update"_s ? "TS_Installing"_s : during))
                QTimer::singleShot(during == "TS_Downloading"_s ? 300 : 0, &context, act);
        });
        client->manager.setInstallPath(inst);
        if (during == "update"_s)
            QVERIFY(!client->manager.installPackage());
        else if (during == "TS_Verifying"_s)
            client->manager.offlineInstall(m_bigPackage);
        else
            QVERIFY(client->manager.onlineInstall(inst));
        QTRY_VERIFY_WITH_TIMEOUT(acted, 30000);
        QVERIFY(refused);
        QVERIFY(log.contains("task refused, a task is running"_s, QtWarningMsg));
        if (action == "delete"_s) // inside installPackage() the engine goes once that call returned
            QTRY_VERIFY_WITH_TIMEOUT(log.contains("delete ptrmanager"_s), 30000);
        else
            QTRY_VERIFY_WITH_TIMEOUT(client->events.contains("finished"_s), 30000);
        if (action == "revoke"_s)
            QCOMPARE(client->events.mid(client->events.indexOf("TS_Aborted"_s)),
                     (QStringList{"TS_Aborted"_s, "finished"_s}));
        client.reset(); // waits for whatever of the task still runs
        QCOMPARE(QFile::exists(older + "/old.txt"_s), olderKept);
        // Nothing was installed after the task ended.
        QVERIFY(action == "reconfigure"_s
                || shortcutTarget(path("links/Demo.lnk"_s)) != inst + "/bin/demo"_s);
    }

    // From a folder holding the package and its .verify companion.
    void offlineInstall()
    {
        const QString media = path("media"_s);
        QVERIFY(QDir().mkpath(media));
        QVERIFY(QFile::copy(m_package, media + "/demo.tolmpkg"_s));
        QVERIFY(QFile::copy(m_package + ".verify"_s, media + "/demo.tolmpkg.verify"_s));
        Client client;
        QVERIFY(configure(client, "file:///nowhere/"_s, false));
        const QString inst = path("offline/inst"_s);
        client.manager.setInstallPath(inst);
        client.manager.offlineInstall(media);
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QCOMPARE(client.events, (QStringList{"TS_Verifying"_s, "TS_Uncompressing"_s, "TS_Installing"_s,
                                             "TS_Finished"_s, "installPackageFinished"_s, "finished"_s}));
        QCOMPARE(client.progressFault(), QString());
        QCOMPARE(readFile(inst + "/bin/demo"_s), QByteArray("demo 1.0"));
    }

    void offlineFailures_data()
    {
        QTest::addColumn<QString>("verify"); // content of the companion; "-" for none
        QTest::addColumn<QString>("package");
        QTest::addColumn<QString>("expected");
        QTest::newRow("digest with a line break") << "%md5\n"_s << "demo.tolmpkg"_s << "error EC_VerifyFailed"_s;
        QTest::newRow("upper-case digest") << "%MD5"_s << "demo.tolmpkg"_s << "error EC_VerifyFailed"_s;
        QTest::newRow("no package") << "-"_s << "missing.tolmpkg"_s << "error EC_FileNotOpen"_s;
    }

    void offlineFailures()
    {
        QFETCH(QString, verify);
        QFETCH(QString, package);
        QFETCH(QString, expected);
        QTemporaryDir media;
        QVERIFY(QFile::copy(m_package, media.filePath("demo.tolmpkg"_s)));
        const QString md5 = PackTool::md5Of(m_package);
        if (verify != "-"_s)
            QVERIFY(writeFile(media.filePath("demo.tolmpkg.verify"_s),
                              QString(verify).replace("%md5"_s, md5).replace("%MD5"_s, md5.toUpper()).toUtf8()));
        Client client;
        LogCapture log;
        QVERIFY(configure(client, "file:///nowhere/"_s, false));
        client.manager.setInstallPath(media.filePath("inst"_s));
        client.manager.offlineInstall(media.filePath(package));
        QVERIFY(QTest::qWaitFor([&] { return !client.events.filter("error"_s).isEmpty(); }, 30000));
        QCOMPARE(client.events.filter("error"_s), QStringList{expected});
        QCOMPARE(client.manager.taskStatus(), uint(CBEnum::TS_Aborted));
        QVERIFY(!QFile::exists(media.filePath("inst/bin/demo"_s)));
        QCOMPARE(log.count("errorOccured"_s, QtCriticalMsg), 1);
    }

    void selfUpgrade()
    {
        QString folder;
        const QString url = publish(&folder);
        const QString setup = path("setup.tolmpkg"_s);
        QVERIFY(QFile::copy(m_package, setup));
        QVERIFY(PackTool::ok({"publish"_s, setup, "--repo"_s, folder, "--model-code"_s, "DEMO-SETUP"_s,
                              "--version"_s, "3.1.0"_s}));
        Client client;
        QVERIFY(configure(client, url));
        QVERIFY(client.manager.checkSelfUpdateAndDownload());
        QVERIFY2(client.waitFor("finished"_s), qPrintable(client.events.join(QLatin1Char(','))));
        QCOMPARE(client.events, (QStringList{"TS_Downloading"_s, "selfUpgradeFinished"_s, "TS_Finished"_s, "finished"_s}));
        QCOMPARE(client.progressFault(), QString());
    }

    void initRemoteWithoutService()
    {
        Client client;
        LogCapture log;
        QCOMPARE(client.manager.setConfigData({{"install"_s, QVariantMap()}}), CBEnum::EC_NoError);
        QCOMPARE(client.manager.initRemote(), CBEnum::EC_ConfigDataError);
        QVERIFY(log.contains("vlcfg is empty"_s, QtCriticalMsg));
        QString id; // a plug-in that does not exist, through the one-argument form and the full one
        QCOMPARE(client.manager.requestPlugin("nothing"_s), client.manager.requestPlugin("nothing"_s, {}, id));
    }
};

CORBETH_TEST_MAIN(tst_ManagerFlows)
#include "tst_managerflows.moc"
