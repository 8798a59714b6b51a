#include "packtool.h"
#include "testmain.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtCore/QUrl>

using namespace VindalTest;

#ifdef VINDAL_SLOWDISK
// The slow disk shim preloaded into one run, reporting its peak memory to
// <report>. LD_PRELOAD splits its list at spaces, so the shim goes by name and
// its folder, which may hold one, by LD_LIBRARY_PATH.
static QProcessEnvironment slowDiskEnvironment(const QString &report)
{
    const QFileInfo shim(QStringLiteral(VINDAL_SLOWDISK));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString libraryPath = environment.value("LD_LIBRARY_PATH"_s);
    environment.insert("LD_LIBRARY_PATH"_s, shim.absolutePath() + (libraryPath.isEmpty() ? QString() : ":"_s + libraryPath));
    environment.insert("LD_PRELOAD"_s, shim.fileName());
    environment.insert("SLOWDISK_REPORT"_s, report);
    return environment;
}
#endif

// corbeth-pack run as a real process, the way a product owner uses it.
class tst_CorbethPack : public QObject
{
    Q_OBJECT
    QTemporaryDir m_work;
    FaultServer m_server; // serves m_work over http
    QString m_source;
    QString m_package;

private slots:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        m_source = m_work.filePath("source"_s);
        m_package = m_work.filePath("app.tolmpkg"_s);
        QVERIFY(PackTool::makePackage(m_source, m_package));
        QVERIFY(PackTool::ok({"keygen"_s, m_work.filePath("right"_s)}));
        QVERIFY(PackTool::ok({"keygen"_s, m_work.filePath("wrong"_s)}));
        // Module "app" 2.0.1 in two repositories: "unsigned", and "signed" with right.key and an expiry.
        const QStringList publish{"publish"_s, m_package, "--module"_s, "app"_s, "--version"_s, "2.0.1"_s, "--repo"_s};
        QVERIFY(PackTool::ok(publish + QStringList{m_work.filePath("unsigned"_s)}));
        QVERIFY(PackTool::ok(publish
                             + QStringList{m_work.filePath("signed"_s), "--key"_s, m_work.filePath("right.key"_s),
                                           "--expires"_s, "30"_s}));
        QVERIFY(readFile(m_work.filePath("signed/modules/app/index.json"_s)).contains("\"expires\""));

        // For failures(): a package with one byte changed, a file that is no archive, an empty repository.
        const QString damaged = m_work.filePath("damaged.tolmpkg"_s);
        QVERIFY(QFile::copy(m_package, damaged) && QFile::copy(m_package + ".verify"_s, damaged + ".verify"_s));
        QByteArray bytes = readFile(damaged);
        bytes[bytes.size() / 2] = char(bytes.at(bytes.size() / 2) ^ 0x55);
        QVERIFY(writeFile(damaged, bytes));
        QVERIFY(writeFile(m_work.filePath("bogus.tolmpkg"_s), QByteArray(4096, 'x')));
        QVERIFY(QDir().mkpath(m_work.filePath("empty-repo"_s)));
        // "café.txt" in composed and in decomposed form: two files on disk.
        QVERIFY(writeFile(m_work.filePath(QStringLiteral("unicode/caf\u00e9.txt")), "composed"));
        QVERIFY(writeFile(m_work.filePath(QStringLiteral("unicode/cafe\u0301.txt")), "decomposed"));
        QVERIFY(writeFile(m_work.filePath("empty.pub"_s), "\n"));
        // An index whose package is missing: the download gets a 404.
        QVERIFY(PackTool::ok(publish + QStringList{m_work.filePath("gone"_s)}));
        QVERIFY(QFile::remove(m_work.filePath("gone/modules/app/app.tolmpkg"_s)));
        QVERIFY(m_server.start(m_work.path()));
    }

    void createAndExtract_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QByteArray>("magic");
        QTest::newRow("default is tar+zstd") << QStringList() << QByteArray::fromHex("28b52ffd");
        QTest::newRow("zip") << QStringList{"--format"_s, "zip"_s} << QByteArray("PK\x03\x04");
    }

    void createAndExtract()
    {
        QFETCH(QStringList, options);
        QFETCH(QByteArray, magic);
        QTemporaryDir dir;

        QStringList digests;
        for (const QString &name : {"a.tolmpkg"_s, "b.tolmpkg"_s}) {
            const QString package = dir.filePath(name);
            const PackTool::Run run = PackTool::run(QStringList{"create"_s, m_source, "-o"_s, package} + options);
            QVERIFY2(run.exitCode == 0, qPrintable(run.err));
            // Not a terminal: no progress drawn, nothing on standard error.
            QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
            QVERIFY(!run.out.contains(QLatin1Char('\r')));
            QCOMPARE(readFile(package).left(magic.size()), magic);

            // The companion's format is the library's (tst_package).
            QCOMPARE(QString::fromLatin1(readFile(package + ".verify"_s)), PackTool::md5Of(package));
            digests << PackTool::md5Of(package);
        }
        // The same folder always gives the same bytes: entries in a stable order.
        QCOMPARE(digests.at(0), digests.at(1));

        const QString target = dir.filePath("out"_s);
        const PackTool::Run run = PackTool::run({"extract"_s, dir.filePath("a.tolmpkg"_s), "-C"_s, target});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QVERIFY(snapshot(target) == snapshot(m_source));
    }

    void fetchAndVerify_data()
    {
        QTest::addColumn<QString>("repo");
        QTest::addColumn<QStringList>("key");
        QTest::newRow("unsigned") << "unsigned"_s << QStringList();
        QTest::newRow("signed") << "signed"_s << QStringList{"--public-key"_s, m_work.filePath("right.pub"_s)};
    }

    // Resuming a dropped download is the library's (tst_vindalmanager).
    void fetchAndVerify()
    {
        QFETCH(QString, repo);
        QFETCH(QStringList, key);
        QTemporaryDir dir;
        const QDir out(dir.filePath("fetched"_s)); // made by fetch
        repo = m_work.filePath(repo);
        const PackTool::Run run = PackTool::run(
            QStringList{"fetch"_s, "--server"_s, QUrl::fromLocalFile(repo).toString(), "--module"_s, "app"_s, "-o"_s,
                        out.path()} + key);
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QVERIFY2(run.out.contains("2.0.1"_s), qPrintable(run.out));
        // The package and the ".verify" companion the engine reads; no ".part" left.
        const QString name = QFileInfo(m_package).fileName();
        QCOMPARE(out.entryList(QDir::Files, QDir::Name), QStringList({name, name + ".verify"_s}));
        QCOMPARE(PackTool::md5Of(out.filePath(name)), PackTool::md5Of(m_package));
        // What was fetched checks out against the repository's index and its signature.
        QVERIFY(PackTool::ok(QStringList{"verify"_s, out.filePath(name), "--repo"_s, repo, "--module"_s, "app"_s}
                             + key));
    }

    // An index as large as a server cares to send (here 38,000 versions, 8 MB)
    // is refused or parsed within a fixed amount of memory.
    void largeIndexKeepsMemoryBounded()
    {
#ifndef VINDAL_SLOWDISK
        QSKIP("the peak memory report comes with the slow disk shim, built on Linux only, without sanitizers");
#else
        QTemporaryDir dir;
        QJsonArray versions;
        for (int i = 0; i < 38000; ++i)
            versions.append(QJsonObject{{"version"_s, "1.0.%1"_s.arg(i)}, {"file"_s, "app-1.0.%1.tolmpkg"_s.arg(i)}, {"size"_s, 1000 + i},
                                        {"md5"_s, "%1"_s.arg(i, 32, 16, QLatin1Char('0'))}, {"sha256"_s, "%1"_s.arg(i, 64, 16, QLatin1Char('0'))},
                                        {"published"_s, "2026-01-01"_s}});
        const QByteArray index = QJsonDocument(QJsonObject{{"format"_s, 1}, {"module"_s, "app"_s}, {"versions"_s, versions}}).toJson(QJsonDocument::Compact);
        QVERIFY(index.size() > 7000000);
        QVERIFY(writeFile(dir.filePath("repo/modules/app/index.json"_s), index));
        const QProcessEnvironment environment = slowDiskEnvironment(dir.filePath("peak"_s));
        const PackTool::Run run = PackTool::run({"fetch"_s, "--server"_s, QUrl::fromLocalFile(dir.filePath("repo"_s)).toString(), "--module"_s,
                                                 "app"_s, "-o"_s, dir.filePath("out"_s)}, environment);
        QCOMPARE(run.exitCode, 1); // no package files in this repository
        const qint64 peak = readFile(dir.filePath("peak"_s)).trimmed().toLongLong();
        QVERIFY2(peak > 0 && peak < 64 * 1024, qPrintable("peak %1 KiB: %2"_s.arg(peak).arg(run.err)));
#endif
    }

    void failures_data()
    {
        // "@" stands for the shared work folder, "#" for a fresh output folder,
        // "%" for the work folder served over http.
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::newRow("verify, damaged") << QStringList{"verify"_s, "@/damaged.tolmpkg"_s} << 1 << "ChecksumMismatch"_s;
        QTest::newRow("extract, not an archive")
            << QStringList{"extract"_s, "@/bogus.tolmpkg"_s, "-C"_s, "#"_s} << 1 << "CorruptArchive"_s;
        QTest::newRow("verify, wrong key") << QStringList{"verify"_s, "@/app.tolmpkg"_s, "--repo"_s, "@/signed"_s,
                                                          "--module"_s, "app"_s, "--public-key"_s, "@/wrong.pub"_s}
                                           << 1 << "SignatureInvalid"_s;
        QTest::newRow("fetch, unknown module")
            << QStringList{"fetch"_s, "--server"_s, "file:@/empty-repo"_s, "--module"_s, "nothing"_s, "-o"_s, "#"_s}
            << 1 << "NotFound"_s;
        // fetch hands its network options to the library, which names the key at fault.
        const QStringList fetch{"fetch"_s, "--server"_s, "file:@/unsigned"_s, "--module"_s, "app"_s, "-o"_s, "#"_s};
        QTest::newRow("fetch, zero stall time-out") << fetch + QStringList{"--stall-timeout"_s, "0"_s} << 1 << "\"stallTimeout\""_s;
        QTest::newRow("fetch, missing CA file") << fetch + QStringList{"--ca-file"_s, "@/none.pem"_s} << 1 << "\"caFile\""_s;
        QTest::newRow("fetch, ftp proxy") << fetch + QStringList{"--proxy"_s, "ftp://127.0.0.1:1"_s} << 1 << "\"proxy\""_s;
        QTest::newRow("fetch, deadline in words") << fetch + QStringList{"--deadline"_s, "soon"_s} << 2 << "seconds"_s;
        // An empty key never turns the signature check off.
        QTest::newRow("fetch, empty public key") << fetch + QStringList{"--public-key"_s, ""_s} << 1 << "ConfigError"_s;
        QTest::newRow("fetch, empty .pub file")
            << fetch + QStringList{"--public-key"_s, "@/empty.pub"_s} << 1 << "empty.pub\" is empty [ConfigError]"_s;
        QTest::newRow("verify, empty public key")
            << QStringList{"verify"_s, "@/app.tolmpkg"_s, "--repo"_s, "@/unsigned"_s, "--module"_s, "app"_s,
                           "--public-key"_s, ""_s}
            << 1 << "ConfigError"_s;
        QTest::newRow("publish, empty key") << QStringList{"publish"_s, "@/app.tolmpkg"_s, "--repo"_s, "#/repo"_s,
                                                           "--module"_s, "app"_s, "--version"_s, "3"_s, "--key"_s, ""_s}
                                            << 1 << "--key is empty [ConfigError]"_s;
        QTest::newRow("publish, the index's name with a dot")
            << QStringList{"publish"_s, "@/index.json."_s, "--repo"_s, "#/repo"_s, "--module"_s, "app"_s, "--version"_s, "3"_s}
            << 1 << "\"index.json.\" is taken by the repository layout"_s;
        QTest::newRow("fetch, package 404 over http")
            << QStringList{"fetch"_s, "--server"_s, "%gone"_s, "--module"_s, "app"_s, "-o"_s, "#"_s} << 1
            << "app.tolmpkg does not exist [NotFound]"_s;
        QTest::newRow("publish, no expiry days")
            << QStringList{"publish"_s, "p"_s, "--repo"_s, "r"_s, "--version"_s, "1"_s, "--module"_s, "m"_s,
                           "--expires"_s, "0"_s}
            << 2 << "--expires takes"_s;
        QTest::newRow("create, names alike once normalised")
            << QStringList{"create"_s, "@/unicode"_s, "-o"_s, "#/u.tolmpkg"_s} << 1 << "are one name once normalised"_s;
        QTest::newRow("nothing") << QStringList() << 2 << "Usage:"_s;
        QTest::newRow("unknown command") << QStringList{"pack"_s} << 2 << "unknown command"_s;
        QTest::newRow("create without -o") << QStringList{"create"_s, "."_s} << 2 << "missing -o"_s;
        QTest::newRow("publish, module and model code")
            << QStringList{"publish"_s, "p"_s, "--repo"_s, "r"_s, "--version"_s, "1"_s, "--module"_s, "m"_s,
                           "--model-code"_s, "c"_s}
            << 2 << "exactly one of"_s;
        QTest::newRow("unknown option") << QStringList{"keygen"_s, "k"_s, "--force"_s} << 2 << "Unknown option"_s;
        QTest::newRow("publish, deltas in words") << QStringList{"publish"_s, "p"_s, "--repo"_s, "r"_s, "--version"_s, "1"_s,
                                                                 "--module"_s, "m"_s, "--deltas"_s, "all"_s}
                                                  << 2 << "--deltas takes"_s;
        QTest::newRow("deltas, no such command") << QStringList{"deltas"_s, "drop"_s, "--repo"_s, "r"_s, "--module"_s, "m"_s} << 2
                                                 << "expects list, or prune"_s;
        QTest::newRow("deltas, no index") << QStringList{"deltas"_s, "list"_s, "--repo"_s, "#/repo"_s, "--module"_s, "app"_s} << 1
                                          << "app has no index in"_s;
    }

    void failures()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QTemporaryDir out;
        for (QString &argument : arguments)
            argument.replace("file:@"_s, QUrl::fromLocalFile(m_work.path()).toString())
                .replace(QLatin1Char('@'), m_work.path())
                .replace(QLatin1Char('%'), m_server.url("ok"_s))
                .replace(QLatin1Char('#'), out.path());

        const PackTool::Run run = PackTool::run(arguments);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        // An operation that fails says so in one line naming its command, and leaves nothing behind
        // (a 404 leaves no empty part file either).
        if (exitCode == 1)
            QVERIFY2(run.err.startsWith("corbeth-pack %1: "_s.arg(arguments.first()))
                         && run.err.trimmed().count(QLatin1Char('\n')) == 0,
                     qPrintable(run.err));
        QCOMPARE(QDir(out.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    }
};

CORBETH_TEST_MAIN(tst_CorbethPack)
#include "tst_corbethpack.moc"
