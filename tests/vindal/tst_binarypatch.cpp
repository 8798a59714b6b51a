#include "binarypatch_p.h"
#include "vindaltest.h"

#include <testmain.h>

#include <QtTest/QtTest>

using namespace Vindal;
using namespace VindalTest;

// Binary patches: every shape of change comes back exactly, and a patch that
// is damaged or meant for another file is refused without harm.
class tst_BinaryPatch : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }

    QByteArray make(const QByteArray &oldData, const QByteArray &newData)
    {
        writeFile(path("old"_s), oldData);
        writeFile(path("new"_s), newData);
        QBuffer patch;
        patch.open(QIODevice::WriteOnly);
        QString error;
        if (!BinaryPatch::make(path("old"_s), path("new"_s), &patch, &error))
            qWarning() << error;
        return patch.data();
    }
    // The file the patch makes of "old", or the error.
    static bool apply(QByteArray patchData, const QString &oldFile, QByteArray *result)
    {
        QBuffer patch(&patchData), out;
        patch.open(QIODevice::ReadOnly);
        out.open(QIODevice::WriteOnly);
        QString error;
        const bool applied = BinaryPatch::apply(oldFile, &patch, &out, &error);
        *result = applied ? out.data() : error.toUtf8();
        return applied;
    }

private slots:
    void roundTrip_data()
    {
        QTest::addColumn<QByteArray>("oldData");
        QTest::addColumn<QByteArray>("newData");
        QTest::addColumn<int>("maxPatch"); // a patch beyond it finds no match

        const QByteArray a = pseudoRandom(300000, 1), b = pseudoRandom(70000, 2);
        QByteArray moved = a.mid(200000) + a.mid(0, 100000) + b.left(100) + a.mid(100000, 100000);
        for (int i = 0; i < moved.size(); i += 4096)
            moved[i] = char(moved[i] + 1); // a changed pointer every page
        QTest::newRow("identical") << a << a << 1000;
        QTest::newRow("empty old") << QByteArray() << b << b.size() + 1000;
        QTest::newRow("empty new") << a << QByteArray() << 1000;
        QTest::newRow("both empty") << QByteArray() << QByteArray() << 1000;
        QTest::newRow("appended") << a << a + b << b.size() + 1000;
        QTest::newRow("inserted") << a << a.left(1234) + b + a.mid(1234) << b.size() + 1000;
        QTest::newRow("moved blocks") << a << moved << 3000;
    }

    void roundTrip()
    {
        QFETCH(QByteArray, oldData);
        QFETCH(QByteArray, newData);
        QFETCH(int, maxPatch);
        const QByteArray patch = make(oldData, newData);
        QVERIFY(!patch.isEmpty());
        QVERIFY2(patch.size() <= maxPatch, QByteArray::number(patch.size()));
        QByteArray result;
        QVERIFY2(apply(patch, path("old"_s), &result), result);
        QCOMPARE(result, newData);
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("patch");
        QTest::addColumn<QByteArray>("oldData"); // what "old" holds when applying
        QTest::addColumn<QByteArray>("message");

        const QByteArray a = pseudoRandom(100000, 3);
        QByteArray b = a;
        b.replace(5000, 10, "0123456789");
        const QByteArray patch = make(a, b);
        const auto flipped = [&](int at) { return QByteArray(patch).replace(at, 1, QByteArray(1, char(patch[at] ^ 0x40))); };
        QByteArray otherOld = a;
        otherOld[77777] = char(a[77777] + 1);
        const QByteArray damaged = "the patch is damaged", misfit = "the patch does not fit";
        QTest::newRow("truncated") << patch.left(patch.size() - 1) << a << damaged;
        QTest::newRow("header only") << patch.left(56) << a << damaged;
        QTest::newRow("cut header") << patch.left(20) << a << damaged;
        QTest::newRow("trailing byte") << patch + 'x' << a << damaged;
        QTest::newRow("bad magic") << flipped(0) << a << damaged;
        QTest::newRow("unknown codec") << flipped(4) << a << damaged;
        QTest::newRow("huge new size") << flipped(23) << a << damaged;
        QTest::newRow("old size") << flipped(8) << a << misfit;
        QTest::newRow("body byte") << flipped(patch.size() / 2) << a << QByteArray("the patch");
        QTest::newRow("checksum") << flipped(40) << a << misfit;
        QTest::newRow("other old file") << patch << otherOld << misfit;
        QTest::newRow("shorter old file") << patch << a.left(99999) << misfit;
    }

    void refused()
    {
        QFETCH(QByteArray, patch);
        QFETCH(QByteArray, oldData);
        QFETCH(QByteArray, message);
        writeFile(path("old"_s), oldData);
        QByteArray error;
        QVERIFY(!apply(patch, path("old"_s), &error));
        QVERIFY2(error.startsWith(message), error);
    }

    void tooLargeToDiff()
    {
        QFile large(path("large"_s));
        QVERIFY(large.open(QIODevice::WriteOnly) && large.resize(BinaryPatch::maxDiffSize() + 1));
        large.close();
        writeFile(path("small"_s), "small");
        QBuffer patch;
        patch.open(QIODevice::WriteOnly);
        QString error;
        QVERIFY(!BinaryPatch::make(path("small"_s), path("large"_s), &patch, &error));
        QVERIFY2(error.contains("too large to diff"_s), qPrintable(error));
        QVERIFY(!BinaryPatch::make(path("large"_s), path("small"_s), &patch, &error));
    }
};

CORBETH_TEST_MAIN(tst_BinaryPatch)
#include "tst_binarypatch.moc"
