#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/manager.h>
#include <vindal/package.h>
#include <vindal/repository.h>

#include <QtConcurrent/QtConcurrentRun>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

using namespace Vindal;
using namespace VindalTest;

namespace {
const QString Module = QStringLiteral("app");
const QString FileName = QStringLiteral("app-1.2.tolmpkg");
} // namespace

class tst_VindalManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void configErrors_data();
    void configErrors();
    void downloadFromNginx();
    void resumeAfterAbort();
    void faults_data();
    void faults();
    void serverIgnoringRangeRestarts();
    void https_data();
    void https();
    void signatures_data();
    void signatures();
    void mirrors();
    void downgradeProtection();
    void abortCancels();
    void upgrades();
    void unpack();
    void fileRepository();

private:
    // A fresh repository folder served by nginx for the running test, with
    // the package published as version 1.2; its base URL.
    QString publishToNginx(const QString &secretKey = QString());
    QVariantMap config(const QString &base, const QVariantMap &more = QVariantMap()) const;
    int configure(Manager *manager, const QVariantMap &config);
    QVariantMap download(Manager *manager, QList<QPair<qint64, qint64>> *progress = nullptr);
    QString storedFile() const { return m_store.filePath(FileName); }

    Nginx m_nginx;
    bool m_haveNginx = false;
    QTemporaryDir m_dir;
    QDir m_store;
    QString m_source;
    QString m_package;
    QString m_key;
    QString m_publicKey;
    QString m_repo;
};

void tst_VindalManager::initTestCase()
{
    QVERIFY(m_dir.isValid());
    qputenv("VINDAL_STATE_FILE", QFile::encodeName(m_dir.filePath(QStringLiteral("state/vindal.json"))));
    m_haveNginx = m_nginx.load();
    m_source = m_dir.filePath(QStringLiteral("source"));
    QVERIFY(writeFile(m_source + QLatin1String("/bin/app"), "#!/bin/sh\n"));
    QVERIFY(writeFile(m_source + QLatin1String("/data/blob.bin"), pseudoRandom(2 * 1024 * 1024, 7)));
    m_package = m_dir.filePath(FileName);
    QVERIFY(Package::create(m_source, m_package));
    const Outcome keys = Repository::keygen(m_dir.filePath(QStringLiteral("maker")));
    QVERIFY(keys);
    m_key = m_dir.filePath(QStringLiteral("maker.key"));
    m_publicKey = keys.subject;
}

void tst_VindalManager::init()
{
    // Every test starts without downloads and without a high-water mark.
    QDir(m_dir.filePath(QStringLiteral("store"))).removeRecursively();
    QDir(m_dir.filePath(QStringLiteral("state"))).removeRecursively();
    m_store = QDir(m_dir.filePath(QStringLiteral("store")));
    const QString name = QString::fromLatin1(QTest::currentTestFunction()) + QLatin1Char('-')
        + QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('_'));
    m_repo = (m_haveNginx ? m_nginx.www : m_dir.path()) + QLatin1String("/repo-") + name;
    QDir(m_repo).removeRecursively();
}

QString tst_VindalManager::publishToNginx(const QString &secretKey)
{
    if (!Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2"), secretKey))
        return QString();
    return QStringLiteral("http://127.0.0.1:%1/%2/").arg(m_nginx.http).arg(QFileInfo(m_repo).fileName());
}

QVariantMap tst_VindalManager::config(const QString &base, const QVariantMap &more) const
{
    QVariantMap map{
        {QStringLiteral("repository"), base},
        {QStringLiteral("proxy"), QStringLiteral("none")},
        {QStringLiteral("stallTimeout"), 5},
        {QStringLiteral("retries"), 1},
        {QStringLiteral("moduleInfo"), QVariantMap{{QStringLiteral("module"), Module}}},
        {QStringLiteral("startDownload"), QVariantMap{{QStringLiteral("temporaryStoragePath"), m_store.path()}}},
    };
    for (auto it = more.cbegin(); it != more.cend(); ++it)
        map.insert(it.key(), it.value());
    return map;
}

int tst_VindalManager::configure(Manager *manager, const QVariantMap &config)
{
    Reply *reply = manager->setConfigData(config);
    const QVariantMap finished = waitFinished(reply);
    delete reply;
    return finished.value(QStringLiteral("errorCode"), -1).toInt();
}

QVariantMap tst_VindalManager::download(Manager *manager, QList<QPair<qint64, qint64>> *progress)
{
    Reply *reply = manager->downloadOfflineModule(QStringLiteral("/opt/product"), VDBasicInfo());
    if (progress) {
        connect(reply, &Reply::downloadProgress, this, [progress](qint64 received, qint64 total) {
            progress->append({received, total});
        });
    }
    const QVariantMap finished = waitFinished(reply, 60000);
    delete reply;
    return finished;
}

void tst_VindalManager::configErrors_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("no repository") << "repository" << QVariant(QString());
    QTest::newRow("ftp repository") << "repository" << QVariant(QStringLiteral("ftp://127.0.0.1/repo/"));
    QTest::newRow("bad mirror") << "mirrors" << QVariant(QStringList{QStringLiteral("not a url")});
    QTest::newRow("zero stall") << "stallTimeout" << QVariant(0);
    QTest::newRow("stall as text") << "stallTimeout" << QVariant(QStringLiteral("soon"));
    QTest::newRow("bad public key") << "publicKey" << QVariant(QStringLiteral("AAAA"));
    QTest::newRow("bad proxy") << "proxy" << QVariant(QStringLiteral("ftp://127.0.0.1:1"));
    QTest::newRow("missing CA file") << "caFile" << QVariant(QStringLiteral("/nonexistent/ca.pem"));
    QTest::newRow("bad module") << "moduleInfo" << QVariant(QVariantMap{{QStringLiteral("module"), QStringLiteral("../app")}});
}

void tst_VindalManager::configErrors()
{
    QFETCH(QString, key);
    QFETCH(QVariant, value);
    Manager manager;
    Reply *reply = manager.setConfigData(config(QStringLiteral("http://127.0.0.1:1/"), {{key, value}}));
    QCOMPARE(reply->status(), Error::ConfigError); // known at once, before finished()
    const QVariantMap finished = waitFinished(reply);
    delete reply;
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), 0x5072007);
    QVERIFY2(finished.value(QStringLiteral("errorMessage")).toString().contains(key),
             qPrintable(finished.value(QStringLiteral("errorMessage")).toString()));

    // Without a usable configuration nothing is downloaded.
    reply = manager.downloadModule(Module, VDBasicInfo());
    QCOMPARE(waitFinished(reply).value(QStringLiteral("errorCode")).toInt(), 0x5072007);
    delete reply;
}

void tst_VindalManager::downloadFromNginx()
{
    if (!m_haveNginx)
        QSKIP("the nginx fixture is not running");
    const QString base = publishToNginx(m_key);
    QVERIFY(!base.isEmpty());
    Manager manager;
    QCOMPARE(configure(&manager, config(base, {{QStringLiteral("publicKey"), m_publicKey}})), 0);

    // The package is known from the configuration on, from any thread.
    const QVariantMap info = QtConcurrent::run([&manager] { return manager.packageInfo(); }).result();
    QCOMPARE(info.value(QStringLiteral("version")).toString(), QStringLiteral("1.2"));
    QCOMPARE(info.value(QStringLiteral("bytesTotal")).toLongLong(), QFileInfo(m_package).size());
    QCOMPARE(info.value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString(), FileName);

    QList<QPair<qint64, qint64>> progress;
    QElapsedTimer timer;
    timer.start();
    const QVariantMap finished = download(&manager, &progress);
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), 0);
    const QVariantMap result = finished.value(QStringLiteral("result")).toMap();
    const FileDigest digest = FileDigest::ofFile(m_package);
    QCOMPARE(result.value(QStringLiteral("path")).toString(), storedFile());
    QCOMPARE(result.value(QStringLiteral("md5Value")).toString(), digest.md5);
    QCOMPARE(result.value(QStringLiteral("bytesTotal")).toLongLong(), digest.size);
    QCOMPARE(result.value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString(), FileName);
    QCOMPARE(result.value(QStringLiteral("version")).toString(), QStringLiteral("1.2"));
    QCOMPARE(readFile(storedFile()), readFile(m_package));
    QCOMPARE(readFile(storedFile() + QLatin1String(".verify")), digest.md5.toLatin1());
    QCOMPARE(m_store.entryList(QDir::Files), (QStringList{FileName, FileName + QLatin1String(".verify")}));

    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last(), qMakePair(digest.size, digest.size));
    QVERIFY(progress.size() <= timer.elapsed() / 50 + 2);

    // A complete file already in place is taken as it is.
    const int requests = readFile(m_nginx.accessLog).count(FileName.toLatin1());
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), 0);
    QCOMPARE(readFile(m_nginx.accessLog).count(FileName.toLatin1()), requests);
}

void tst_VindalManager::resumeAfterAbort()
{
    if (!m_haveNginx)
        QSKIP("the nginx fixture is not running");
    const QString base = publishToNginx();
    const QString slow = QStringLiteral("http://127.0.0.1:%1/slow/%2/").arg(m_nginx.http).arg(QFileInfo(m_repo).fileName());
    Manager manager;
    QCOMPARE(configure(&manager, config(slow)), 0);
    Reply *reply = manager.downloadModule(Module, VDBasicInfo());
    connect(reply, &Reply::downloadProgress, reply, [reply](qint64 received) {
        if (received > 200 * 1024)
            reply->abort();
    });
    QCOMPARE(waitFinished(reply).value(QStringLiteral("errorCode")).toInt(), int(Error::Cancelled));
    delete reply;
    const qint64 part = QFileInfo(storedFile() + QLatin1String(".part")).size();
    QVERIFY(part > 0);
    QVERIFY(!QFileInfo::exists(storedFile()));

    QCOMPARE(configure(&manager, config(base)), 0);
    QList<QPair<qint64, qint64>> progress;
    QCOMPARE(download(&manager, &progress).value(QStringLiteral("errorCode")).toInt(), 0);
    QCOMPARE(readFile(storedFile()), readFile(m_package));
    QVERIFY(progress.first().first >= part);
    QVERIFY(readFile(m_nginx.accessLog).contains("/" + FileName.toLatin1() + " HTTP/1.1\" 206"));
}

void tst_VindalManager::faults_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("code");
    QTest::newRow("ok") << "ok" << 0;
    QTest::newRow("dropped connection") << "drop" << 0;
    QTest::newRow("503 then success") << "busy" << 0;
    QTest::newRow("endless body") << "endless" << 0;
    QTest::newRow("redirect to http") << "tohttp" << 0;
    QTest::newRow("wrong length") << "short" << int(Error::ChecksumMismatch);
    QTest::newRow("wrong content") << "corrupt" << int(Error::ChecksumMismatch);
    QTest::newRow("stall") << "stall" << int(Error::Timeout);
}

void tst_VindalManager::faults()
{
    QFETCH(QString, fault);
    QFETCH(int, code);
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2")));
    FaultServer server;
    QVERIFY(server.start(m_repo));
    Manager manager;
    QCOMPARE(configure(&manager, config(server.url(fault), {{QStringLiteral("stallTimeout"), 0.5}})), 0);
    QElapsedTimer timer;
    timer.start();
    const QVariantMap finished = download(&manager);
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), code);
    QVERIFY(timer.elapsed() < 15000);
    if (code == 0) {
        QCOMPARE(readFile(storedFile()), readFile(m_package));
    } else {
        // Never a wrong file under the final name.
        QVERIFY(!QFileInfo::exists(storedFile()));
        QVERIFY(!finished.value(QStringLiteral("errorMessage")).toString().isEmpty());
    }
    if (fault == QLatin1String("drop")) // resumed, not started again
        QVERIFY2(server.log().contains(FileName.toLatin1() + " Range: bytes="), server.log().constData());
}

void tst_VindalManager::serverIgnoringRangeRestarts()
{
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2")));
    FaultServer server;
    QVERIFY(server.start(m_repo));
    Manager manager;
    QCOMPARE(configure(&manager, config(server.url(QStringLiteral("drop")), {{QStringLiteral("retries"), 0}})), 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), int(Error::DownloadFailed));
    const qint64 part = QFileInfo(storedFile() + QLatin1String(".part")).size();
    QVERIFY(part > 0);

    // A connection closed before any answer leaves the part file as it is.
    QCOMPARE(configure(&manager, config(server.url(QStringLiteral("hangup")), {{QStringLiteral("retries"), 0}})), 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), int(Error::DownloadFailed));
    QCOMPARE(QFileInfo(storedFile() + QLatin1String(".part")).size(), part);

    QCOMPARE(configure(&manager, config(server.url(QStringLiteral("norange")))), 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), 0);
    QCOMPARE(readFile(storedFile()), readFile(m_package));
    QVERIFY(server.log().contains("/norange/modules/app/" + FileName.toLatin1() + " Range: bytes="));
}

void tst_VindalManager::https_data()
{
    QTest::addColumn<bool>("trustCa");
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::newRow("untrusted") << false << "" << int(Error::DownloadFailed) << "certificate";
    QTest::newRow("configured CA") << true << "" << 0 << "";
    QTest::newRow("redirect to http") << true << "to-http/" << int(Error::DownloadFailed) << "https to http";
}

void tst_VindalManager::https()
{
    QFETCH(bool, trustCa);
    QFETCH(QString, prefix);
    QFETCH(int, code);
    QFETCH(QString, message);
    if (!m_haveNginx)
        QSKIP("the nginx fixture is not running");
    QVERIFY(!publishToNginx().isEmpty());
    const QString base = QStringLiteral("https://127.0.0.1:%1/%2%3/").arg(m_nginx.https).arg(prefix, QFileInfo(m_repo).fileName());
    Manager manager;
    QCOMPARE(configure(&manager, config(base, trustCa ? QVariantMap{{QStringLiteral("caFile"), m_nginx.caFile}} : QVariantMap())), 0);
    const QVariantMap finished = download(&manager);
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), code);
    QVERIFY2(finished.value(QStringLiteral("errorMessage")).toString().contains(message),
             qPrintable(finished.value(QStringLiteral("errorMessage")).toString()));
    QCOMPARE(QFileInfo::exists(storedFile()), code == 0);
}

void tst_VindalManager::signatures_data()
{
    QTest::addColumn<QString>("repository"); // "signed", "unsigned", "other key", "other module"
    QTest::addColumn<int>("code");
    QTest::newRow("signed") << "signed" << 0;
    QTest::newRow("unsigned") << "unsigned" << int(Error::SignatureInvalid);
    QTest::newRow("signed with another key") << "other key" << int(Error::SignatureInvalid);
    QTest::newRow("another module's index") << "other module" << int(Error::InvalidIndex);
}

void tst_VindalManager::signatures()
{
    QFETCH(QString, repository);
    QFETCH(int, code);
    QString key = m_key;
    if (repository == QLatin1String("unsigned"))
        key.clear();
    if (repository == QLatin1String("other key")) {
        QVERIFY(Repository::keygen(m_dir.filePath(QStringLiteral("intruder"))) || QFileInfo::exists(m_dir.filePath(QStringLiteral("intruder.key"))));
        key = m_dir.filePath(QStringLiteral("intruder.key"));
    }
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2"), key));
    if (repository == QLatin1String("other module")) {
        // A genuine, signed index, but of "tool": it must not pass for "app".
        QVERIFY(Repository::publish(m_package, m_repo, QStringLiteral("tool"), QStringLiteral("1.2"), m_key));
        for (const QString &name : {QStringLiteral("index.json"), QStringLiteral("index.json.sig")}) {
            QFile::remove(m_repo + QLatin1String("/modules/app/") + name);
            QVERIFY(QFile::copy(m_repo + QLatin1String("/modules/tool/") + name, m_repo + QLatin1String("/modules/app/") + name));
        }
    }
    Manager manager;
    QCOMPARE(configure(&manager, config(QUrl::fromLocalFile(m_repo).toString(), {{QStringLiteral("publicKey"), m_publicKey}})), 0);
    QCOMPARE(manager.packageInfo().isEmpty(), code != 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), code);
    QCOMPARE(QFileInfo::exists(storedFile()), code == 0);
}

void tst_VindalManager::mirrors()
{
    if (!m_haveNginx)
        QSKIP("the nginx fixture is not running");
    const QString base = publishToNginx();
    QTcpServer closed; // a port nobody listens on any more
    QVERIFY(closed.listen(QHostAddress::LocalHost));
    const QString dead = QStringLiteral("http://127.0.0.1:%1/repo/").arg(closed.serverPort());
    closed.close();
    Manager manager;
    QCOMPARE(configure(&manager, config(dead, {{QStringLiteral("mirrors"), QStringList{base}}})), 0);
    const QVariantMap finished = download(&manager);
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), 0);
    QVERIFY(finished.value(QStringLiteral("result")).toMap().value(QStringLiteral("url")).toString().startsWith(base));
}

void tst_VindalManager::downgradeProtection()
{
    const QString older = m_dir.filePath(QStringLiteral("app-1.0.tolmpkg"));
    QVERIFY(QFile::copy(m_package, older) || QFileInfo::exists(older));
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2")));
    const QString base = QUrl::fromLocalFile(m_repo).toString();
    Manager manager;
    QCOMPARE(configure(&manager, config(base)), 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), 0);

    // The repository now offers only an older version.
    QDir(m_repo).removeRecursively();
    QVERIFY(Repository::publish(older, m_repo, Module, QStringLiteral("1.0")));
    QCOMPARE(configure(&manager, config(base)), 0);
    const QVariantMap refused = download(&manager);
    QCOMPARE(refused.value(QStringLiteral("errorCode")).toInt(), int(Error::DowngradeRefused));

    // A pinned version is what the product owner asked for.
    VDBasicInfo pinned;
    pinned.version = QStringLiteral("1.0");
    Reply *reply = manager.downloadModule(Module, pinned);
    QCOMPARE(waitFinished(reply).value(QStringLiteral("errorCode")).toInt(), 0);
    delete reply;
    QVERIFY(QFileInfo::exists(m_dir.filePath(QStringLiteral("state/vindal.json"))));
}

void tst_VindalManager::abortCancels()
{
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2")));
    FaultServer server;
    QVERIFY(server.start(m_repo));
    Manager manager;
    QCOMPARE(configure(&manager, config(server.url(QStringLiteral("stall")))), 0);
    Reply *reply = manager.downloadModule(Module, VDBasicInfo());
    QSignalSpy finished(reply, &Reply::finished);
    QSignalSpy progress(reply, &Reply::downloadProgress);
    QVERIFY(progress.wait(5000));
    reply->abort();
    QVERIFY(finished.wait(2000));
    QTest::qWait(100);
    QCOMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toMap().value(QStringLiteral("errorCode")).toInt(), 0x507200A);
    QCOMPARE(reply->status(), Error::Cancelled);
    delete reply;

    // Deleting a running reply stops its transfer quietly.
    reply = manager.downloadModule(Module, VDBasicInfo());
    QTest::qWait(200);
    delete reply;
    QTest::qWait(100);
}

void tst_VindalManager::upgrades()
{
    for (const auto &upgrade : {qMakePair(QStringLiteral("M1"), QStringLiteral("1.0")), qMakePair(QStringLiteral("M1"), QStringLiteral("1.2")),
                                qMakePair(QStringLiteral("M2"), QStringLiteral("3.0"))}) {
        const QString file = m_dir.filePath(QStringLiteral("setup-%1-%2.tolmpkg").arg(upgrade.first, upgrade.second));
        QVERIFY(writeFile(file, (upgrade.first + upgrade.second).toLatin1()));
        QVERIFY(Repository::publishUpgrade(file, m_repo, upgrade.first, upgrade.second));
    }
    Manager manager;
    QCOMPARE(configure(&manager, config(QUrl::fromLocalFile(m_repo).toString())), 0);
    const auto check = [&manager](const QString &model, int limit, const QStringList &installed) {
        Reply *reply = manager.checkUpgrade(QStringLiteral("/opt/product"), model, QString(), QStringLiteral("2.3.4"), QString(),
                                            QString(), limit, installed, QStringList());
        const QVariantMap finished = waitFinished(reply);
        delete reply;
        QStringList found;
        for (const QVariant &entry : finished.value(QStringLiteral("result")).toMap().value(QStringLiteral("upgrades")).toList())
            found.append(entry.toMap().value(QStringLiteral("modelCode")).toString() + QLatin1Char(' ')
                         + entry.toMap().value(QStringLiteral("softVersion")).toString());
        return found;
    };
    QCOMPARE(check(QStringLiteral("M1"), 10, {}), (QStringList{QStringLiteral("M1 1.2"), QStringLiteral("M1 1.0")}));
    QCOMPARE(check(QStringLiteral("M1"), 1, {}), QStringList{QStringLiteral("M1 1.2")});
    QCOMPARE(check(QStringLiteral("M1"), 10, {QStringLiteral("1.2")}), QStringList());
    QCOMPARE(check(QString(), 10, {}).size(), 3);

    Reply *reply = manager.startUpgrade(QStringLiteral("M1"), QStringLiteral("1.2"), Manager::InstallerPackage);
    QVariantMap finished = waitFinished(reply);
    delete reply;
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), 0);
    const QString path = finished.value(QStringLiteral("result")).toMap().value(QStringLiteral("path")).toString();
    QCOMPARE(readFile(path), QByteArray("M11.2"));

    reply = manager.startUpgrade(QStringLiteral("M1"), QStringLiteral("9.9"), Manager::InstallerPackage);
    QCOMPARE(waitFinished(reply).value(QStringLiteral("errorCode")).toInt(), int(Error::NotFound));
    delete reply;
}

void tst_VindalManager::unpack()
{
    Manager manager;
    auto *reply = new Reply;
    QList<QPair<qint64, qint64>> progress;
    QThread *worker = nullptr;
    connect(reply, &Reply::progress, reply, [&](qint64 done, qint64 total) {
        worker = QThread::currentThread();
        progress.append({done, total});
    }, Qt::DirectConnection);
    const QString target = m_dir.filePath(QStringLiteral("installed"));
    manager.loadOfflinePackage(reply, m_package, target);
    QVariantMap finished = waitFinished(reply);
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), 0);
    QCOMPARE(snapshot(target), snapshot(m_source));
    QVERIFY(worker && worker != QThread::currentThread());
    const qint64 size = QFileInfo(m_package).size();
    QCOMPARE(progress.last(), qMakePair(size, size));
    delete reply;

    // A refused archive finishes with the code and names the entry.
    const QString evil = m_dir.filePath(QStringLiteral("evil.zip"));
    QVERIFY(writeFile(m_dir.filePath(QStringLiteral("evil/aa/b.txt")), "x"));
    QVERIFY(Package::create(m_dir.filePath(QStringLiteral("evil")), evil, Package::Zip));
    QByteArray bytes = readFile(evil);
    bytes.replace("aa/b.txt", "../b.txt"); // the same length in both headers
    QVERIFY(writeFile(evil, bytes));
    reply = new Reply;
    manager.loadOfflinePackage(reply, evil, target);
    finished = waitFinished(reply);
    delete reply;
    QCOMPARE(finished.value(QStringLiteral("errorCode")).toInt(), int(Error::UnsafeArchive));
    QCOMPARE(finished.value(QStringLiteral("result")).toMap().value(QStringLiteral("entry")).toString(), QStringLiteral("../b.txt"));
    QVERIFY(!QFileInfo::exists(m_dir.filePath(QStringLiteral("b.txt"))));
}

void tst_VindalManager::fileRepository()
{
    QVERIFY(Repository::publish(m_package, m_repo, Module, QStringLiteral("1.2")));
    Manager manager;
    QCOMPARE(configure(&manager, config(QUrl::fromLocalFile(m_repo).toString())), 0);
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), 0);
    QCOMPARE(readFile(storedFile()), readFile(m_package));

    // A product's engine configuration file works as it is.
    const QString product = m_dir.filePath(QStringLiteral("product.json"));
    QVERIFY(writeFile(product, QStringLiteral("{\"velmira\": {\"repository\": \"%1\", \"proxy\": \"none\"},"
                                              " \"downloadModuleInfo\": {\"module\": \"app\"}}")
                                   .arg(QUrl::fromLocalFile(m_repo).toString()).toUtf8()));
    Reply *reply = manager.setConfigPath(product);
    QCOMPARE(waitFinished(reply).value(QStringLiteral("errorCode")).toInt(), 0);
    delete reply;
    QCOMPARE(manager.packageInfo().value(QStringLiteral("version")).toString(), QStringLiteral("1.2"));
    reply = manager.setConfigPath(m_dir.filePath(QStringLiteral("missing.json")));
    QCOMPARE(reply->status(), Error::ConfigError);
    delete reply;

    QCOMPARE(configure(&manager, config(QUrl::fromLocalFile(m_dir.filePath(QStringLiteral("nowhere"))).toString())), 0);
    QCOMPARE(manager.packageInfo(), QVariantMap());
    QCOMPARE(download(&manager).value(QStringLiteral("errorCode")).toInt(), int(Error::NotFound));
}

CORBETH_TEST_MAIN(tst_VindalManager)
#include "tst_vindalmanager.moc"
