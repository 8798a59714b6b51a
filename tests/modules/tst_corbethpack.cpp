#include "packtool.h"
#include "testmain.h"
#include "vindaltest.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QScopeGuard>
#include <QtCore/QTemporaryDir>
#include <QtCore/QUrl>

// corbeth-pack run as a real process, the way a product owner uses it.
class tst_CorbethPack : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();

    void create_data();
    void create();
    void extractRoundTrip();
    void verifyFindsDamage();
    void publishAndVerifyAgainstIndex_data();
    void publishAndVerifyAgainstIndex();
    void fetchFromRepository_data();
    void fetchFromRepository();
    void fetchUnknownModule();
    void extractRefusesNonArchive();
    void usageErrors_data();
    void usageErrors();

private:
    QString packageOf(const QTemporaryDir &dir, const QString &name = QStringLiteral("app.tolmpkg"));
    static bool isOneLine(const QString &text) { return text.trimmed().count(QLatin1Char('\n')) == 0; }

    QTemporaryDir m_source;
};

void tst_CorbethPack::initTestCase()
{
    QVERIFY(m_source.isValid());
    QVERIFY(PackTool::makeTree(m_source.path()));
}

// Creates the package from the shared source tree in dir; empty on failure.
QString tst_CorbethPack::packageOf(const QTemporaryDir &dir, const QString &name)
{
    const QString package = dir.filePath(name);
    const PackTool::Run run = PackTool::run({QStringLiteral("create"), m_source.path(), QStringLiteral("-o"), package});
    if (run.exitCode != 0) {
        qWarning().noquote() << run.err;
        return QString();
    }
    return package;
}

void tst_CorbethPack::create_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("magic");
    QTest::newRow("default is tar+zstd") << QStringList() << QByteArray::fromHex("28b52ffd");
    QTest::newRow("zip") << QStringList{QStringLiteral("--format"), QStringLiteral("zip")} << QByteArray("PK\x03\x04");
}

void tst_CorbethPack::create()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, magic);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());

    QStringList digests;
    for (const QString &name : {QStringLiteral("a.tolmpkg"), QStringLiteral("b.tolmpkg")}) {
        const QString package = dir.filePath(name);
        const PackTool::Run run = PackTool::run(QStringList{QStringLiteral("create"), m_source.path(),
                                                            QStringLiteral("-o"), package} + options);
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        // Not a terminal: no progress drawn, nothing on standard error.
        QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
        QVERIFY(!run.out.contains(QLatin1Char('\r')));

        QFile file(package);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.read(magic.size()), magic);

        // The companion holds the 32 lower-case hex characters and nothing else.
        QFile verify(package + QLatin1String(".verify"));
        QVERIFY(verify.open(QIODevice::ReadOnly));
        const QByteArray content = verify.readAll();
        QVERIFY2(QRegularExpression(QStringLiteral("\\A[0-9a-f]{32}\\z")).match(QString::fromLatin1(content)).hasMatch(),
                 content.constData());
        QCOMPARE(QString::fromLatin1(content), PackTool::md5Of(package));
        digests << QString::fromLatin1(content);
    }
    // The same folder always gives the same bytes: entries in a stable order.
    QCOMPARE(digests.at(0), digests.at(1));
}

void tst_CorbethPack::extractRoundTrip()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = packageOf(dir);
    QVERIFY(!package.isEmpty());

    const QString target = dir.filePath(QStringLiteral("out"));
    const PackTool::Run run = PackTool::run({QStringLiteral("extract"), package, QStringLiteral("-C"), target});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    QVERIFY(VindalTest::snapshot(target) == VindalTest::snapshot(m_source.path()));
}

void tst_CorbethPack::verifyFindsDamage()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = packageOf(dir);
    QVERIFY(!package.isEmpty());
    PackTool::Run run = PackTool::run({QStringLiteral("verify"), package});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));

    QFile file(package);
    QVERIFY(file.open(QIODevice::ReadWrite));
    file.seek(file.size() / 2);
    const char byte = file.peek(1).at(0);
    file.write(QByteArray(1, char(byte ^ 0x55)));
    file.close();

    run = PackTool::run({QStringLiteral("verify"), package});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(isOneLine(run.err) && run.err.startsWith(QLatin1String("corbeth-pack verify: ")), qPrintable(run.err));
    QVERIFY2(run.err.contains(QLatin1String("ChecksumMismatch")), qPrintable(run.err));
}

void tst_CorbethPack::publishAndVerifyAgainstIndex_data()
{
    QTest::addColumn<bool>("sign");
    QTest::addColumn<QString>("checkKey"); // "", "right" or "wrong"
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("error");
    QTest::newRow("unsigned") << false << QString() << 0 << QString();
    QTest::newRow("signed, right key") << true << QStringLiteral("right") << 0 << QString();
    QTest::newRow("unsigned, key required") << false << QStringLiteral("right") << 1
                                            << QStringLiteral("SignatureInvalid");
    QTest::newRow("signed, wrong key") << true << QStringLiteral("wrong") << 1 << QStringLiteral("SignatureInvalid");
}

void tst_CorbethPack::publishAndVerifyAgainstIndex()
{
    QFETCH(bool, sign);
    QFETCH(QString, checkKey);
    QFETCH(int, exitCode);
    QFETCH(QString, error);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = packageOf(dir);
    QVERIFY(!package.isEmpty());
    const QString repo = dir.filePath(QStringLiteral("repo"));

    for (const QString &name : {QStringLiteral("right"), QStringLiteral("wrong")}) {
        const PackTool::Run run = PackTool::run({QStringLiteral("keygen"), dir.filePath(name)});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    }
    QStringList publish{QStringLiteral("publish"), package,       QStringLiteral("--repo"),    repo,
                        QStringLiteral("--module"), QStringLiteral("app"), QStringLiteral("--version"),
                        QStringLiteral("1.0.0")};
    if (sign)
        publish << QStringLiteral("--key") << dir.filePath(QStringLiteral("right.key"));
    PackTool::Run run = PackTool::run(publish);
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));

    QStringList verify{QStringLiteral("verify"), package, QStringLiteral("--repo"), repo, QStringLiteral("--module"),
                       QStringLiteral("app")};
    if (!checkKey.isEmpty())
        verify << QStringLiteral("--public-key") << dir.filePath(checkKey + QLatin1String(".pub"));
    run = PackTool::run(verify);
    QVERIFY2(run.exitCode == exitCode, qPrintable(run.err));
    if (!error.isEmpty())
        QVERIFY2(isOneLine(run.err) && run.err.contains(error), qPrintable(run.err));
}

void tst_CorbethPack::fetchFromRepository_data()
{
    QTest::addColumn<QString>("server");
    QTest::newRow("file") << QStringLiteral("file");
    QTest::newRow("nginx") << QStringLiteral("nginx");
    QTest::newRow("dropped, resumed") << QStringLiteral("drop");
}

void tst_CorbethPack::fetchFromRepository()
{
    QFETCH(QString, server);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = packageOf(dir);
    QVERIFY(!package.isEmpty());
    QString repo = dir.filePath(QStringLiteral("repo"));
    QString url = QUrl::fromLocalFile(repo).toString();
    VindalTest::Nginx nginx;
    VindalTest::FaultServer faults;
    if (server == QLatin1String("nginx")) {
        if (!nginx.load())
            QSKIP("the nginx fixture is not running (ctest starts it)");
        const QString name = QStringLiteral("pack-") + QFileInfo(dir.path()).fileName();
        repo = QDir(nginx.www).filePath(name);
        url = QStringLiteral("http://127.0.0.1:%1/%2").arg(nginx.http).arg(name);
    }
    const auto removeRepo = qScopeGuard([repo] { QDir(repo).removeRecursively(); });
    PackTool::Run run = PackTool::run({QStringLiteral("publish"), package, QStringLiteral("--repo"), repo,
                                       QStringLiteral("--module"), QStringLiteral("app"), QStringLiteral("--version"),
                                       QStringLiteral("2.0.1")});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    if (server == QLatin1String("drop")) {
        // The first transfer of the package breaks off halfway.
        QVERIFY(faults.start(repo));
        url = faults.url(server);
    }

    const QString out = dir.filePath(QStringLiteral("fetched"));
    run = PackTool::run({QStringLiteral("fetch"), QStringLiteral("--server"), url, QStringLiteral("--module"),
                         QStringLiteral("app"), QStringLiteral("-o"), out});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    QVERIFY2(run.out.contains(QLatin1String("2.0.1")), qPrintable(run.out));
    if (server == QLatin1String("drop"))
        QVERIFY2(faults.log().contains("Range: bytes="), faults.log().constData());

    // The package and the ".verify" companion the engine reads; no ".part" left.
    const QString name = QFileInfo(package).fileName();
    QCOMPARE(QDir(out).entryList(QDir::Files, QDir::Name), QStringList({name, name + QLatin1String(".verify")}));
    QCOMPARE(PackTool::md5Of(QDir(out).filePath(name)), PackTool::md5Of(package));

    // What was fetched checks out against the repository's index.
    run = PackTool::run({QStringLiteral("verify"), QDir(out).filePath(name), QStringLiteral("--repo"), repo,
                         QStringLiteral("--module"), QStringLiteral("app")});
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
}

void tst_CorbethPack::fetchUnknownModule()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("repo"))));
    const PackTool::Run run =
        PackTool::run({QStringLiteral("fetch"), QStringLiteral("--server"),
                       QUrl::fromLocalFile(dir.filePath(QStringLiteral("repo"))).toString(), QStringLiteral("--module"),
                       QStringLiteral("nothing"), QStringLiteral("-o"), dir.filePath(QStringLiteral("out"))});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(isOneLine(run.err) && run.err.contains(QLatin1String("NotFound")), qPrintable(run.err));
}

void tst_CorbethPack::extractRefusesNonArchive()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString bogus = dir.filePath(QStringLiteral("bogus.tolmpkg"));
    QFile file(bogus);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();

    const QString target = dir.filePath(QStringLiteral("out"));
    const PackTool::Run run = PackTool::run({QStringLiteral("extract"), bogus, QStringLiteral("-C"), target});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(isOneLine(run.err) && run.err.contains(QLatin1String("CorruptArchive")), qPrintable(run.err));
    QVERIFY(QDir(target).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
}

void tst_CorbethPack::usageErrors_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");
    QTest::newRow("nothing") << QStringList() << QStringLiteral("Usage:");
    QTest::newRow("unknown command") << QStringList{QStringLiteral("pack")} << QStringLiteral("unknown command");
    QTest::newRow("create without -o") << QStringList{QStringLiteral("create"), QStringLiteral(".")}
                                       << QStringLiteral("missing -o");
    QTest::newRow("publish, module and model code")
        << QStringList{QStringLiteral("publish"), QStringLiteral("p"), QStringLiteral("--repo"), QStringLiteral("r"),
                       QStringLiteral("--version"), QStringLiteral("1"), QStringLiteral("--module"), QStringLiteral("m"),
                       QStringLiteral("--model-code"), QStringLiteral("c")}
        << QStringLiteral("exactly one of");
    QTest::newRow("unknown option") << QStringList{QStringLiteral("keygen"), QStringLiteral("k"), QStringLiteral("--force")}
                                    << QStringLiteral("Unknown option");
}

void tst_CorbethPack::usageErrors()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    const PackTool::Run run = PackTool::run(arguments);
    QCOMPARE(run.exitCode, 2);
    QVERIFY2(run.err.contains(message), qPrintable(run.err));
}

CORBETH_TEST_MAIN(tst_CorbethPack)
#include "tst_corbethpack.moc"
