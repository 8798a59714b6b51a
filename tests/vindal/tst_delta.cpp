#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/manager.h>
#include <vindal/package.h>
#include <vindal/repository.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <archive.h>
#include <archive_entry.h>

using namespace Vindal;
using namespace VindalTest;

namespace {
const QString Delta = QStringLiteral("app-1.0-to-1.1.delta.tolmpkg");

// Version 1.0 and 1.1 of a product: a large file patched, one unchanged,
// one added, a folder removed with its file, a link retargeted.
void makeVersion(const QString &root, bool second)
{
    QByteArray big = pseudoRandom(3 * 1024 * 1024, 3);
    if (second)
        big.replace(1000, 7, "patched");
    writeFile(root + "/bin/app"_s, big);
    writeFile(root + "/doc/readme.txt"_s, "readme");
    writeFile(root + (second ? "/doc/new.txt"_s : "/gone/old.txt"_s), second ? "new" : "old");
    QFile::link(second ? "readme.txt"_s : "../bin/app"_s, root + "/doc/link"_s);
}
// Unpacks an archive as it is: the library would apply a delta instead.
bool rawExtract(const QString &archiveFile, const QString &folder)
{
    std::unique_ptr<struct archive, int (*)(struct archive *)> in(archive_read_new(), &archive_read_free);
    archive_read_support_filter_all(in.get());
    archive_read_support_format_all(in.get());
    if (archive_read_open_filename(in.get(), QFile::encodeName(archiveFile).constData(), 1 << 16) != ARCHIVE_OK)
        return false;
    std::unique_ptr<struct archive, int (*)(struct archive *)> out(archive_write_disk_new(), &archive_write_free);
    archive_write_disk_set_options(out.get(), ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    struct archive_entry *entry = nullptr;
    while (archive_read_next_header(in.get(), &entry) == ARCHIVE_OK) {
        archive_entry_copy_pathname(entry, QFile::encodeName(folder + QLatin1Char('/') + QFile::decodeName(archive_entry_pathname(entry))).constData());
        if (archive_write_header(out.get(), entry) != ARCHIVE_OK)
            return false;
        const void *block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        while (archive_read_data_block(in.get(), &block, &size, &offset) == ARCHIVE_OK)
            archive_write_data_block(out.get(), block, size, offset);
    }
    return archive_write_finish_entry(out.get()) == ARCHIVE_OK;
}
} // namespace

class tst_Delta : public QObject
{
    Q_OBJECT

    QString repoFolder() const { return m_repo + "/modules/app"_s; }
    QString deltaFile() const { return repoFolder() + "/"_s + Delta; }
    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

    // Unpacks the delta in the repository, lets edit change its files, packs
    // it again and lists the new digests in the (unsigned) index.
    void rewriteDelta(const std::function<void(const QString &folder)> &edit)
    {
        const QString folder = path("rewrite");
        QDir(folder).removeRecursively();
        QDir().mkpath(folder);
        QVERIFY(rawExtract(deltaFile(), folder));
        edit(folder);
        QVERIFY(Package::create(folder, deltaFile()));
        const FileDigest digest = FileDigest::ofFile(deltaFile());
        QJsonObject index = QJsonDocument::fromJson(readFile(repoFolder() + "/index.json"_s)).object();
        QJsonArray versions = index.value("versions"_s).toArray();
        QJsonObject entry = versions.at(1).toObject();
        entry.insert("deltas"_s, QJsonArray{QJsonObject{{"from"_s, "1.0"_s}, {"file"_s, Delta}, {"size"_s, double(digest.size)},
                                                        {"md5"_s, digest.md5}, {"sha256"_s, digest.sha256}}});
        versions.replace(1, entry);
        index.insert("versions"_s, versions);
        QVERIFY(writeFile(repoFolder() + "/index.json"_s, QJsonDocument(index).toJson()));
    }

    // Downloads and unpacks through the library, as the engine does.
    QVariantMap downloadAndUnpack(Manager &manager, const QString &version, QList<qint64> *progress = nullptr)
    {
        const QVariantMap config{{"repository"_s, "http://127.0.0.1:%1/%2/"_s.arg(m_nginx.http).arg(QFileInfo(m_repo).fileName())},
                                 {"proxy"_s, "none"_s},
                                 {"moduleInfo"_s, QVariantMap{{"module"_s, "app"_s}, {"version"_s, version}}},
                                 {"startDownload"_s, QVariantMap{{"temporaryStoragePath"_s, path("store")}}}};
        Reply *configured = manager.setConfigData(config);
        waitFinished(configured);
        delete configured;
        Reply *download = manager.downloadOfflineModule(m_inst, VDBasicInfo());
        const QVariantMap downloaded = waitFinished(download).value("result"_s).toMap();
        delete download;
        auto *unpack = new Reply;
        if (progress)
            connect(unpack, &Reply::progress, this, [progress](qint64 done, qint64 total) { progress->append(done * 1000000 / total); });
        manager.loadOfflinePackage(unpack, downloaded.value("path"_s).toString(), m_inst);
        QVariantMap finished = waitFinished(unpack, 60000);
        finished.insert("downloaded"_s, downloaded);
        delete unpack;
        return finished;
    }

    QTemporaryDir m_dir;
    Nginx m_nginx;
    QString m_repo;
    QString m_inst;
    QMap<QString, QByteArray> m_old;
    QMap<QString, QByteArray> m_new;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        makeVersion(path("v1"), false);
        makeVersion(path("v2"), true);
        QVERIFY(Package::create(path("v1"), path("app-1.0.tolmpkg")));
        QVERIFY(Package::create(path("v2"), path("app-1.1.tolmpkg")));
        QVERIFY(Package::extract(path("app-1.0.tolmpkg"), path("old")));
        QVERIFY(Package::extract(path("app-1.1.tolmpkg"), path("new")));
        m_old = snapshot(path("old"));
        m_new = snapshot(path("new"));
    }

    void init()
    {
        qputenv("VINDAL_STATE_FILE", QFile::encodeName(path("state.json")));
        QFile::remove(path("state.json"));
        QDir(path("store")).removeRecursively();
        m_inst = path("inst");
        QDir(m_inst).removeRecursively();
        m_repo = (m_nginx.load() ? m_nginx.www : m_dir.path()) + "/repo-delta"_s;
        QDir(m_repo).removeRecursively();
        QVERIFY(Repository::publish(path("app-1.0.tolmpkg"), m_repo, "app"_s, "1.0"_s));
        QVERIFY(Repository::publish(path("app-1.1.tolmpkg"), m_repo, "app"_s, "1.1"_s));
        QVERIFY(Repository::publishDeltas(m_repo, "app"_s, "1.1"_s, 3));
    }

    // An update from 1.0 downloads the delta; applied or, when the install
    // or the delta is not what it should be, replaced by the full package,
    // it ends as a fresh install of 1.1.
    void update_data()
    {
        QTest::addColumn<QString>("change");
        QTest::addColumn<bool>("applied");
        QTest::addColumn<bool>("leftover"); // the fall-back cannot trust the delta's list of dropped files
        QTest::newRow("pristine install") << "" << true << false;
        QTest::newRow("changed unchanged file") << "doc/readme.txt" << false << false;
        QTest::newRow("missing patched file") << "bin/app" << false << false;
        QTest::newRow("extra file in the way") << "doc/new.txt" << false << false;
        QTest::newRow("corrupt patch") << "patch" << false << false;
        QTest::newRow("lying manifest") << "manifest" << false << false;
        QTest::newRow("delta of another package") << "other" << false << true;
    }
    void update()
    {
        QFETCH(QString, change);
        QFETCH(bool, applied);
        QFETCH(bool, leftover);
        if (!m_nginx.load())
            QSKIP("nginx is not running (the vindal_nginx fixture starts it)");
        Manager manager;
        QCOMPARE(downloadAndUnpack(manager, "1.0"_s).value("errorCode"_s).toInt(), 0);
        if (change.contains("/"_s)) {
            QFile::remove(m_inst + "/"_s + change);
            if (change != "bin/app"_s)
                QVERIFY(writeFile(m_inst + "/"_s + change, "the user's"));
        } else if (change == "patch"_s || change == "manifest"_s) {
            rewriteDelta([change](const QString &folder) {
                if (change == "patch"_s)
                    QVERIFY(writeFile(folder + "/files/0"_s, readFile(folder + "/files/0"_s).replace(40, 8, "damaged!")));
                QByteArray manifest = readFile(folder + "/delta.json"_s);
                const int at = manifest.indexOf("\"new\":\"") + 7; // the patched file's SHA-256, still well-formed
                manifest[at] = manifest.at(at) == '0' ? '1' : '0';
                if (change == "manifest"_s)
                    QVERIFY(writeFile(folder + "/delta.json"_s, manifest));
            });
        } else if (change == "other"_s) {
            // A genuine delta from 1.0 to another package called 1.1.
            makeVersion(path("v2other"), false);
            QVERIFY(writeFile(path("v2other/doc/readme.txt"), "another"));
            QVERIFY(Package::create(path("v2other"), path("other-1.1.tolmpkg")));
            const QString side = path("side");
            QVERIFY(Repository::publish(path("app-1.0.tolmpkg"), side, "app"_s, "1.0"_s));
            QVERIFY(Repository::publish(path("other-1.1.tolmpkg"), side, "app"_s, "1.1"_s));
            QVERIFY(Repository::publishDeltas(side, "app"_s, "1.1"_s, 1));
            rewriteDelta([side](const QString &folder) {
                QDir(folder).removeRecursively();
                QDir().mkpath(folder);
                QVERIFY(rawExtract(side + "/modules/app/"_s + Delta, folder));
            });
        }
        QList<qint64> progress;
        const QVariantMap finished = downloadAndUnpack(manager, QString(), &progress);
        QCOMPARE(finished.value("errorCode"_s).toInt(), 0);
        QCOMPARE(finished.value("downloaded"_s).toMap().value("file"_s).toMap().value("name"_s).toString(), Delta);
        const QVariantMap delta = finished.value("result"_s).toMap().value("delta"_s).toMap();
        QCOMPARE(delta.value("applied"_s).toBool(), applied);
        QCOMPARE(delta.value("bytesSaved"_s).toLongLong() > 0, applied);
        QCOMPARE(manager.packageInfo().value("delta"_s).toMap(), delta);
        QVERIFY2(std::is_sorted(progress.cbegin(), progress.cend()), "the bar never moves back");
        QMap<QString, QByteArray> expected = m_new;
        if (leftover) {
            expected.insert("gone"_s, "<dir>");
            expected.insert("gone/old.txt"_s, "old");
        }
        QCOMPARE(snapshot(m_inst).keys().join(u' '), expected.keys().join(u' ')); // (names what differs)
        QCOMPARE(snapshot(m_inst), expected);
    }

    // An apply killed during its renames leaves each file old or new; the
    // next unpack into the folder completes it.
    void killedDuringRenames()
    {
        QVERIFY(Package::extract(path("app-1.0.tolmpkg"), m_inst));
        const QString marker = path("renaming");
        QFile::remove(marker);
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VINDAL_TEST_HOLD_RENAMES"_s, marker);
        child.setProcessEnvironment(env);
        child.start(QStringLiteral(CORBETH_PACK), {"extract"_s, deltaFile(), "-C"_s, m_inst});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(marker), 30000);
        child.kill();
        QVERIFY(child.waitForFinished(30000));
        QMap<QString, QByteArray> now = snapshot(m_inst);
        now.remove(".vindal-delta"_s); // the journal and what is left of the payload
        for (auto it = now.begin(); it != now.end();)
            it = it.key().startsWith(".vindal-delta/"_s) || it.key().contains("/.vindal-delta-"_s) ? now.erase(it) : std::next(it);
        QVERIFY(now != m_old && now != m_new);
        for (auto it = now.cbegin(); it != now.cend(); ++it)
            QVERIFY2(m_old.value(it.key()) == it.value() || m_new.value(it.key()) == it.value(), qPrintable(it.key()));
        QVERIFY(Package::extract(deltaFile(), m_inst));
        QCOMPARE(snapshot(m_inst).keys().join(u' '), m_new.keys().join(u' '));
        QCOMPARE(snapshot(m_inst), m_new);
    }
};

CORBETH_TEST_MAIN(tst_Delta)
#include "tst_delta.moc"
