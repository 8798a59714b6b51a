#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/manager.h>
#include <vindal/package.h>
#include <vindal/repository.h>
#include <vindal/rollout.h>

#include <QtConcurrent/QtConcurrentRun>
#include <QtCore/QLockFile>
#include <QtTest/QtTest>

using namespace Vindal;
using namespace VindalTest;

namespace {
const QString Module = QStringLiteral("app");
const QString FileName = QStringLiteral("app-1.2.tolmpkg");
using Progress = QList<QPair<qint64, qint64>>;

int codeOf(const QVariantMap &finished)
{
    return finished.value("errorCode"_s, -1).toInt();
}

QVariantMap finish(Reply *reply, int timeoutMs = 60000)
{
    const QVariantMap finished = waitFinished(reply, timeoutMs);
    delete reply;
    return finished;
}
} // namespace

class tst_VindalManager : public QObject
{
    Q_OBJECT

    // Publishes the package as version 1.2 into this test's own repository
    // folder, which nginx serves when it runs.
    bool publish(const QString &key = QString()) { return bool(Repository::publish(m_package, m_repo, Module, "1.2"_s, key)); }
    QString nginxUrl(const QString &scheme = "http"_s, const QString &prefix = QString()) const
    {
        const int port = scheme == "http"_s ? m_nginx.http : m_nginx.https;
        return "%1://127.0.0.1:%2/%3%4/"_s.arg(scheme).arg(port).arg(prefix, QFileInfo(m_repo).fileName());
    }
    QString fileUrl() const { return QUrl::fromLocalFile(m_repo).toString(); }
    QVariantMap config(const QString &base, const QVariantMap &more = QVariantMap()) const
    {
        QVariantMap config{{"repository"_s, base}, {"proxy"_s, "none"_s}, {"stallTimeout"_s, 5}, {"retries"_s, 1},
                           {"moduleInfo"_s, QVariantMap{{"module"_s, Module}}},
                           {"startDownload"_s, QVariantMap{{"temporaryStoragePath"_s, m_store.path()}}}};
        config.insert(more);
        return config;
    }
    int configure(Manager &manager, const QString &base, const QVariantMap &more = QVariantMap())
    {
        return codeOf(finish(manager.setConfigData(config(base, more))));
    }
    QVariantMap download(Manager &manager, Progress *progress = nullptr)
    {
        Reply *reply = manager.downloadOfflineModule("/opt/product"_s, VDBasicInfo());
        if (progress)
            connect(reply, &Reply::downloadProgress, this, [progress](qint64 received, qint64 total) { progress->append({received, total}); });
        return finish(reply);
    }
    QString stored(const QString &suffix = QString()) const { return m_store.filePath(FileName + suffix); }

    Nginx m_nginx;
    bool m_haveNginx = false;
    QTemporaryDir m_dir;
    QDir m_store;
    QString m_source;
    QString m_package;
    QString m_key;
    QString m_publicKey;
    QString m_repo;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_haveNginx = m_nginx.load();
        m_source = m_dir.filePath("source"_s);
        QVERIFY(writeFile(m_source + "/bin/app"_s, "#!/bin/sh\n"));
        QVERIFY(writeFile(m_source + "/data/blob.bin"_s, pseudoRandom(2 * 1024 * 1024, 7)));
        m_package = m_dir.filePath(FileName);
        QVERIFY(Package::create(m_source, m_package));
        const Outcome keys = Repository::keygen(m_dir.filePath("maker"_s));
        QVERIFY(keys);
        m_key = m_dir.filePath("maker.key"_s);
        m_publicKey = keys.subject;
    }

    void init()
    {
        // Every test starts without downloads and without a high-water mark.
        qputenv("VINDAL_STATE_FILE", QFile::encodeName(m_dir.filePath("state/vindal.json"_s)));
        m_store = QDir(m_dir.filePath("store"_s));
        m_store.removeRecursively();
        QDir(m_dir.filePath("state"_s)).removeRecursively();
        const QString name = QString::fromLatin1(QTest::currentTestFunction()) + QLatin1Char('-')
            + QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('_'));
        m_repo = (m_haveNginx ? m_nginx.www : m_dir.path()) + "/repo-"_s + name;
        QDir(m_repo).removeRecursively();
    }

    void configErrors_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::newRow("no repository") << "repository" << QVariant(QString());
        QTest::newRow("ftp repository") << "repository" << QVariant("ftp://127.0.0.1/repo/"_s);
        QTest::newRow("bad mirror") << "mirrors" << QVariant(QStringList{"not a url"_s});
        QTest::newRow("zero stall") << "stallTimeout" << QVariant(0);
        QTest::newRow("zero rate window") << "rateWindow" << QVariant(0);
        QTest::newRow("stall as text") << "stallTimeout" << QVariant("soon"_s);
        QTest::newRow("bad public key") << "publicKey" << QVariant("AAAA"_s);
        QTest::newRow("empty public key") << "publicKey" << QVariant(""_s);
        QTest::newRow("blank public key") << "publicKey" << QVariant(" \n"_s);
        QTest::newRow("bad proxy") << "proxy" << QVariant("ftp://127.0.0.1:1"_s);
        QTest::newRow("missing CA file") << "caFile" << QVariant("/nonexistent/ca.pem"_s);
        QTest::newRow("bad module") << "moduleInfo" << QVariant(QVariantMap{{"module"_s, "../app"_s}});
    }

    void configErrors()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        Manager manager;
        Reply *reply = manager.setConfigData(config("http://127.0.0.1:1/"_s, {{key, value}}));
        QCOMPARE(reply->status(), Error::ConfigError); // known at once, before finished()
        const QVariantMap finished = finish(reply);
        QCOMPARE(codeOf(finished), 0x5072007);
        const QString message = finished.value("errorMessage"_s).toString();
        QVERIFY2(message.contains(key), qPrintable(message));
        // Without a usable configuration nothing is downloaded.
        QCOMPARE(codeOf(finish(manager.downloadModule(Module, VDBasicInfo()))), 0x5072007);
    }

    void downloadFromMirror()
    {
        if (!m_haveNginx)
            QSKIP("the nginx fixture is not running");
        QVERIFY(publish(m_key));
        Manager manager; // the repository is a port nobody listens on; its mirror works
        QCOMPARE(configure(manager, "http://127.0.0.1:1/repo/"_s, {{"mirrors"_s, QStringList{nginxUrl()}}, {"publicKey"_s, m_publicKey}}), 0);

        // The package is known from the configuration on, from any thread.
        const QVariantMap info = QtConcurrent::run([&manager] { return manager.packageInfo(); }).result();
        QCOMPARE(info.value("version"_s).toString(), "1.2"_s);
        QCOMPARE(info.value("bytesTotal"_s).toLongLong(), QFileInfo(m_package).size());
        QCOMPARE(info.value("file"_s).toMap().value("name"_s).toString(), FileName);

        Progress progress;
        QElapsedTimer timer;
        timer.start();
        const QVariantMap finished = download(manager, &progress);
        QCOMPARE(codeOf(finished), 0);
        const QVariantMap result = finished.value("result"_s).toMap();
        const FileDigest digest = FileDigest::ofFile(m_package);
        QVERIFY(result.value("url"_s).toString().startsWith(nginxUrl()));
        QCOMPARE(result.value("path"_s).toString(), stored());
        QCOMPARE(result.value("md5Value"_s).toString(), digest.md5);
        QCOMPARE(result.value("bytesTotal"_s).toLongLong(), digest.size);
        QCOMPARE(result.value("file"_s).toMap().value("name"_s).toString(), FileName);
        QCOMPARE(result.value("version"_s).toString(), "1.2"_s);
        QCOMPARE(readFile(stored()), readFile(m_package));
        QCOMPARE(readFile(stored(".verify"_s)), digest.md5.toLatin1());
        QCOMPARE(m_store.entryList(QDir::Files), (QStringList{FileName, FileName + ".verify"_s}));
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.last(), qMakePair(digest.size, digest.size));
        QVERIFY(progress.size() <= timer.elapsed() / 50 + 2);

        // A complete file already in place is taken as it is.
        const int requests = readFile(m_nginx.accessLog).count(FileName.toLatin1());
        QCOMPARE(codeOf(download(manager)), 0);
        QCOMPARE(readFile(m_nginx.accessLog).count(FileName.toLatin1()), requests);
    }

    // Each fault ends in the right file or a named error, in bounded time;
    // https is refused without the CA, and so is a redirect from https to http.
    void transfers_data()
    {
        QTest::addColumn<QString>("server"); // a fault of the fault server, or nginx over https
        QTest::addColumn<bool>("afterDrop"); // after a dropped transfer without retries left a part file
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("ok") << "ok" << false << 0 << "";
        QTest::newRow("dropped connection") << "drop" << false << 0 << "";
        QTest::newRow("lying mirror, honest mirror") << "liar" << false << 0 << "";
        QTest::newRow("link in place of the part file") << "ok part-link" << false << 0 << "";
        QTest::newRow("links in place of the package") << "ok package-link" << false << 0 << "";
        QTest::newRow("503 then success") << "busy" << false << 0 << "";
        QTest::newRow("endless body") << "endless" << false << 0 << "";
        QTest::newRow("redirect to http") << "tohttp" << false << 0 << "";
        QTest::newRow("wrong length") << "short" << false << int(Error::ChecksumMismatch) << "";
        QTest::newRow("wrong content") << "corrupt" << false << int(Error::ChecksumMismatch) << "";
        QTest::newRow("stall") << "stall" << false << int(Error::Timeout) << "";
        QTest::newRow("slow drip") << "drip" << false << int(Error::Timeout) << "minimum";
        QTest::newRow("deadline") << "drip deadline" << false << int(Error::Timeout) << "did not finish within 1 s";
        QTest::newRow("hangup keeps the part") << "hangup" << true << int(Error::DownloadFailed) << "";
        QTest::newRow("range ignored") << "norange" << true << 0 << "";
        QTest::newRow("https untrusted") << "https" << false << int(Error::DownloadFailed) << "certificate";
        QTest::newRow("https with the CA") << "https ca" << false << 0 << "";
        QTest::newRow("https to http") << "https ca to-http/" << false << int(Error::DownloadFailed) << "https to http";
    }

    void transfers()
    {
        QFETCH(QString, server);
        QFETCH(bool, afterDrop);
        QFETCH(int, code);
        QFETCH(QString, message);
        QVERIFY(publish());
        FaultServer faults;
        QString base;
        QVariantMap more{{"stallTimeout"_s, 0.5}, {"rateWindow"_s, 1}, {"retries"_s, afterDrop ? 0 : 1}};
        if (server.endsWith(" deadline"_s)) // the drip alone would go on for a minute
            more = {{"deadline"_s, 1}, {"minimumRate"_s, 0}};
        if (server.startsWith("https"_s)) {
            if (!m_haveNginx)
                QSKIP("the nginx fixture is not running");
            base = nginxUrl("https"_s, server.section(QLatin1Char(' '), 2));
            more = server.contains("ca"_s) ? QVariantMap{{"caFile"_s, m_nginx.caFile}} : QVariantMap();
        } else {
            QVERIFY(faults.start(m_repo));
            base = faults.url(server.section(QLatin1Char(' '), 0, 0));
            if (server == "liar"_s)
                more.insert("mirrors"_s, QStringList{faults.url("ok"_s)});
        }
        const QString sentinel = m_dir.filePath("sentinel"_s);
        if (server.endsWith("-link"_s)) { // someone's files linked in place of the download's own
            QVERIFY(writeFile(sentinel, "sentinel") && writeFile(sentinel + ".package"_s, readFile(m_package)) && m_store.mkpath("."_s));
            const bool part = server.endsWith("part-link"_s);
            QVERIFY(QFile::link(part ? sentinel : sentinel + ".package"_s, stored(part ? ".part"_s : QString())));
            QVERIFY(part ? writeFile(stored(".part.json"_s), R"({"sha256": "%1"})"_s.arg(FileDigest::ofFile(m_package).sha256).toUtf8())
                         : QFile::link(sentinel, stored(".verify"_s)));
        }
        Manager manager;
        qint64 part = 0;
        if (afterDrop) {
            QCOMPARE(configure(manager, faults.url("drop"_s), {{"retries"_s, 0}}), 0);
            QCOMPARE(codeOf(download(manager)), int(Error::DownloadFailed));
            QVERIFY((part = QFileInfo(stored(".part"_s)).size()) > 0);
        }
        QCOMPARE(configure(manager, base, more), 0);
        QElapsedTimer timer;
        timer.start();
        const QVariantMap finished = download(manager);
        QCOMPARE(codeOf(finished), code);
        QVERIFY(timer.elapsed() < 40000); // the faults themselves would go on for a minute
        const QString error = finished.value("errorMessage"_s).toString();
        QVERIFY2(error.contains(message) && (code == 0 || !error.isEmpty()), qPrintable(error));
        // Never a wrong file under the final name.
        QCOMPARE(readFile(stored()), code == 0 ? readFile(m_package) : QByteArray());
        QCOMPARE(QFileInfo::exists(stored()), code == 0);
        if (server == "drop"_s || server == "norange"_s) // resumed, or asked to resume
            QVERIFY2(faults.log().contains("/" + server.toLatin1() + "/modules/app/" + FileName.toLatin1() + " Range: bytes="),
                     faults.log().constData());
        if (server == "drop"_s || server == "liar"_s) // a validator goes back only to the server that gave it
            QCOMPARE(faults.log().contains("If-Range: \"v1\""), server == "drop"_s);
        if (server.endsWith("-link"_s)) { // never written through, never left in place
            QCOMPARE(readFile(sentinel), QByteArray("sentinel"));
            QVERIFY(!QFileInfo(stored()).isSymLink() && !QFileInfo(stored(".verify"_s)).isSymLink());
        }
        if (afterDrop && code != 0) // a connection closed before any answer leaves the part file as it is
            QCOMPARE(QFileInfo(stored(".part"_s)).size(), part);
        if (!afterDrop && !server.startsWith("https"_s)) // the index of the configuration served the download too
            QCOMPARE(faults.log().count("/index.json\n"), 1);
    }

    void signatures_data()
    {
        QTest::addColumn<QString>("repository");
        QTest::addColumn<int>("code");
        QTest::newRow("signed") << "signed" << 0;
        QTest::newRow("unsigned") << "unsigned" << int(Error::SignatureInvalid);
        QTest::newRow("signed with another key") << "other key" << int(Error::SignatureInvalid);
        QTest::newRow("another module's index") << "other module" << int(Error::InvalidIndex);
    }

    void signatures()
    {
        QFETCH(QString, repository);
        QFETCH(int, code);
        const QString other = m_dir.filePath("intruder.key"_s);
        QVERIFY(QFileInfo::exists(other) || Repository::keygen(m_dir.filePath("intruder"_s)));
        QVERIFY(publish(repository == "unsigned"_s ? QString() : repository == "other key"_s ? other : m_key));
        if (repository == "other module"_s) {
            // A genuine, signed index, but of "tool": it must not pass for "app".
            QVERIFY(Repository::publish(m_package, m_repo, "tool"_s, "1.2"_s, m_key));
            for (const QString &name : {"index.json"_s, "index.json.sig"_s}) {
                QFile::remove(m_repo + "/modules/app/"_s + name);
                QVERIFY(QFile::copy(m_repo + "/modules/tool/"_s + name, m_repo + "/modules/app/"_s + name));
            }
        }
        Manager manager;
        QCOMPARE(configure(manager, fileUrl(), {{"publicKey"_s, m_publicKey}}), 0);
        QCOMPARE(manager.packageInfo().isEmpty(), code != 0);
        QCOMPARE(codeOf(download(manager)), code);
        QCOMPARE(QFileInfo::exists(stored()), code == 0);
        QCOMPARE(readFile(stored()), code == 0 ? readFile(m_package) : QByteArray());
    }

    // The downgrade protection fails closed and is kept per repository: each
    // row delivers 1.2 (first), then the repository offers only 1.0 (then).
    void downgrade_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("then");
        QTest::newRow("older version") << "" << 0 << int(Error::DowngradeRefused);
        QTest::newRow("another repository's mark") << "other repository" << 0 << 0;
        QTest::newRow("eight processes marking at once") << "eight processes" << 0 << int(Error::DowngradeRefused);
        QTest::newRow("corrupt state file") << "corrupt" << int(Error::StateFileError) << int(Error::StateFileError);
        QTest::newRow("unwritable state file") << "unwritable" << int(Error::StateFileError) << int(Error::StateFileError);
        QTest::newRow("expired index") << "expired" << int(Error::IndexExpired) << int(Error::IndexExpired);
        QTest::newRow("file name with a line break") << "line break" << int(Error::InvalidIndex) << int(Error::InvalidIndex);
    }

    void downgrade()
    {
        QFETCH(QString, fault);
        QFETCH(int, first);
        QFETCH(int, then);
        QString state = m_dir.filePath("state/vindal.json"_s);
        const QString older = m_dir.filePath("app-1.0.tolmpkg"_s);
        QVERIFY(QFileInfo::exists(older) || QFile::copy(m_package, older));
        QVERIFY(publish());
        const QString index = m_repo + "/modules/app/index.json"_s;
        // Unsigned here; signed, the expiry and the names are covered by the signature.
        const auto tamper = [&] {
            if (fault == "expired"_s)
                return writeFile(index, readFile(index).replace("\"format\"", "\"expires\": \"2020-01-01T00:00:00Z\", \"format\""));
            return fault != "line break"_s || writeFile(index, readFile(index).replace(".tolmpkg\"", ".tolmpkg\\n\""));
        };
        if (fault == "corrupt"_s)
            QVERIFY(writeFile(state, "{\"marks\": {\"url:file:///elsewhere/\": {\"app\": \"3.0\""));
        QVERIFY(tamper());
        if (fault == "eight processes"_s) { // eight other modules, each fetched by a process of its own: no mark is lost
            std::vector<std::unique_ptr<QProcess>> fetches;
            for (int i = 0; i < 8; ++i)
                QVERIFY(Repository::publish(older, m_repo, "m%1"_s.arg(i), "1.0"_s));
            for (int i = 0; i < 8; ++i) {
                fetches.emplace_back(new QProcess);
                fetches.back()->start(QStringLiteral(CORBETH_PACK), {"fetch"_s, "--server"_s, fileUrl(), "--module"_s, "m%1"_s.arg(i), "-o"_s,
                                                                    m_dir.filePath("fetched/m%1"_s.arg(i))});
            }
            for (const auto &fetch : fetches)
                QVERIFY2(fetch->waitForFinished(60000) && fetch->exitCode() == 0, fetch->readAllStandardError().constData());
            QCOMPARE(readFile(state).count("\"1.0\""), 8);
        }
        const QByteArray stateBefore = readFile(state);
        if (fault == "unwritable"_s) { // a file stands where its folder should be, which stops root too
            state = m_dir.filePath("blocker/vindal.json"_s);
            QVERIFY(writeFile(m_dir.filePath("blocker"_s), "not a folder"));
            qputenv("VINDAL_STATE_FILE", QFile::encodeName(state));
        }
        Manager manager;
        QCOMPARE(configure(manager, fileUrl()), 0);
        const QVariantMap finished = download(manager);
        QCOMPARE(codeOf(finished), first);
        if (first == int(Error::StateFileError)) { // names the file, and no mark is lost
            QVERIFY2(finished.value("errorMessage"_s).toString().contains(state), qPrintable(finished.value("errorMessage"_s).toString()));
            QCOMPARE(readFile(state), stateBefore);
        }

        // The repository (or, for one row, another one) now offers only an older version.
        if (fault == "other repository"_s)
            m_repo += "-other"_s;
        QDir(m_repo).removeRecursively();
        QVERIFY(Repository::publish(older, m_repo, Module, "1.0"_s));
        QVERIFY(tamper());
        QCOMPARE(configure(manager, fileUrl()), 0);
        QCOMPARE(codeOf(download(manager)), then);

        // A pinned version is what the product owner asked for; it passes the
        // mark, but not a state that cannot be kept or an expired index.
        VDBasicInfo pinned;
        pinned.version = "1.0"_s;
        QCOMPARE(codeOf(finish(manager.downloadModule(Module, pinned))), then == int(Error::DowngradeRefused) ? 0 : then);
    }

    // Keys a, b, c rotate; x is an intruder's. Steps: "publish k"; "rotate k +add -retire =sign-indexes" (corbeth-pack
    // rotate-key); "keep" and "rollback" (the index signed now, and the statements after the first, brought back or taken
    // away by a mirror); "replay 2 as 3"; "forge n" (statement n of x's repository) or "forge index"; "expire"; and the code a
    // download finishes with for a client configured only with key a, whose state goes on from step to step.
    void keyRotation_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::newRow("a to b, a retired") << "publish a|0|keep|rotate a +b|publish b|0|rotate b -a|0|rollback|SignatureInvalid";
        QTest::newRow("a to b to c, one step each") << "publish a|rotate a +b -a =b|rotate b +c -b =c|0|publish c|0";
        QTest::newRow("statement by another key, before any") << "publish a|forge 1|0|forge index|SignatureInvalid";
        QTest::newRow("statement by another key, after one") << "publish a|rotate a +b|0|forge 2|SignatureInvalid";
        QTest::newRow("older statement replayed") << "publish a|rotate a +b|rotate b -a =b|0|replay 1 as 3|SignatureInvalid";
        QTest::newRow("statement kept expired, then renewed") << "publish a|rotate a +b|0|expire|IndexExpired|rotate b|0";
        QTest::newRow("statement moved to a later number") << "publish a|rotate a +b|rotate a +c|0|replay 2 as 3|InvalidIndex";
    }

    void keyRotation()
    {
        QFETCH(QString, steps);
        for (const QString &name : {"b"_s, "c"_s, "x"_s})
            QVERIFY(QFileInfo::exists(m_dir.filePath(name + ".key"_s)) || Repository::keygen(m_dir.filePath(name)));
        const auto key = [this](const QString &name, const QString &suffix = ".key"_s) {
            return m_dir.filePath((name == "a"_s ? "maker"_s : name) + suffix);
        };
        const auto copy = [](const QString &from, const QString &to) {
            QFile::remove(to);
            return QFile::copy(from, to);
        };
        const QString forged = m_repo + "-forged"_s;
        QDir(forged).removeRecursively();
        QVERIFY(Repository::publish(m_package, forged, Module, "1.2"_s, key("x"_s)));
        for (const QString &step : steps.split(QLatin1Char('|'))) {
            const QStringList words = step.split(QLatin1Char(' '));
            const QString statement = m_repo + "/keys/%1.json"_s, index = m_repo + "/modules/app/index.json"_s;
            if (words.first() == "publish"_s) {
                QVERIFY2(publish(key(words.at(1))), qPrintable(step));
            } else if (words.first() == "rotate"_s) {
                QStringList arguments{"rotate-key"_s, "--repo"_s, m_repo, "--key"_s, key(words.at(1))};
                for (const QString &word : words.mid(2))
                    arguments << QStringList{"--add"_s, "--retire"_s, "--sign-indexes"_s}.at("+-="_s.indexOf(word.at(0)))
                              << key(word.mid(1), word.startsWith(QLatin1Char('=')) ? ".key"_s : ".pub"_s);
                QProcess tool;
                tool.start(QStringLiteral(CORBETH_PACK), arguments);
                QVERIFY2(tool.waitForFinished(60000) && tool.exitCode() == 0, tool.readAllStandardError().constData());
            } else if (words.first() == "keep"_s || words.first() == "rollback"_s) {
                const bool keep = words.first() == "keep"_s;
                for (const QString &file : {index, index + ".sig"_s})
                    QVERIFY(keep ? copy(file, file + ".kept"_s) : copy(file + ".kept"_s, file));
                for (int n = 2; !keep && QFile::remove(statement.arg(n)); ++n)
                    QVERIFY(QFile::remove(statement.arg(n) + ".sig"_s));
            } else if (words.first() == "expire"_s) { // the statement the client keeps, as if its time had passed
                const QString state = m_dir.filePath("state/vindal.json"_s);
                QVERIFY(writeFile(state, readFile(state).replace("\"format\"", "\"expires\": \"2020-01-01T00:00:00Z\", \"format\"")));
            } else if (words.first() == "replay"_s) {
                for (const QString &suffix : {QString(), ".sig"_s})
                    QVERIFY(copy(statement.arg(words.at(1)) + suffix, statement.arg(words.at(3)) + suffix));
            } else if (words.first() == "forge"_s) {
                const QString from = words.at(1) == "index"_s ? forged + "/modules/app/index.json"_s : forged + "/keys/%1.json"_s.arg(words.at(1));
                QVERIFY(QDir().mkpath(m_repo + "/keys"_s));
                while (words.at(1) != "index"_s && !QFileInfo::exists(from))
                    QVERIFY(Repository::rotateKey(forged, {{key("x"_s)}, {}, {}, 0, 0, {}}));
                for (const QString &suffix : {QString(), ".sig"_s})
                    QVERIFY(copy(from + suffix, words.at(1) == "index"_s ? index + suffix : statement.arg(words.at(1)) + suffix));
            } else {
                Manager manager;
                QCOMPARE(configure(manager, m_haveNginx ? nginxUrl() : fileUrl(), {{"publicKey"_s, m_publicKey}}), 0);
                bool known = false;
                const int code = QMetaEnum::fromType<Error::ErrorCode>().keyToValue(qPrintable(step), &known);
                QCOMPARE(codeOf(download(manager)), known ? code : step.toInt());
            }
        }
    }

    void abortAndResume()
    {
        QVERIFY(publish());
        FaultServer faults;
        QVERIFY(faults.start(m_repo));
        Manager manager;
        QCOMPARE(configure(manager, faults.url("stall"_s)), 0);
        Reply *reply = manager.downloadModule(Module, VDBasicInfo());
        QSignalSpy finished(reply, &Reply::finished);
        QSignalSpy progress(reply, &Reply::downloadProgress);
        QVERIFY(progress.wait(30000));
        reply->abort();
        QVERIFY(finished.wait(30000));
        QTest::qWait(100);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(codeOf(finished.first().first().toMap()), 0x507200A);
        QCOMPARE(reply->status(), Error::Cancelled);
        delete reply;
        const qint64 part = QFileInfo(stored(".part"_s)).size();
        QVERIFY(part > 0);
        QVERIFY(!QFileInfo::exists(stored()));

        // The next download goes on from the part file (from nginx, when it runs).
        QCOMPARE(configure(manager, m_haveNginx ? nginxUrl() : faults.url("ok"_s)), 0);
        Progress resumed;
        QCOMPARE(codeOf(download(manager, &resumed)), 0);
        QCOMPARE(readFile(stored()), readFile(m_package));
        QVERIFY(resumed.first().first >= part);
        if (m_haveNginx)
            QVERIFY(readFile(m_nginx.accessLog)
                        .contains(QFileInfo(m_repo).fileName().toLatin1() + "/modules/app/" + FileName.toLatin1() + " HTTP/1.1\" 206"));
        else
            QVERIFY(faults.log().contains("/ok/modules/app/" + FileName.toLatin1() + " Range: bytes=" + QByteArray::number(part)));

        // Deleting a running reply stops its transfer quietly.
        QVERIFY(QFile::remove(stored()));
        QCOMPARE(configure(manager, faults.url("stall"_s)), 0);
        reply = manager.downloadModule(Module, VDBasicInfo());
        QTest::qWait(200);
        delete reply;
        QTest::qWait(100);
    }

    // Two downloads of one package into one folder: the second is refused
    // at once, the first goes on undisturbed; once it is done the file is
    // there for anyone.
    void concurrentDownloads()
    {
        QVERIFY(publish());
        FaultServer faults;
        QVERIFY(faults.start(m_repo));
        Manager first;
        Manager second;
        QCOMPARE(configure(first, faults.url("twoclients"_s)), 0);
        QCOMPARE(configure(second, faults.url("twoclients"_s)), 0);
        Reply *running = first.downloadModule(Module, VDBasicInfo());
        QSignalSpy progress(running, &Reply::downloadProgress);
        QVERIFY(progress.wait(30000));

        const QVariantMap refused = finish(second.downloadModule(Module, VDBasicInfo()));
        QCOMPARE(codeOf(refused), int(Error::DownloadFailed));
        QVERIFY2(refused.value("errorMessage"_s).toString().contains("being downloaded by another"_s),
                 qPrintable(refused.value("errorMessage"_s).toString()));
        QCOMPARE(codeOf(finish(running)), 0);
        QCOMPARE(readFile(stored()), readFile(m_package));
        QCOMPARE(faults.log().count("GET /twoclients/modules/app/" + FileName.toLatin1()), 1);
        QCOMPARE(codeOf(download(second)), 0);
        QVERIFY(!QFileInfo::exists(stored(".part.lock"_s)));

        // The lock of a process that died is taken over.
        QProcess gone;
        gone.start(testHelperPath(), {"--exit"_s, "0"_s});
        QVERIFY(gone.waitForStarted(30000));
        const qint64 pid = gone.processId();
        QVERIFY(gone.waitForFinished(30000));
        QVERIFY(QFile::remove(stored()));
        // The host as QLockFile names it (in capitals on Windows).
        QLockFile probe(m_dir.filePath("probe.lock"_s));
        qint64 ownPid = 0;
        QString host, app;
        QVERIFY(probe.lock() && probe.getLockInfo(&ownPid, &host, &app));
        QVERIFY(writeFile(stored(".part.lock"_s), "%1\ncorbeth-pack\n%2\n"_s.arg(pid).arg(host).toUtf8()));
        QCOMPARE(codeOf(download(second)), 0);
        QCOMPARE(readFile(stored()), readFile(m_package));
    }

    void upgrades()
    {
        for (const auto &upgrade : {qMakePair("M1"_s, "1.0"_s), qMakePair("M1"_s, "1.2"_s), qMakePair("M2"_s, "3.0"_s)}) {
            const QString file = m_dir.filePath("setup-%1-%2.tolmpkg"_s.arg(upgrade.first, upgrade.second));
            QVERIFY(writeFile(file, (upgrade.first + upgrade.second).toLatin1()));
            QVERIFY(Repository::publishUpgrade(file, m_repo, upgrade.first, upgrade.second));
        }
        Manager manager;
        QCOMPARE(configure(manager, fileUrl()), 0);
        const auto check = [&manager](const QString &model, int limit, const QStringList &installed) {
            const QVariantMap finished = finish(manager.checkUpgrade("/opt/product"_s, model, QString(), "2.3.4"_s, QString(), QString(),
                                                                     limit, installed, QStringList()));
            QStringList found;
            for (const QVariant &entry : finished.value("result"_s).toMap().value("upgrades"_s).toList())
                found.append(entry.toMap().value("modelCode"_s).toString() + QLatin1Char(' ') + entry.toMap().value("softVersion"_s).toString());
            return found;
        };
        QCOMPARE(check("M1"_s, 10, {}), (QStringList{"M1 1.2"_s, "M1 1.0"_s}));
        QCOMPARE(check("M1"_s, 1, {}), QStringList{"M1 1.2"_s});
        QCOMPARE(check("M1"_s, 10, {"1.2"_s}), QStringList());
        QCOMPARE(check(QString(), 10, {}).size(), 3);

        const QVariantMap finished = finish(manager.startUpgrade("M1"_s, "1.2"_s, Manager::InstallerPackage));
        QCOMPARE(codeOf(finished), 0);
        QCOMPARE(readFile(finished.value("result"_s).toMap().value("path"_s).toString()), QByteArray("M11.2"));
        QCOMPARE(codeOf(finish(manager.startUpgrade("M1"_s, "9.9"_s, Manager::InstallerPackage))), int(Error::NotFound));
    }

    // 2,000 clients placed by a seeded generator, through the client's own
    // decision: each share lands within 2% of its target, raising it keeps
    // every client it had, and a halt offers the release to none.
    void rolloutShares()
    {
        QRandomGenerator generator(23);
        QVector<double> positions(2000);
        for (double &position : positions)
            position = Rollout::position(generator.generate());
        QVector<bool> offeredBefore(positions.size(), false);
        for (const double percent : {5.0, 20.0, 50.0}) {
            Rollout release;
            release.percent = percent;
            int offered = 0;
            for (int i = 0; i < positions.size(); ++i) {
                const bool now = release.offers(positions.at(i));
                QVERIFY2(now || !offeredBefore.at(i), "raising the share dropped a client");
                offeredBefore[i] = now;
                offered += now;
            }
            QVERIFY2(qAbs(100.0 * offered / positions.size() - percent) <= 2.0, qPrintable("%1 of 2000 at %2%"_s.arg(offered).arg(percent)));
            release.halted = true;
            QVERIFY(std::none_of(positions.cbegin(), positions.cend(), [&release](double p) { return release.offers(p); }));
        }
    }

    void channels_data()
    {
        QTest::addColumn<QString>("release"); // how 2.0 reaches clients; 1.0 is on stable for everyone
        QTest::addColumn<QString>("channel");
        QTest::addColumn<qlonglong>("bucket"); // -1: none configured
        QTest::addColumn<QString>("held");     // delivered before (pinned)
        QTest::addColumn<QString>("pinned");
        QTest::addColumn<QString>("offered");  // the newest newer version the check names
        QTest::addColumn<QString>("fetched");  // what a download takes, or the error's key
        const qlonglong first = 0;
        const qlonglong halfway = 1LL << 31;
        QTest::newRow("stable client, beta release") << "beta" << "stable" << first << "" << "" << "1.0" << "1.0";
        QTest::newRow("beta client, beta release") << "beta" << "beta" << halfway << "" << "" << "2.0" << "2.0";
        QTest::newRow("pinned beta version, stable client") << "beta" << "stable" << first << "" << "2.0" << "1.0" << "NotFound";
        QTest::newRow("promoted at 5 percent, first in line") << "beta stable:5" << "stable" << first << "" << "" << "2.0" << "2.0";
        QTest::newRow("promoted at 5 percent, half way") << "beta stable:5" << "stable" << halfway << "" << "" << "1.0" << "1.0";
        QTest::newRow("promoted at 5 percent, no bucket") << "beta stable:5" << "stable" << -1LL << "" << "" << "1.0" << "1.0";
        QTest::newRow("raised to 100 percent") << "beta stable:5 stable:100" << "stable" << halfway << "" << "" << "2.0" << "2.0";
        QTest::newRow("halted, new client") << "stable:100 halt" << "stable" << first << "" << "" << "1.0" << "1.0";
        QTest::newRow("halted, client on it stays") << "stable:100 halt" << "stable" << first << "2.0" << "" << "" << "2.0";
        QTest::newRow("halted, client on 1.0 waits") << "stable:100 halt" << "stable" << first << "1.0" << "" << "" << "1.0";
    }

    // What a client is offered and downloads, by channel, share and halt.
    void channels()
    {
        if (!m_haveNginx)
            QSKIP("the nginx fixture is not running");
        QFETCH(QString, release);
        QFETCH(QString, channel);
        QFETCH(qlonglong, bucket);
        QFETCH(QString, held);
        QFETCH(QString, pinned);
        const QString older = m_dir.filePath("app-1.0.tolmpkg"_s);
        QVERIFY(QFileInfo::exists(older) || QFile::copy(m_package, older));
        QVERIFY(Repository::publish(older, m_repo, Module, "1.0"_s));
        Rollout step;
        step.channel = "beta"_s;
        QVERIFY(Repository::publish(m_package, m_repo, Module, "2.0"_s, step, m_key));
        for (const QString &word : release.split(QLatin1Char(' '))) {
            step.channel = word.section(QLatin1Char(':'), 0, 0);
            step.percent = word.section(QLatin1Char(':'), 1).toDouble();
            step.halted = word == "halt"_s;
            if (word.contains(QLatin1Char(':')))
                QVERIFY(Repository::promote(m_repo, Module, "2.0"_s, step, m_key));
            else if (step.halted)
                QVERIFY(Repository::setRollout(m_repo, Module, QString(), Rollout{"stable"_s, 0, true}, m_key));
        }
        QVariantMap more{{"channel"_s, channel}, {"publicKey"_s, m_publicKey}};
        if (bucket >= 0)
            more.insert("rolloutBucket"_s, bucket);
        Manager manager;
        QCOMPARE(configure(manager, nginxUrl(), more), 0);
        const auto fetch = [&](const QString &version) {
            VDBasicInfo info;
            info.version = version;
            const QVariantMap finished = finish(manager.downloadOfflineModule(Module, info));
            return codeOf(finished) ? QString::fromLatin1(QMetaEnum::fromType<Error::ErrorCode>().valueToKey(codeOf(finished)))
                                    : finished.value("result"_s).toMap().value("version"_s).toString();
        };
        if (!held.isEmpty())
            QCOMPARE(fetch(held), held);
        const QVariantMap check = finish(manager.checkUpgrade(QString(), QString(), QString(), "2.3.4"_s, QString(), QString(), 10,
                                                              QStringList(), {"module"_s}));
        QCOMPARE(codeOf(check), 0);
        const QVariantMap answer = check.value("result"_s).toMap();
        QCOMPARE(answer.value("current"_s).toString(), held);
        QTEST(answer.value("upgrades"_s).toList().value(0).toMap().value("version"_s).toString(), "offered");
        QTEST(fetch(pinned), "fetched");
    }

    void unpack()
    {
        Manager manager;
        auto *reply = new Reply;
        Progress progress;
        QThread *worker = nullptr;
        connect(reply, &Reply::progress, reply, [&](qint64 done, qint64 total) {
            worker = QThread::currentThread();
            progress.append({done, total});
        }, Qt::DirectConnection);
        const QString target = m_dir.filePath("installed"_s);
        manager.loadOfflinePackage(reply, m_package, target);
        QCOMPARE(codeOf(finish(reply)), 0);
        QCOMPARE(snapshot(target), snapshot(m_source));
        QVERIFY(worker && worker != QThread::currentThread());
        const qint64 size = QFileInfo(m_package).size();
        QCOMPARE(progress.last(), qMakePair(size, size));

        // A refused archive finishes with the code and names the entry.
        const QString evil = m_dir.filePath("evil.zip"_s);
        QVERIFY(writeFile(m_dir.filePath("evil/aa/b.txt"_s), "x"));
        QVERIFY(Package::create(m_dir.filePath("evil"_s), evil, Package::Zip));
        QVERIFY(writeFile(evil, readFile(evil).replace("aa/b.txt", "../b.txt"))); // the same length in both headers
        reply = new Reply;
        manager.loadOfflinePackage(reply, evil, target);
        const QVariantMap finished = finish(reply);
        QCOMPARE(codeOf(finished), int(Error::UnsafeArchive));
        QCOMPARE(finished.value("result"_s).toMap().value("entry"_s).toString(), "../b.txt"_s);
        QVERIFY(!QFileInfo::exists(m_dir.filePath("b.txt"_s)));
    }

    void configFiles()
    {
        // A product's engine configuration file works as it is.
        QVERIFY(publish());
        const QString product = m_dir.filePath("product.json"_s);
        QVERIFY(writeFile(product, R"({"velmira": {"repository": "%1", "proxy": "none"}, "downloadModuleInfo": {"module": "app"}})"_s
                                       .arg(fileUrl()).toUtf8()));
        Manager manager;
        QCOMPARE(codeOf(finish(manager.setConfigPath(product))), 0);
        QCOMPARE(manager.packageInfo().value("version"_s).toString(), "1.2"_s);
        Reply *reply = manager.setConfigPath(m_dir.filePath("missing.json"_s));
        QCOMPARE(reply->status(), Error::ConfigError);
        delete reply;

        QCOMPARE(configure(manager, QUrl::fromLocalFile(m_dir.filePath("no where"_s)).toString()), 0);
        QCOMPARE(manager.packageInfo(), QVariantMap());
        QCOMPARE(codeOf(download(manager)), int(Error::NotFound));

        // A server that never answers holds the configuration up only briefly,
        // whatever the stall time-out of downloads.
        FaultServer faults;
        QVERIFY(faults.start(m_repo));
        QElapsedTimer timer;
        timer.start();
        const QVariantMap finished = finish(manager.setConfigData(config(faults.url("hang"_s), {{"stallTimeout"_s, 60}})));
        QCOMPARE(codeOf(finished), 0);
        QVERIFY(finished.value("result"_s).toMap().contains("resolveError"_s));
        QVERIFY2(timer.elapsed() < 40000, qPrintable(QString::number(timer.elapsed())));
    }
};

CORBETH_TEST_MAIN(tst_VindalManager)
#include "tst_vindalmanager.moc"
