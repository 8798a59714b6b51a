#include "vindaltest.h"

#include <testmain.h>

#include <vindal/filedigest.h>
#include <vindal/package.h>
#include <vindal/repository.h>

#include <QtTest/QtTest>

#include <archive.h>
#include <archive_entry.h>

#include <sys/stat.h>

#include <algorithm>
#include <clocale>
#include <memory>

using namespace Vindal;
using namespace VindalTest;

namespace {

// One entry of a hand-made archive; zeros > 0 writes that many zero bytes
// instead of data, without holding them in memory.
struct Entry
{
    Entry(const QByteArray &path = {}, int type = AE_IFREG, int mode = 0644, const QByteArray &data = {}, const QByteArray &link = {},
          const QByteArray &hardlink = {}, qint64 zeros = 0)
        : path(path), type(type), mode(mode), data(data), link(link), hardlink(hardlink), zeros(zeros)
    {
    }
    QByteArray path;
    int type, mode;
    QByteArray data, link, hardlink; // link: of a symbolic link
    qint64 zeros;
};

enum Kind { TarGz, TarZstd, Zip, ZipStored, Cpio };

// Writes entries exactly as given: no check of ours stands between a test
// and the archive it needs.
bool writeArchive(const QString &path, Kind kind, const QList<Entry> &entries)
{
    std::unique_ptr<struct archive, int (*)(struct archive *)> a(archive_write_new(), &archive_write_free);
    if (kind == Zip || kind == ZipStored)
        archive_write_set_format_zip(a.get());
    if (kind == ZipStored)
        archive_write_set_format_option(a.get(), "zip", "compression", "store");
    else if (kind == Cpio)
        archive_write_set_format_cpio_newc(a.get());
    else
        archive_write_set_format_pax_restricted(a.get());
    if (kind == TarGz)
        archive_write_add_filter_gzip(a.get());
    if (kind == TarZstd)
        archive_write_add_filter_zstd(a.get());
    if (archive_write_open_filename(a.get(), QFile::encodeName(path).constData()) != ARCHIVE_OK)
        return false;
    const QByteArray block(1 << 20, '\0');
    for (const Entry &e : entries) {
        std::unique_ptr<struct archive_entry, void (*)(struct archive_entry *)> entry(archive_entry_new(), &archive_entry_free);
        archive_entry_copy_pathname(entry.get(), e.path.constData());
        archive_entry_set_filetype(entry.get(), mode_t(e.type));
        archive_entry_set_perm(entry.get(), mode_t(e.mode));
        if (!e.link.isEmpty())
            archive_entry_copy_symlink(entry.get(), e.link.constData());
        if (!e.hardlink.isEmpty())
            archive_entry_copy_hardlink(entry.get(), e.hardlink.constData());
        if (e.type == AE_IFCHR)
            {
            archive_entry_set_rdevmajor(entry.get(), 1);
            archive_entry_set_rdevminor(entry.get(), 3);
        }
        archive_entry_set_size(entry.get(), e.type == AE_IFREG && e.hardlink.isEmpty() ? (e.zeros ? e.zeros : e.data.size()) : 0);
        if (archive_write_header(a.get(), entry.get()) != ARCHIVE_OK)
            return false;
        for (qint64 left = e.zeros; left > 0; left -= block.size())
            archive_write_data(a.get(), block.constData(), size_t(qMin<qint64>(left, block.size())));
        archive_write_data(a.get(), e.data.constData(), size_t(e.data.size()));
    }
    return archive_write_close(a.get()) == ARCHIVE_OK;
}

QStringList entryNames(const QString &path)
{
    // Read as a UTF-8 reader would, whatever locale the test runs in.
    const QByteArray locale = std::setlocale(LC_CTYPE, nullptr);
    std::setlocale(LC_CTYPE, "C.UTF-8");
    QStringList names;
    std::unique_ptr<struct archive, int (*)(struct archive *)> a(archive_read_new(), &archive_read_free);
    archive_read_support_format_all(a.get());
    archive_read_support_filter_all(a.get());
    struct archive_entry *entry = nullptr;
    if (archive_read_open_filename(a.get(), QFile::encodeName(path).constData(), 65536) == ARCHIVE_OK) {
        while (archive_read_next_header(a.get(), &entry) == ARCHIVE_OK)
            names.append(QString::fromUtf8(archive_entry_pathname(entry)));
    }
    std::setlocale(LC_CTYPE, locale.constData());
    return names;
}

// A tree with an executable, a big file, an empty file, a non-ASCII name, an
// empty folder and a relative link.
QString makeSourceTree(const QString &root)
{
    const QString src = root + "/src"_s;
    writeFile(src + "/bin/app"_s, "#!/bin/sh\necho app\n");
    QFile::setPermissions(src + "/bin/app"_s, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    writeFile(src + "/data/big.bin"_s, pseudoRandom(3 * 1024 * 1024 + 17, 1));
    writeFile(src + "/data/empty.txt"_s, QByteArray());
    writeFile(src + "/data/\xc3\xbc" "ber sp\xc3\xa4t.txt"_s, "unicode name");
    QDir().mkpath(src + "/empty/folder"_s);
    QFile::link("../data/big.bin"_s, src + "/bin/data-link"_s);
    return src;
}

} // namespace

Q_DECLARE_METATYPE(QList<Entry>)

// Packages: creating, unpacking (safely) and verifying them; repositories:
// publishing into them, signing them and checking packages against them.
class tst_Package : public QObject
{
    Q_OBJECT

    QString path(const QString &name) const { return m_dir->filePath(name); }
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_repo;

private slots:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        QVERIFY(m_dir->isValid());
        m_repo = path("repo"_s);
    }

    void roundTrip_data()
    {
        QTest::addColumn<int>("format");
        QTest::newRow("tar.zst") << int(Package::TarZstd);
        QTest::newRow("tar.gz") << int(Package::TarGzip);
        QTest::newRow("tar") << int(Package::Tar);
        QTest::newRow("zip") << int(Package::Zip);
    }

    void roundTrip()
    {
        QFETCH(int, format);
        const QString src = makeSourceTree(m_dir->path());
        const QString package = path("app.tolmpkg"_s);
        const Outcome created = Package::create(src, package, Package::Format(format));
        QVERIFY2(created, qPrintable(created.message));

        // Entries in a stable, sorted order, whatever order the disk lists them in.
        const QStringList names = entryNames(package);
        QStringList sorted = names;
        std::sort(sorted.begin(), sorted.end(), [](const QString &a, const QString &b) { return a.toUtf8() < b.toUtf8(); });
        QCOMPARE(names, sorted);
        QCOMPARE(names.size(), 9);

        const QString out = path("out"_s);
        const qint64 size = QFileInfo(package).size();
        QList<QPair<qint64, qint64>> reports;
        const Outcome extracted = Package::extract(package, out, [&](qint64 done, qint64 total) {
            reports.append({done, total});
            return true;
        });
        QVERIFY2(extracted, qPrintable(extracted.message));
        QCOMPARE(snapshot(out), snapshot(src));
#ifndef Q_OS_WIN // (where the name alone makes a program)
        QVERIFY(QFileInfo(out + "/bin/app"_s).isExecutable());
#endif
        QVERIFY(reports.size() > 2);
        QCOMPARE(reports.last(), qMakePair(size, size));
        for (int i = 1; i < reports.size(); ++i)
            QVERIFY(reports.at(i).first >= reports.at(i - 1).first);

        // Unpacking again over the same tree replaces every file in place.
        QVERIFY(writeFile(out + "/data/empty.txt"_s, "stale"));
        QVERIFY(Package::extract(package, out));
        QCOMPARE(snapshot(out), snapshot(src));
        const auto cancelAfter1MiB = [](qint64 done, qint64) { return done < 1024 * 1024; };
        QCOMPARE(Package::extract(package, path("out2"_s), cancelAfter1MiB).code, Error::Cancelled);

        // The ".verify" companion holds the MD5 in lower-case hex and nothing else.
        const QString companion = package + ".verify"_s;
        QCOMPARE(Package::verify(package).code, Error::NotFound);
        QVERIFY(Package::writeVerifyFile(package));
        const QByteArray digest = readFile(companion);
        QCOMPARE(digest, FileDigest::md5Of(package).toLatin1());
        QCOMPARE(digest.size(), 32);
        QVERIFY(Package::verify(package));
        QVERIFY(writeFile(companion, digest + '\n'));
        QCOMPARE(Package::verify(package).code, Error::ChecksumMismatch);
        QVERIFY(writeFile(companion, digest.toUpper()));
        QCOMPARE(Package::verify(package).code, Error::ChecksumMismatch);
    }

    void hostile_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QList<Entry>>("entries");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("entry"); // the entry the error must name

        const auto file = [](const QByteArray &path) { return Entry{path, AE_IFREG, 0644, "evil"}; };
        const auto link = [](const QByteArray &path, const QByteArray &target) { return Entry{path, AE_IFLNK, 0777, {}, target}; };
        const Entry ok = file("ok.txt");
        const int unsafe = Error::UnsafeArchive;
        QList<Entry> many;
        for (int i = 0; i < 20000; ++i)
            many.append(Entry{"f" + QByteArray::number(i)});

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
        QTest::newRow("through link") << int(TarGz) << QList<Entry>{Entry{"sub", AE_IFDIR, 0755}, link("d", "sub"), file("d/evil.txt")}
                                      << unsafe << "d/evil.txt";
        QTest::newRow("hard link") << int(TarGz) << QList<Entry>{Entry{"h", AE_IFREG, 0644, {}, {}, "@OUTSIDE@/sentinel.txt"}} << unsafe << "h";
        QTest::newRow("device") << int(TarGz) << QList<Entry>{Entry{"null", AE_IFCHR, 0666}} << unsafe << "null";
        QTest::newRow("fifo") << int(TarGz) << QList<Entry>{Entry{"pipe", AE_IFIFO, 0666}} << unsafe << "pipe";
        QTest::newRow("size bomb") << int(TarZstd) << QList<Entry>{Entry{"zeros.bin", AE_IFREG, 0644, {}, {}, {}, 96 << 20}} << unsafe
                                   << "zeros.bin";
        QTest::newRow("entry bomb") << int(TarZstd) << many << unsafe << "*";
        QTest::newRow("not a package format") << int(Cpio) << QList<Entry>{ok} << int(Error::CorruptArchive) << "";
    }

    void hostile()
    {
        QFETCH(int, kind);
        QFETCH(QList<Entry>, entries);
        QFETCH(int, code);
        QFETCH(QString, entry);
        const QString outside = path("outside"_s);
        const QString target = path("target"_s);
        QVERIFY(writeFile(outside + "/sentinel.txt"_s, "sentinel"));
        QVERIFY(QDir().mkpath(target));
        for (Entry &e : entries) {
            for (QByteArray *name : {&e.path, &e.link, &e.hardlink})
                name->replace("@OUTSIDE@", QFile::encodeName(outside));
        }
        entry.replace("@OUTSIDE@"_s, outside);
        const QString package = path("hostile.tolmpkg"_s);
        QVERIFY(writeArchive(package, Kind(kind), entries));
        const auto outsideTarget = [this] {
            auto tree = snapshot(m_dir->path());
            for (auto it = tree.begin(); it != tree.end();)
                it = it.key().startsWith("target"_s) ? tree.erase(it) : it + 1;
            return tree;
        };
        const auto before = outsideTarget();

        const Outcome outcome = Package::extract(package, target);
#ifdef Q_OS_WIN
        // Windows lets few accounts make symbolic links: without the right a
        // link entry stops the unpacking as a write error, before anything
        // can go through it.
        if (outcome.code == Error::DiskFull
            && std::any_of(entries.cbegin(), entries.cend(), [](const Entry &e) { return e.type == AE_IFLNK; })) {
            QCOMPARE(outsideTarget(), before);
            return;
        }
#endif
        QCOMPARE(int(outcome.code), code);
        if (entry == "*"_s) // the first entry over the cap
            entry = outcome.subject;
        entry = QDir::fromNativeSeparators(entry); // a backslash separates on Windows
        QCOMPARE(outcome.subject, entry);
        QVERIFY2(outcome.message.contains(entry), qPrintable(outcome.message));
        // Nothing outside the target changed; inside it, at most the harmless
        // entries before the refused one.
        QCOMPARE(outsideTarget(), before);
    }

    // Damage of every kind fails with CorruptArchive naming the entry being
    // read; the file being written keeps its old content and no temporary
    // file is left.
    void damaged_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QString>("entry"); // the entry the error must name; empty: none yet
        QTest::newRow("truncated tar.gz") << int(TarGz) << "cut" << "big.bin";
        QTest::newRow("tar header checksum") << int(TarGz) << "header" << "";
        // libarchive reports a bad CRC as a warning only, after handing out the bytes.
        QTest::newRow("zip CRC") << int(ZipStored) << "flip" << "big.bin";
        QTest::newRow("not an archive") << int(TarGz) << "noise" << "";
    }

    void damaged()
    {
        QFETCH(int, kind);
        QFETCH(QString, damage);
        QFETCH(QString, entry);
        const QString target = path("target"_s);
        const QMap<QString, QByteArray> old{{"big.bin"_s, "old content"}};
        QVERIFY(writeFile(target + "/big.bin"_s, "old content"));
        const QString package = path("p.tolmpkg"_s);
        const QByteArray data = pseudoRandom(400000, 3);
        QVERIFY(writeArchive(package, Kind(kind), {Entry{"big.bin", AE_IFREG, 0644, data}}));
        QByteArray bytes = readFile(package);
        if (damage == "cut"_s) {
            bytes.truncate(bytes.size() / 2);
        } else if (damage == "header"_s) {
            QVERIFY(Package::create(target, package, Package::Tar));
            bytes = readFile(package);
            bytes[10] = char(bytes.at(10) ^ 0x20);
        } else if (damage == "flip"_s) {
            const int at = bytes.indexOf(data.mid(200000, 64));
            QVERIFY(at > 0);
            bytes[at] = char(bytes.at(at) ^ 0x01);
        } else {
            bytes = pseudoRandom(5000, 4);
        }
        QVERIFY(writeFile(package, bytes));

        const Outcome outcome = Package::extract(package, target);
        QCOMPARE(outcome.code, Error::CorruptArchive);
        if (!entry.isEmpty()) {
            QCOMPARE(outcome.subject, entry);
            QVERIFY2(outcome.message.contains(entry), qPrintable(outcome.message));
        }
        QCOMPARE(snapshot(target), old);
    }

    void missingPackage() { QCOMPARE(Package::extract(path("missing.tolmpkg"_s), path("target"_s)).code, Error::NotFound); }

    void linksReplacedAndSetuidAndSharedWriteDropped()
    {
#ifdef Q_OS_WIN
        QSKIP("Unix modes and symbolic links");
#endif
        // A link already in the target is replaced, not followed.
        const QString sentinel = path("outside/sentinel.txt"_s);
        const QString target = path("target"_s);
        QVERIFY(writeFile(sentinel, "sentinel"));
        QVERIFY(QDir().mkpath(target));
        QVERIFY(QFile::link(sentinel, target + "/config.txt"_s));
        const QString package = path("p.tolmpkg"_s);
        QVERIFY(writeArchive(package, TarZstd, {Entry{"config.txt", AE_IFREG, 0644, "new"}, Entry{"tool", AE_IFREG, 06755, "#!/bin/sh\n"},
                                                Entry{"shared", AE_IFDIR, 02777}, Entry{"shared/run", AE_IFREG, 0777, "x"}}));

        QVERIFY(Package::extract(package, target));
        QCOMPARE(readFile(sentinel), QByteArray("sentinel"));
        QVERIFY(!QFileInfo(target + "/config.txt"_s).isSymLink());
        QCOMPARE(readFile(target + "/config.txt"_s), QByteArray("new"));
        struct stat st;
        // Nobody but the owner may change what was unpacked.
        for (const char *name : {"/tool", "/shared", "/shared/run"}) {
            QCOMPARE(::stat(QFile::encodeName(target + QLatin1String(name)).constData(), &st), 0);
            QCOMPARE(int(st.st_mode & 07777), 0755);
        }
    }

    // A killed unpack leaves its hidden temporary files; the next one into the
    // same folder removes them, and nothing else.
    void leftoversOfAKilledUnpackAreRemoved()
    {
        const QString target = path("target"_s);
        for (const char *name : {"/.vindal-a1B2c3", "/shared/.vindal-Zz9xyQ", "/.vindal-notes.txt"})
            QVERIFY(writeFile(target + QLatin1String(name), "x"));
        const QString package = path("p.tolmpkg"_s);
        QVERIFY(writeArchive(package, TarZstd, {Entry{"shared/run", AE_IFREG, 0755, "x"}}));
        QVERIFY(Package::extract(package, target));
        QCOMPARE(snapshot(target).keys(), (QStringList{".vindal-notes.txt"_s, "shared"_s, "shared/run"_s}));
    }

    void publishAndVerify()
    {
        const QString v1 = path("app-1.9.0.tolmpkg"_s);
        const QString v2 = path("app-1.10.0.tolmpkg"_s);
        QVERIFY(writeFile(v1, pseudoRandom(5000, 1)));
        QVERIFY(writeFile(v2, pseudoRandom(7000, 2)));
        QVERIFY(Repository::publish(v1, m_repo, "app"_s, "1.9.0"_s));
        QVERIFY(Repository::publish(v2, m_repo, "app"_s, "1.10.0"_s));
        // Publishing the same version again replaces its entry.
        QVERIFY(Repository::publish(v2, m_repo, "app"_s, "1.10.0"_s));

        const auto entry = [](const QString &file, const QString &version) {
            const FileDigest digest = FileDigest::ofFile(file);
            return QJsonObject{{"version"_s, version}, {"file"_s, QFileInfo(file).fileName()}, {"size"_s, double(digest.size)},
                               {"md5"_s, digest.md5}, {"sha256"_s, digest.sha256}};
        };
        QCOMPARE(QJsonDocument::fromJson(readFile(m_repo + "/modules/app/index.json"_s)).object(),
                 (QJsonObject{{"format"_s, 1}, {"module"_s, "app"_s}, {"versions"_s, QJsonArray{entry(v1, "1.9.0"_s), entry(v2, "1.10.0"_s)}}}));
        QCOMPARE(readFile(m_repo + "/modules/app/app-1.10.0.tolmpkg"_s), readFile(v2));
        QVERIFY(!QFileInfo::exists(m_repo + "/modules/app/index.json.sig"_s));

        // Versions order numerically: 1.10.0 is the newest.
        QVERIFY(Repository::verifyPackage(v2, m_repo, "app"_s));
        QCOMPARE(Repository::verifyPackage(v1, m_repo, "app"_s).code, Error::ChecksumMismatch);
        QVERIFY(Repository::verifyPackage(v1, m_repo, "app"_s, "1.9.0"_s));
        QCOMPARE(Repository::verifyPackage(v1, m_repo, "app"_s, "3.0"_s).code, Error::NotFound);
    }

    void signing()
    {
        const QString package = path("app.tolmpkg"_s);
        QVERIFY(writeFile(package, pseudoRandom(3000, 3)));
        const Outcome keys = Repository::keygen(path("maker"_s));
        QVERIFY2(keys, qPrintable(keys.message));
        const QString publicKey = keys.subject;
        const QByteArray secret = readFile(path("maker.key"_s));
        QCOMPARE(readFile(path("maker.pub"_s)).trimmed(), publicKey.toLatin1());
#ifndef Q_OS_WIN // (no such permissions: access lists keep the key)
        QCOMPARE(QFileInfo(path("maker.key"_s)).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFileDevice::Permissions());
#endif
        // A second keygen under the same name never overwrites the secret key.
        QCOMPARE(Repository::keygen(path("maker"_s)).code, Error::ConfigError);
        QCOMPARE(readFile(path("maker.key"_s)), secret);

        const auto verify = [&](const QString &key) { return Repository::verifyPackage(package, m_repo, "app"_s, QString(), key); };
        QVERIFY(Repository::publish(package, m_repo, "app"_s, "1.0"_s, path("maker.key"_s)));
        QVERIFY(verify(publicKey));
        QCOMPARE(verify(Repository::keygen(path("other"_s)).subject).code, Error::SignatureInvalid);

        // One changed byte of the index breaks the signature.
        const QString indexPath = m_repo + "/modules/app/index.json"_s;
        QVERIFY(writeFile(indexPath, readFile(indexPath).replace("\"1.0\"", "\"1.1\"")));
        QCOMPARE(verify(publicKey).code, Error::SignatureInvalid);

        // Neither another key nor none may sign a signed repository: its clients would refuse it.
        for (const QString &key : {path("other.key"_s), QString()})
            QCOMPARE(Repository::publish(package, m_repo, "app"_s, "1.0"_s, key).code, Error::ConfigError);
        QVERIFY(QFileInfo::exists(indexPath + ".sig"_s));
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("module");
        QTest::addColumn<QString>("version");
        QTest::addColumn<int>("code");
        QTest::newRow("module with slash") << "a.tolmpkg" << "../app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("empty module") << "a.tolmpkg" << "" << "1.0" << int(Error::ConfigError);
        QTest::newRow("bad version") << "a.tolmpkg" << "app" << "1.0 beta" << int(Error::ConfigError);
        QTest::newRow("file name with blank") << "my app.tolmpkg" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("named like the index") << "index.json" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("named like the signature") << "Index.JSON.sig" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("named like a part file") << "a.tolmpkg.part" << "app" << "1.0" << int(Error::ConfigError);
        // Names that "$" let through, and names Windows reads as the index or as a device.
        QTest::newRow("index with a line break") << "index.json\n" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("part file with a line break") << "a.tolmpkg.part\n" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("version with a line break") << "a.tolmpkg" << "app" << "1.0\n" << int(Error::ConfigError);
        QTest::newRow("module with a trailing dot") << "a.tolmpkg" << "app." << "1.0" << int(Error::ConfigError);
        QTest::newRow("index with a trailing dot") << "Index.json." << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("device name") << "nul.tolmpkg" << "app" << "1.0" << int(Error::ConfigError);
        QTest::newRow("file name taken by another version") << "taken.tolmpkg" << "app" << "2.0" << int(Error::ConfigError);
        QTest::newRow("missing package") << "missing.tolmpkg" << "app" << "1.0" << int(Error::NotFound);
    }

    void refusals()
    {
        QFETCH(QString, file);
        QFETCH(QString, module);
        QFETCH(QString, version);
        QFETCH(int, code);
        QVERIFY(writeFile(path("taken.tolmpkg"_s), "first"));
        QVERIFY(Repository::publish(path("taken.tolmpkg"_s), m_repo, "app"_s, "1.0"_s));
        const auto before = snapshot(m_repo);
        // (Windows has no file of a device's name or with a line break: there
        // the name alone is refused.)
        if (file != "missing.tolmpkg"_s && !writeFile(path(file), "second")) {
#ifndef Q_OS_WIN
            QFAIL("the package cannot be written");
#endif
        }

        const Outcome outcome = Repository::publish(path(file), m_repo, module, version);
        QCOMPARE(int(outcome.code), code);
        QVERIFY(!outcome.message.isEmpty());
        QCOMPARE(snapshot(m_repo), before);
    }
};

CORBETH_TEST_MAIN(tst_Package)
#include "tst_package.moc"
