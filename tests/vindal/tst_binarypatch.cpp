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

    QByteArray make(const QByteArray &oldData, const QByteArray &newData, BinaryPatch::Codec codec)
    {
        writeFile(path("old"_s), oldData);
        writeFile(path("new"_s), newData);
        QBuffer patch;
        patch.open(QIODevice::WriteOnly);
        QString error;
        if (!BinaryPatch::make(path("old"_s), path("new"_s), &patch, &error, codec))
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
        QTest::addColumn<int>("codec");
        QTest::addColumn<QByteArray>("oldData");
        QTest::addColumn<QByteArray>("newData");
        QTest::addColumn<int>("maxPatch"); // a patch beyond it finds no match

        const QByteArray a = pseudoRandom(300000, 1), b = pseudoRandom(70000, 2);
        QByteArray moved = a.mid(200000) + a.mid(0, 100000) + b.left(100) + a.mid(100000, 100000);
        for (int i = 0; i < moved.size(); i += 4096)
            moved[i] = char(moved[i] + 1); // a changed pointer every page
        for (const auto codec : {BinaryPatch::ZstdPrefix, BinaryPatch::Suffix}) {
            const char *name = codec == BinaryPatch::Suffix ? "suffix" : "zstd";
            QTest::addRow("%s identical", name) << int(codec) << a << a << 1000;
            QTest::addRow("%s empty old", name) << int(codec) << QByteArray() << b << b.size() + 1000;
            QTest::addRow("%s empty new", name) << int(codec) << a << QByteArray() << 1000;
            QTest::addRow("%s both empty", name) << int(codec) << QByteArray() << QByteArray() << 1000;
            QTest::addRow("%s appended", name) << int(codec) << a << a + b << b.size() + 1000;
            QTest::addRow("%s inserted", name) << int(codec) << a << a.left(1234) + b + a.mid(1234) << b.size() + 1000;
            QTest::addRow("%s moved blocks", name) << int(codec) << a << moved << 3000;
        }
        // Runs and chunks longer than the suffix codec cuts them to, many
        // chunks with nothing new in them, a result hashed beside the patching.
        const QByteArray base = pseudoRandom(2 << 20, 4), grown = base + pseudoRandom(1500000, 5) + base.repeated(12);
        QTest::newRow("suffix large") << int(BinaryPatch::Suffix) << base << grown << 1500000 + 10000;
    }

    void roundTrip()
    {
        QFETCH(int, codec);
        QFETCH(QByteArray, oldData);
        QFETCH(QByteArray, newData);
        QFETCH(int, maxPatch);
        const QByteArray patch = make(oldData, newData, BinaryPatch::Codec(codec));
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
        QByteArray otherOld = a;
        otherOld[77777] = char(a[77777] + 1);
        const QByteArray damaged = "the patch is damaged", misfit = "the patch does not fit";
        for (const auto codec : {BinaryPatch::ZstdPrefix, BinaryPatch::Suffix}) {
            const char *name = codec == BinaryPatch::Suffix ? "suffix" : "zstd";
            const QByteArray patch = make(a, b, codec);
            const auto flipped = [&](int at) { return QByteArray(patch).replace(at, 1, QByteArray(1, char(patch[at] ^ 0x40))); };
            QTest::addRow("%s truncated", name) << patch.left(patch.size() - 1) << a << damaged;
            QTest::addRow("%s header only", name) << patch.left(56) << a << damaged;
            QTest::addRow("%s cut header", name) << patch.left(20) << a << damaged;
            QTest::addRow("%s trailing byte", name) << patch + 'x' << a << damaged;
            QTest::addRow("%s bad magic", name) << flipped(0) << a << damaged;
            QTest::addRow("%s unknown codec", name) << flipped(4) << a << damaged;
            QTest::addRow("%s huge new size", name) << flipped(23) << a << damaged;
            QTest::addRow("%s old size", name) << flipped(8) << a << misfit;
            QTest::addRow("%s body byte", name) << flipped(patch.size() - 20) << a << QByteArray("the patch");
            QTest::addRow("%s checksum", name) << flipped(40) << a << misfit;
            QTest::addRow("%s other old file", name) << patch << otherOld << misfit;
            QTest::addRow("%s shorter old file", name) << patch << a.left(99999) << misfit;
        }
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
