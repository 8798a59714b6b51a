#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/package.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <archive.h>
#include <archive_entry.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <memory>

using namespace Vindal;
using namespace VindalTest;

namespace {

// One entry of a hand-made archive. zeros > 0 writes that many zero bytes
// instead of data, without holding them in memory.
struct Entry
{
    QByteArray path;
    int type = AE_IFREG;
    QByteArray data;
    QByteArray link;     // symbolic link target
    QByteArray hardlink; // hard link target
    int mode = 0644;
    qint64 zeros = 0;
};

enum Kind { TarGz, TarZstd, Zip, Cpio };

// Writes entries exactly as given: no check of ours stands between a test
// and the archive it needs.
bool writeArchive(const QString &path, Kind kind, const QList<Entry> &entries)
{
    std::unique_ptr<struct archive, int (*)(struct archive *)> a(archive_write_new(), &archive_write_free);
    if (kind == Zip) {
        archive_write_set_format_zip(a.get());
    } else if (kind == Cpio) {
        archive_write_set_format_cpio_newc(a.get());
    } else {
        archive_write_set_format_pax_restricted(a.get());
        if (kind == TarGz)
            archive_write_add_filter_gzip(a.get());
        else
            archive_write_add_filter_zstd(a.get());
    }
    if (archive_write_open_filename(a.get(), QFile::encodeName(path).constData()) != ARCHIVE_OK)
        return false;
    const QByteArray block(1 << 20, '\0');
    for (const Entry &e : entries) {
        struct archive_entry *entry = archive_entry_new();
        archive_entry_copy_pathname(entry, e.path.constData());
        archive_entry_set_filetype(entry, mode_t(e.type));
        archive_entry_set_perm(entry, mode_t(e.mode));
        if (!e.link.isEmpty())
            archive_entry_copy_symlink(entry, e.link.constData());
        if (!e.hardlink.isEmpty())
            archive_entry_copy_hardlink(entry, e.hardlink.constData());
        if (e.type == AE_IFCHR)
            archive_entry_set_rdev(entry, makedev(1, 3));
        archive_entry_set_size(entry, e.type == AE_IFREG && e.hardlink.isEmpty() ? (e.zeros ? e.zeros : e.data.size()) : 0);
        bool ok = archive_write_header(a.get(), entry) == ARCHIVE_OK;
        archive_entry_free(entry);
        if (!ok)
            return false;
        for (qint64 left = e.zeros; left > 0; left -= block.size())
            archive_write_data(a.get(), block.constData(), size_t(qMin<qint64>(left, block.size())));
        if (!e.data.isEmpty())
            archive_write_data(a.get(), e.data.constData(), size_t(e.data.size()));
    }
    return archive_write_close(a.get()) == ARCHIVE_OK;
}

QStringList entryNames(const QString &path)
{
    QStringList names;
    std::unique_ptr<struct archive, int (*)(struct archive *)> a(archive_read_new(), &archive_read_free);
    archive_read_support_format_all(a.get());
    archive_read_support_filter_all(a.get());
    if (archive_read_open_filename(a.get(), QFile::encodeName(path).constData(), 65536) != ARCHIVE_OK)
        return names;
    struct archive_entry *entry = nullptr;
    while (archive_read_next_header(a.get(), &entry) == ARCHIVE_OK)
        names.append(QString::fromUtf8(archive_entry_pathname(entry)));
    return names;
}

} // namespace

Q_DECLARE_METATYPE(QList<Entry>)

class tst_Package : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void verifyFile();
    void progressAndCancel();
    void hostile_data();
    void hostile();
    void failedEntryKeepsOldFile();
    void linkInTargetIsReplacedNotFollowed();
    void setuidIsDropped();

private:
    QString makeSourceTree(const QString &root);
};

QString tst_Package::makeSourceTree(const QString &root)
{
    const QString src = root + QLatin1String("/src");
    writeFile(src + QLatin1String("/bin/app"), "#!/bin/sh\necho app\n");
    QFile::setPermissions(src + QLatin1String("/bin/app"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    writeFile(src + QLatin1String("/data/big.bin"), pseudoRandom(3 * 1024 * 1024 + 17, 1));
    writeFile(src + QLatin1String("/data/empty.txt"), QByteArray());
    writeFile(src + QString::fromUtf8("/data/\xc3\xbc" "ber sp\xc3\xa4t.txt"), "unicode name");
    QDir().mkpath(src + QLatin1String("/empty/folder"));
    QFile::link(QStringLiteral("../data/big.bin"), src + QLatin1String("/bin/data-link"));
    return src;
}

void tst_Package::roundTrip_data()
{
    QTest::addColumn<int>("format");
    QTest::newRow("tar.zst") << int(Package::TarZstd);
    QTest::newRow("tar.gz") << int(Package::TarGzip);
    QTest::newRow("tar") << int(Package::Tar);
    QTest::newRow("zip") << int(Package::Zip);
}

void tst_Package::roundTrip()
{
    QFETCH(int, format);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString src = makeSourceTree(dir.path());
    const QString package = dir.filePath(QStringLiteral("app.tolmpkg"));
    const Outcome created = Package::create(src, package, Package::Format(format));
    QVERIFY2(created, qPrintable(created.message));

    // Entries in a stable, sorted order, whatever order the disk lists them in.
    const QStringList names = entryNames(package);
    QStringList sorted = names;
    std::sort(sorted.begin(), sorted.end(), [](const QString &a, const QString &b) { return a.toUtf8() < b.toUtf8(); });
    QCOMPARE(names, sorted);
    QCOMPARE(names.size(), 9);

    const QString out = dir.filePath(QStringLiteral("out"));
    const Outcome extracted = Package::extract(package, out);
    QVERIFY2(extracted, qPrintable(extracted.message));
    QCOMPARE(snapshot(out), snapshot(src));
    QVERIFY(QFileInfo(out + QLatin1String("/bin/app")).isExecutable());

    // Unpacking again over the same tree replaces every file in place.
    QVERIFY(writeFile(out + QLatin1String("/data/empty.txt"), "stale"));
    QVERIFY(Package::extract(package, out));
    QCOMPARE(snapshot(out), snapshot(src));
}

void tst_Package::verifyFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = dir.filePath(QStringLiteral("p.tolmpkg"));
    QVERIFY(writeFile(package, pseudoRandom(100000, 2)));

    QCOMPARE(Package::verify(package).code, Error::NotFound);
    QVERIFY(Package::writeVerifyFile(package));
    const QByteArray companion = readFile(package + QLatin1String(".verify"));
    QCOMPARE(companion, FileDigest::md5Of(package).toLatin1());
    QCOMPARE(companion.size(), 32);
    QVERIFY(Package::verify(package));

    // The companion must hold the digest and nothing else.
    QVERIFY(writeFile(package + QLatin1String(".verify"), companion + '\n'));
    QCOMPARE(Package::verify(package).code, Error::ChecksumMismatch);
    QVERIFY(writeFile(package + QLatin1String(".verify"), companion.toUpper()));
    QCOMPARE(Package::verify(package).code, Error::ChecksumMismatch);
}

void tst_Package::progressAndCancel()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString src = makeSourceTree(dir.path());
    const QString package = dir.filePath(QStringLiteral("p.tolmpkg"));
    QVERIFY(Package::create(src, package, Package::Tar));
    const qint64 size = QFileInfo(package).size();

    QList<QPair<qint64, qint64>> reports;
    QVERIFY(Package::extract(package, dir.filePath(QStringLiteral("out")), [&](qint64 done, qint64 total) {
        reports.append({done, total});
        return true;
    }));
    QVERIFY(reports.size() > 2);
    QCOMPARE(reports.last(), qMakePair(size, size));
    for (int i = 1; i < reports.size(); ++i)
        QVERIFY(reports.at(i).first >= reports.at(i - 1).first);

    const Outcome cancelled = Package::extract(package, dir.filePath(QStringLiteral("out2")), [](qint64 done, qint64) {
        return done < 1024 * 1024;
    });
    QCOMPARE(cancelled.code, Error::Cancelled);
}

void tst_Package::hostile_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QList<Entry>>("entries");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("entry"); // the entry the error must name

    const auto file = [](const QByteArray &path) { return Entry{path, AE_IFREG, "evil", {}, {}, 0644, 0}; };
    const auto link = [](const QByteArray &path, const QByteArray &target) { return Entry{path, AE_IFLNK, {}, target, {}, 0777, 0}; };
    const Entry ok = file("ok.txt");
    const int unsafe = Error::UnsafeArchive;

    QTest::newRow("dot-dot") << int(TarGz) << QList<Entry>{ok, file("../outside/evil.txt")} << unsafe << "../outside/evil.txt";
    QTest::newRow("dot-dot inside") << int(TarGz) << QList<Entry>{file("a/../../outside/evil.txt")} << unsafe << "a/../../outside/evil.txt";
    QTest::newRow("backslash") << int(TarGz) << QList<Entry>{file("..\\outside\\evil.txt")} << unsafe << "..\\outside\\evil.txt";
    QTest::newRow("backslash inside") << int(TarZstd) << QList<Entry>{file("a\\..\\..\\outside\\evil.txt")} << unsafe
                                      << "a\\..\\..\\outside\\evil.txt";
    QTest::newRow("zip dot-dot") << int(Zip) << QList<Entry>{ok, file("../outside/evil.txt")} << unsafe << "../outside/evil.txt";
    QTest::newRow("absolute") << int(TarZstd) << QList<Entry>{file("@OUTSIDE@/evil.txt")} << unsafe << "@OUTSIDE@/evil.txt";
    QTest::newRow("drive letter") << int(Zip) << QList<Entry>{file("C:/outside/evil.txt")} << unsafe << "C:/outside/evil.txt";
    QTest::newRow("link leaving") << int(TarGz) << QList<Entry>{link("esc", "../outside"), file("esc/evil.txt")} << unsafe << "esc";
    QTest::newRow("absolute link") << int(TarGz) << QList<Entry>{link("esc", "@OUTSIDE@"), file("esc/evil.txt")} << unsafe << "esc";
    // "up" points at the target itself, so "up/.." is its parent.
    QTest::newRow("link via link") << int(TarGz) << QList<Entry>{link("up", "."), link("esc", "up/.."), file("esc/outside/evil.txt")}
                                   << unsafe << "esc";
    QTest::newRow("through link") << int(TarGz)
                                  << QList<Entry>{Entry{"sub", AE_IFDIR, {}, {}, {}, 0755, 0}, link("d", "sub"), file("d/evil.txt")}
                                  << unsafe << "d/evil.txt";
    QTest::newRow("hard link") << int(TarGz) << QList<Entry>{Entry{"h", AE_IFREG, {}, {}, "@OUTSIDE@/sentinel.txt", 0644, 0}} << unsafe << "h";
    QTest::newRow("device") << int(TarGz) << QList<Entry>{Entry{"null", AE_IFCHR, {}, {}, {}, 0666, 0}} << unsafe << "null";
    QTest::newRow("fifo") << int(TarGz) << QList<Entry>{Entry{"pipe", AE_IFIFO, {}, {}, {}, 0666, 0}} << unsafe << "pipe";
    QTest::newRow("size bomb") << int(TarZstd) << QList<Entry>{Entry{"zeros.bin", AE_IFREG, {}, {}, {}, 0644, 96 << 20}} << unsafe
                               << "zeros.bin";
    QList<Entry> many;
    for (int i = 0; i < 20000; ++i)
        many.append(Entry{"f" + QByteArray::number(i), AE_IFREG, {}, {}, {}, 0644, 0});
    QTest::newRow("entry bomb") << int(TarZstd) << many << unsafe << "*"; // the first entry over the cap
    QTest::newRow("not a package format") << int(Cpio) << QList<Entry>{ok} << int(Error::CorruptArchive) << "";
}

void tst_Package::hostile()
{
    QFETCH(int, kind);
    QFETCH(QList<Entry>, entries);
    QFETCH(int, code);
    QFETCH(QString, entry);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString outside = dir.filePath(QStringLiteral("outside"));
    const QString target = dir.filePath(QStringLiteral("target"));
    QVERIFY(writeFile(outside + QLatin1String("/sentinel.txt"), "sentinel"));
    QVERIFY(QDir().mkpath(target));
    for (Entry &e : entries) {
        e.path.replace("@OUTSIDE@", QFile::encodeName(outside));
        e.link.replace("@OUTSIDE@", QFile::encodeName(outside));
        e.hardlink.replace("@OUTSIDE@", QFile::encodeName(outside));
    }
    entry.replace(QLatin1String("@OUTSIDE@"), outside);
    const QString package = dir.filePath(QStringLiteral("hostile.tolmpkg"));
    QVERIFY(writeArchive(package, Kind(kind), entries));
    const auto before = snapshot(dir.path());

    const Outcome outcome = Package::extract(package, target);
    QCOMPARE(int(outcome.code), code);
    if (entry == QLatin1String("*"))
        entry = outcome.subject;
    QCOMPARE(outcome.subject, entry);
    if (!entry.isEmpty())
        QVERIFY2(outcome.message.contains(entry), qPrintable(outcome.message));

    // Nothing outside the target changed; inside it, at most the harmless
    // entries before the refused one.
    auto after = snapshot(dir.path());
    for (auto it = after.begin(); it != after.end();) {
        if (it.key().startsWith(QLatin1String("target/")))
            it = after.erase(it);
        else
            ++it;
    }
    auto expected = before;
    expected.remove(QStringLiteral("target"));
    after.remove(QStringLiteral("target"));
    QCOMPARE(after, expected);
}

void tst_Package::failedEntryKeepsOldFile()
{
    // A truncated archive: the file being written when the data ran out
    // keeps its old content, and no temporary file is left. (Damaged data
    // inside a compressed stream is the package digest's to catch; here it
    // is damaged structure.)
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString target = dir.filePath(QStringLiteral("target"));
    QVERIFY(writeFile(target + QLatin1String("/big.bin"), "old content"));
    const QString package = dir.filePath(QStringLiteral("p.tolmpkg"));
    QVERIFY(writeArchive(package, TarGz, {Entry{"big.bin", AE_IFREG, pseudoRandom(400000, 3), {}, {}, 0644, 0}}));
    QByteArray bytes = readFile(package);

    QVERIFY(writeFile(package, bytes.left(bytes.size() / 2)));
    Outcome outcome = Package::extract(package, target);
    QCOMPARE(outcome.code, Error::CorruptArchive);
    QCOMPARE(outcome.subject, QStringLiteral("big.bin"));
    QCOMPARE(snapshot(target), (QMap<QString, QByteArray>{{QStringLiteral("big.bin"), "old content"}}));

    // A tar header whose checksum no longer matches.
    QVERIFY(Package::create(target, package, Package::Tar));
    bytes = readFile(package);
    bytes[10] = char(bytes.at(10) ^ 0x20);
    QVERIFY(writeFile(package, bytes));
    outcome = Package::extract(package, target);
    QCOMPARE(outcome.code, Error::CorruptArchive);
    QCOMPARE(snapshot(target), (QMap<QString, QByteArray>{{QStringLiteral("big.bin"), "old content"}}));

    QVERIFY(writeFile(package, pseudoRandom(5000, 4)));
    QCOMPARE(Package::extract(package, target).code, Error::CorruptArchive);
    QCOMPARE(Package::extract(dir.filePath(QStringLiteral("missing.tolmpkg")), target).code, Error::NotFound);
}

void tst_Package::linkInTargetIsReplacedNotFollowed()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString sentinel = dir.filePath(QStringLiteral("outside/sentinel.txt"));
    const QString target = dir.filePath(QStringLiteral("target"));
    QVERIFY(writeFile(sentinel, "sentinel"));
    QVERIFY(QDir().mkpath(target));
    QVERIFY(QFile::link(sentinel, target + QLatin1String("/config.txt")));
    const QString package = dir.filePath(QStringLiteral("p.tolmpkg"));
    QVERIFY(writeArchive(package, TarZstd, {Entry{"config.txt", AE_IFREG, "new", {}, {}, 0644, 0}}));

    QVERIFY(Package::extract(package, target));
    QCOMPARE(readFile(sentinel), QByteArray("sentinel"));
    QVERIFY(!QFileInfo(target + QLatin1String("/config.txt")).isSymLink());
    QCOMPARE(readFile(target + QLatin1String("/config.txt")), QByteArray("new"));
}

void tst_Package::setuidIsDropped()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString package = dir.filePath(QStringLiteral("p.tolmpkg"));
    QVERIFY(writeArchive(package, TarGz, {Entry{"tool", AE_IFREG, "#!/bin/sh\n", {}, {}, 06755, 0}}));
    QVERIFY(Package::extract(package, dir.filePath(QStringLiteral("t"))));
    struct stat st;
    QCOMPARE(::stat(QFile::encodeName(dir.filePath(QStringLiteral("t/tool"))).constData(), &st), 0);
    QCOMPARE(int(st.st_mode & 07777), 0755);
}

CORBETH_TEST_MAIN(tst_Package)
#include "tst_package.moc"
