#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/repository.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace Vindal;
using namespace VindalTest;

class tst_Repository : public QObject
{
    Q_OBJECT

private slots:
    void publishAndVerify();
    void signing();
    void refusals_data();
    void refusals();
    void keygenNeverOverwrites();
};

void tst_Repository::publishAndVerify()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString repo = dir.filePath(QStringLiteral("repo"));
    const QString v1 = dir.filePath(QStringLiteral("app-1.9.0.tolmpkg"));
    const QString v2 = dir.filePath(QStringLiteral("app-1.10.0.tolmpkg"));
    QVERIFY(writeFile(v1, pseudoRandom(5000, 1)));
    QVERIFY(writeFile(v2, pseudoRandom(7000, 2)));

    QVERIFY(Repository::publish(v1, repo, QStringLiteral("app"), QStringLiteral("1.9.0")));
    QVERIFY(Repository::publish(v2, repo, QStringLiteral("app"), QStringLiteral("1.10.0")));
    // Publishing the same version again replaces its entry.
    QVERIFY(Repository::publish(v2, repo, QStringLiteral("app"), QStringLiteral("1.10.0")));

    const QJsonObject index = QJsonDocument::fromJson(readFile(repo + QLatin1String("/modules/app/index.json"))).object();
    QCOMPARE(index.value(QStringLiteral("module")).toString(), QStringLiteral("app"));
    const QJsonArray versions = index.value(QStringLiteral("versions")).toArray();
    QCOMPARE(versions.size(), 2);
    const QJsonObject second = versions.at(1).toObject();
    const FileDigest digest = FileDigest::ofFile(v2);
    QCOMPARE(second.value(QStringLiteral("file")).toString(), QStringLiteral("app-1.10.0.tolmpkg"));
    QCOMPARE(qint64(second.value(QStringLiteral("size")).toDouble()), digest.size);
    QCOMPARE(second.value(QStringLiteral("md5")).toString(), digest.md5);
    QCOMPARE(second.value(QStringLiteral("sha256")).toString(), digest.sha256);
    QCOMPARE(readFile(repo + QLatin1String("/modules/app/app-1.10.0.tolmpkg")), readFile(v2));
    QVERIFY(!QFileInfo::exists(repo + QLatin1String("/modules/app/index.json.sig")));

    // Versions order numerically: 1.10.0 is the newest.
    QVERIFY(Repository::verifyPackage(v2, repo, QStringLiteral("app")));
    QCOMPARE(Repository::verifyPackage(v1, repo, QStringLiteral("app")).code, Error::ChecksumMismatch);
    QVERIFY(Repository::verifyPackage(v1, repo, QStringLiteral("app"), QStringLiteral("1.9.0")));
    QCOMPARE(Repository::verifyPackage(v1, repo, QStringLiteral("app"), QStringLiteral("3.0")).code, Error::NotFound);
}

void tst_Repository::signing()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString repo = dir.filePath(QStringLiteral("repo"));
    const QString package = dir.filePath(QStringLiteral("app.tolmpkg"));
    QVERIFY(writeFile(package, pseudoRandom(3000, 3)));
    const Outcome keys = Repository::keygen(dir.filePath(QStringLiteral("maker")));
    QVERIFY2(keys, qPrintable(keys.message));
    const QString publicKey = keys.subject;
    QCOMPARE(readFile(dir.filePath(QStringLiteral("maker.pub"))).trimmed(), publicKey.toLatin1());
    QCOMPARE(QFileInfo(dir.filePath(QStringLiteral("maker.key"))).permissions() & (QFile::ReadOther | QFile::ReadGroup),
             QFileDevice::Permissions());
    const QString otherKey = Repository::keygen(dir.filePath(QStringLiteral("other"))).subject;

    QVERIFY(Repository::publish(package, repo, QStringLiteral("app"), QStringLiteral("1.0"), dir.filePath(QStringLiteral("maker.key"))));
    QVERIFY(Repository::verifyPackage(package, repo, QStringLiteral("app"), QString(), publicKey));
    QCOMPARE(Repository::verifyPackage(package, repo, QStringLiteral("app"), QString(), otherKey).code, Error::SignatureInvalid);

    // One changed byte of the index breaks the signature.
    const QString indexPath = repo + QLatin1String("/modules/app/index.json");
    QByteArray index = readFile(indexPath);
    index.replace("\"1.0\"", "\"1.1\"");
    QVERIFY(writeFile(indexPath, index));
    QCOMPARE(Repository::verifyPackage(package, repo, QStringLiteral("app"), QString(), publicKey).code, Error::SignatureInvalid);

    // Publishing without a key drops the signature that no longer matches.
    QVERIFY(Repository::publish(package, repo, QStringLiteral("app"), QStringLiteral("1.0")));
    QVERIFY(!QFileInfo::exists(indexPath + QLatin1String(".sig")));
    QCOMPARE(Repository::verifyPackage(package, repo, QStringLiteral("app"), QString(), publicKey).code, Error::SignatureInvalid);
}

void tst_Repository::refusals_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("module");
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("code");
    QTest::newRow("module with slash") << "a.tolmpkg" << "../app" << "1.0" << int(Error::ConfigError);
    QTest::newRow("empty module") << "a.tolmpkg" << "" << "1.0" << int(Error::ConfigError);
    QTest::newRow("bad version") << "a.tolmpkg" << "app" << "1.0 beta" << int(Error::ConfigError);
    QTest::newRow("file name with blank") << "my app.tolmpkg" << "app" << "1.0" << int(Error::ConfigError);
    QTest::newRow("file name taken by another version") << "taken.tolmpkg" << "app" << "2.0" << int(Error::ConfigError);
    QTest::newRow("missing package") << "missing.tolmpkg" << "app" << "1.0" << int(Error::NotFound);
}

void tst_Repository::refusals()
{
    QFETCH(QString, file);
    QFETCH(QString, module);
    QFETCH(QString, version);
    QFETCH(int, code);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString repo = dir.filePath(QStringLiteral("repo"));
    QVERIFY(writeFile(dir.filePath(QStringLiteral("taken.tolmpkg")), "first"));
    QVERIFY(Repository::publish(dir.filePath(QStringLiteral("taken.tolmpkg")), repo, QStringLiteral("app"), QStringLiteral("1.0")));
    const auto before = snapshot(repo);
    if (file != QLatin1String("missing.tolmpkg"))
        QVERIFY(writeFile(dir.filePath(file), "second"));

    const Outcome outcome = Repository::publish(dir.filePath(file), repo, module, version);
    QCOMPARE(int(outcome.code), code);
    QVERIFY(!outcome.message.isEmpty());
    QCOMPARE(snapshot(repo), before);
}

void tst_Repository::keygenNeverOverwrites()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString name = dir.filePath(QStringLiteral("k"));
    QVERIFY(Repository::keygen(name));
    const QByteArray secret = readFile(name + QLatin1String(".key"));
    QCOMPARE(Repository::keygen(name).code, Error::ConfigError);
    QCOMPARE(readFile(name + QLatin1String(".key")), secret);
}

CORBETH_TEST_MAIN(tst_Repository)
#include "tst_repository.moc"
