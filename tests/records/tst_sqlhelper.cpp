// Which package file on disk counts as the one the repository announces, and
// the records that remember it.
#include "records/sqlhelper.h"

#include "testfiles.h"
#include "testmain.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

using namespace Corbeth;

namespace {

bool makeFile(const QString &path, int size, qint64 ageSeconds)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray(size, 'p')) != size || !file.flush())
        return false;
    return file.setFileTime(QDateTime::currentDateTime().addSecs(-ageSeconds), QFileDevice::FileModificationTime);
}

QVariantMap record(qint64 size, const QString &name)
{
    return {{"bytesTotal"_s, size}, {"file"_s, QVariantMap{{"name"_s, name}}}};
}

} // namespace

class tst_SQLHelper : public QObject
{
    Q_OBJECT

private slots:
    void isSameFile_data()
    {
        QTest::addColumn<QString>("local");
        QTest::addColumn<int>("size");
        QTest::addColumn<qint64>("age");
        QTest::addColumn<QVariantMap>("record");
        QTest::addColumn<bool>("same");
        const QVariantMap pkg = record(100, "pkg.tolmpkg"_s);
        QTest::newRow("same") << "pkg.tolmpkg"_s << 100 << qint64(60) << pkg << true;
        QTest::newRow("a copy's number") << "pkg(1).tolmpkg"_s << 100 << qint64(60) << pkg << true;
        QTest::newRow("other size") << "pkg.tolmpkg"_s << 99 << qint64(60) << pkg << false;
        QTest::newRow("other name") << "other.tolmpkg"_s << 100 << qint64(60) << pkg << false;
        QTest::newRow("three days and a second") << "pkg.tolmpkg"_s << 100 << qint64(259201) << pkg << false;
        QTest::newRow("from the future") << "pkg.tolmpkg"_s << 100 << qint64(-3600) << pkg << false;
        QTest::newRow("size not a number")
            << "pkg.tolmpkg"_s << 100 << qint64(60) << QVariantMap{{"bytesTotal"_s, "many"_s}} << false;
    }

    void isSameFile()
    {
        QFETCH(QString, local);
        QFETCH(int, size);
        QFETCH(qint64, age);
        QFETCH(QVariantMap, record);
        QFETCH(bool, same);
        QTemporaryDir dir;
        QVERIFY(makeFile(dir.filePath(local), size, age));
        QCOMPARE(SQLHelper().isSameFile(record, dir.filePath(local)), same);
    }

    // Only a lower-case "tolmpkg" suffix is looked at.
    void findLocalPackage()
    {
        QTemporaryDir dir;
        QVERIFY(makeFile(dir.filePath("pkg.TOLMPKG"_s), 100, 60));
        SQLHelper records;
        QString found;
        QVERIFY(!records.findLocalPackage(dir.path(), record(100, "pkg.TOLMPKG"_s), found));
        QFile::remove(dir.filePath("pkg.TOLMPKG"_s)); // the same name on Windows
        QVERIFY(makeFile(dir.filePath("pkg.tolmpkg"_s), 100, 60));
        QVERIFY(records.findLocalPackage(dir.path(), record(100, "pkg.tolmpkg"_s), found));
        QCOMPARE(found, QDir(dir.path()).absoluteFilePath("pkg.tolmpkg"_s));
    }

    // Records are merged per program and survive in the settings store.
    void markOnlinePackage()
    {
        SettingsSandbox store;
        SQLHelper records;
        QVariantMap empty;
        QVERIFY(records.markOnlinePackage(empty));
        QVERIFY(records.allPackageInfo().contains(QCoreApplication::applicationName()));
        QVariantMap first{{"path"_s, "/a.tolmpkg"_s}, {"bytesTotal"_s, 1}};
        QVERIFY(records.markOnlinePackage(first));
        QVariantMap second{{"bytesTotal"_s, 2}};
        QVERIFY(records.markOnlinePackage(second));
        QCOMPARE(second.value("path"_s).toString(), "/a.tolmpkg"_s);
        QCOMPARE(SQLHelper().appPackageInfo().value("bytesTotal"_s).toLongLong(), 2);
    }

    void calculateMD5()
    {
        QTemporaryDir dir;
        // More than one 10 MiB read.
        const QByteArray content(11 << 20, 'm');
        QVERIFY(writeFile(dir.filePath("big"_s), content));
        QCOMPARE(SQLHelper::calculateMD5(dir.filePath("big"_s)),
                 QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex()));
        QCOMPARE(SQLHelper::calculateMD5(dir.filePath("missing"_s)), QString());
    }
};

CORBETH_TEST_MAIN(tst_SQLHelper)
#include "tst_sqlhelper.moc"
