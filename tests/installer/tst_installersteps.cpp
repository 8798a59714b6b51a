// The installer's steps one by one: files, white list, settings, the process
// step, the progress rule, closing programs, drivers, older software, the
// cleanup tool and the offline package.
#include "installer/downloadcache.h"
#include "platform/processcloser.h"
#include "platform/protectedpath.h"
#include "platform/skglobal.h"

#include "logcapture.h"
#include "testmain.h"
#include "testplatform.h"
#include "testproduct.h"

#include <QtCore/QDirIterator>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <optional>
#include <thread>


using namespace Corbeth;
using namespace TestProduct;

Q_DECLARE_METATYPE(ProcessHelper)

namespace {

// Every file below dir, relative to it, sorted.
QStringList filesBelow(const QString &dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(dir).relativeFilePath(it.next());
    files.sort();
    return files;
}

ProcessHelper helperItem(ErrorLevel level, const QStringList &args, int timeout = 30,
                         const QList<ExtraProcess> &extra = {})
{
    return {level, testHelperPath(), args, extra, 0, timeout};
}


} // namespace

class TestInstallerSteps : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_installer.setInstallPath(m_dir.path());
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        writeFile(path("src/a.txt"_s), "alpha\n");
        writeFile(path("src/b.tar.txt"_s), "beta");
        writeFile(path("src/c.bin"_s), QByteArray("\x00\x01\n\xff", 4));
        writeFile(path("src/sub/d.txt"_s), "delta");
    }

    void cutFiles_data()
    {
        QTest::addColumn<QString>("src");
        QTest::addColumn<QString>("dest");
        QTest::addColumn<int>("level");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QStringList>("copied");
        QTest::addColumn<QString>("log");
        QTest::addColumn<int>("sizeLimit"); // a disk that fills after so many bytes, 0: none
        const int crit = EL_Critical;
        QTest::newRow("file") << "src/a.txt"_s << "out/x.txt"_s << crit << true << QStringList{"x.txt"_s} << ""_s << 0;
        QTest::newRow("folder tree") << "src"_s << "out"_s << crit << true
                                     << QStringList{"a.txt"_s, "b.tar.txt"_s, "c.bin"_s, "sub/d.txt"_s} << ""_s << 0;
        QTest::newRow("star star: files only") << "src/*.*"_s << "out"_s << crit << true
                                               << QStringList{"a.txt"_s, "b.tar.txt"_s, "c.bin"_s} << ""_s << 0;
        QTest::newRow("star suffix: complete suffix") << "src/*.txt"_s << "out"_s << crit << true
                                                      << QStringList{"a.txt"_s} << ""_s << 0;
        QTest::newRow("pattern without matches") << "src/*.xyz"_s << "out"_s << crit << true << QStringList() << ""_s << 0;
        QTest::newRow("missing critical") << "nowhere"_s << "out"_s << crit << false << QStringList() << "dir not exist"_s << 0;
        QTest::newRow("missing warn") << "nowhere"_s << "out"_s << int(EL_Warn) << true << QStringList() << "not exist"_s << 0;
        QTest::newRow("src == dest") << "nowhere"_s << "nowhere"_s << crit << true << QStringList() << "src == dest"_s << 0;
        QTest::newRow("file into missing folder") << "src/a.txt"_s << "out/deep/x.txt"_s << crit << true
                                                  << QStringList() << "file copy fail "_s << 0;
        // The step fails, the old file stays whole and no part of the new one is left.
        QTest::newRow("file, disk full") << "src/a.txt"_s << "out/old.txt"_s << int(EL_Warn) << false
                                         << QStringList{"old.txt"_s} << "cover files incomplete"_s << 3;
        QTest::newRow("folder, disk full") << "src/sub"_s << "out"_s << crit << false << QStringList{"old.txt"_s}
                                           << "file write fail"_s << 3;
    }

    void cutFiles()
    {
        QFETCH(QString, src);
        QFETCH(QString, dest);
        QFETCH(int, level);
        QFETCH(QString, log);
        CoverFileInfo item;
        item.pair = {"${installPath}/"_s + src, "${installPath}/"_s + dest};
        item.level = static_cast<ErrorLevel>(level);
        QFETCH(int, sizeLimit);
        if (sizeLimit && !FileSizeLimit::isSupported())
            QSKIP("no per-process file size limit to stand in for a full disk here");
        QDir().mkpath(path("out"_s));
        if (sizeLimit)
            writeFile(path("out/old.txt"_s), "old");
        LogCapture logs;
        {
            std::optional<FileSizeLimit> disk;
            if (sizeLimit)
                disk.emplace(sizeLimit);
            QTEST(m_installer.cutFiles({item}), "result");
        }
        QTEST(filesBelow(path("out"_s)), "copied");
        if (sizeLimit)
            QCOMPARE(readFile(path("out/old.txt"_s)), QByteArray("old"));
        QVERIFY2(logs.contains(log), qPrintable(logs.dump()));
    }

    void coverFileAnswersInvertedForFolders()
    {
        LogCapture logs;
        QVERIFY(!m_installer.coverFile(path("src"_s), path("out"_s)));
        QVERIFY(logs.contains("coverFile"_s, QtCriticalMsg));
        QVERIFY(!m_installer.coverFile(path("missing"_s), path("out2"_s)));
        QVERIFY(logs.contains(path("missing"_s) + " not exist"_s, QtWarningMsg));
        // Only a file that cannot be opened makes the folder copy fail, and the answer true.
        QDir().mkpath(path("out3/a.txt"_s));
        QVERIFY(m_installer.coverFile(path("src"_s), path("out3"_s)));
        QVERIFY(logs.contains("open fail"_s, QtCriticalMsg));
        QVERIFY(m_installer.coverFile(path("src/a.txt"_s), path("out/a.txt"_s)));
    }

    void copyDirKeepsBytesAndModes()
    {
        // Long runs without a line break are copied in bounded blocks.
        QByteArray big(3 * 1024 * 1024 + 17, 'x');
        big[5] = '\n';
        big[big.size() - 3] = '\0';
        writeFile(path("src/big.dat"_s), big);
        QFile::setPermissions(path("src/c.bin"_s), QFile::permissions(path("src/c.bin"_s)) | QFile::ExeOwner);
        QVERIFY(m_installer.copyDir(path("src"_s), path("out"_s), QDir::Filters(0x6007), QString()));
        QCOMPARE(readFile(path("out/big.dat"_s)), big);
        QCOMPARE(readFile(path("out/c.bin"_s)), QByteArray("\x00\x01\n\xff", 4));
#ifndef Q_OS_WIN // (where the name alone makes a program)
        QVERIFY(QFileInfo(path("out/c.bin"_s)).permission(QFile::ExeOwner));
#endif
    }

    // Links inside a package stay links into the copy; a link out of it is not
    // copied; none is followed (a link to "." once made 40 nested copies).
    void copyDirCopiesLinksAsLinks()
    {
#ifdef Q_OS_WIN
        QSKIP("QFile::link makes a .lnk shortcut on Windows, a plain file to the engine");
#endif
        writeFile(path("outside/secret"_s), "outside");
        QVERIFY(QFile::link("."_s, path("src/sub/self"_s)));
        QVERIFY(QFile::link("../a.txt"_s, path("src/sub/a-link"_s)));
        QVERIFY(QFile::link(path("outside"_s), path("src/out-link"_s)));
        LogCapture logs;
        QVERIFY(m_installer.copyDir(path("src"_s), path("out"_s), QDir::Filters(0x6007), QString()));
        QCOMPARE(QFileInfo(path("out/sub/self"_s)).symLinkTarget(), path("out/sub"_s));
        QCOMPARE(QFileInfo(path("out/sub/a-link"_s)).symLinkTarget(), path("out/a.txt"_s));
        QVERIFY(!QFileInfo(path("out/out-link"_s)).exists());
        QVERIFY(logs.contains("link leaves the package"_s, QtWarningMsg));
        QCOMPARE(filesBelow(path("out"_s)), (QStringList{"a.txt"_s, "b.tar.txt"_s, "c.bin"_s, "sub/a-link"_s,
                                                          "sub/d.txt"_s}));
    }

    // Entries that are neither files nor folders must not keep a removed folder.
    void removeFilesTakesDanglingLinksAndFifos()
    {
#ifdef Q_OS_WIN
        QSKIP("QFile::link makes a .lnk shortcut on Windows, a plain file to the engine");
#endif
        QVERIFY(QFile::link(path("nowhere"_s), path("src/sub/dangling"_s)));
        QProcess mkfifo;
        mkfifo.start("mkfifo"_s, {path("src/sub/pipe"_s)});
        QVERIFY(mkfifo.waitForFinished() && mkfifo.exitCode() == 0);
        QVERIFY(m_installer.removeFiles({"${installPath}/src"_s}, {}));
        QVERIFY(!QFileInfo::exists(path("src"_s)));
    }

    void removeFilesSparesWhiteList()
    {
        // A neighbour outside the removed paths, reached through a link inside them.
        writeFile(path("neighbour/keep.txt"_s), "neighbour");
        QVERIFY(QFile::link(path("neighbour"_s), path("src/sub/link"_s)));
        writeFile(path("src/sub/user.cfg"_s), "user settings\n");
        writeFile(path("single.txt"_s), "listed and white-listed");
        LogCapture logs;
        QVERIFY(m_installer.removeFiles({"${installPath}/src"_s, "${installPath}/single.txt"_s, "${installPath}/gone"_s},
                                        {"${installPath}/src/sub/user.cfg"_s, "${installPath}/single.txt"_s,
                                         "${installPath}/absent"_s}));
        QCOMPARE(filesBelow(path("src"_s)), QStringList{"sub/user.cfg"_s});
        QCOMPARE(readFile(path("src/sub/user.cfg"_s)), QByteArray("user settings\n"));
        QCOMPARE(readFile(path("single.txt"_s)), QByteArray("listed and white-listed"));
        QCOMPARE(readFile(path("neighbour/keep.txt"_s)), QByteArray("neighbour"));
        QVERIFY(!QFileInfo::exists(path("src/sub/link"_s)));
        QVERIFY(logs.contains("remove file erorr"_s));
    }

    // System trees and every home are refused; an application's own folder
    // in a shared place or in a home is not.
    void protectedFolders_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("refused");
        const auto row = [](const QString &path, bool refused) { QTest::newRow(qPrintable(path)) << path << refused; };
#ifdef Q_OS_WIN
        // The Windows folder and below, Program Files itself, Users and each
        // profile in it, drive and share roots, the user's shared folders.
        for (const QString &p : {"C:/"_s, "C:/Windows"_s, "c:\\windows\\system32\\drivers"_s, "C:/Program Files"_s,
                                 "C:/Program Files (x86)"_s, "C:/ProgramData"_s, "C:/Users"_s, "C:/Users/alice"_s,
                                 "C:/Users/alice/"_s, "//server/share"_s, ""_s, QDir::homePath(),
                                 QDir::homePath() + "/Desktop"_s, QDir::homePath() + "/Documents/x/.."_s})
            row(p, true);
        for (const QString &p : {"C:/Program Files/Product"_s, "C:/Product"_s, "D:/Games/Product"_s,
                                 "C:/Users/alice/product"_s, QDir::homePath() + "/product"_s,
                                 QDir::homePath() + "/Desktop/Demo.lnk"_s})
            row(p, false);
#else
        for (const QString &p : {"/"_s, "/usr"_s, "/usr/lib/x86_64-linux-gnu"_s, "/usr/share/doc"_s, "/var/lib/dpkg"_s,
                                 "/run/user"_s, "/etc/ssl/"_s, "/home"_s, "/home/alice"_s, "/home/alice/"_s,
                                 "/opt"_s, "/usr/local"_s, "/usr/local/bin"_s, "/tmp"_s, "/proc/1"_s, ""_s,
                                 QDir::homePath(), QDir::homePath() + "/.."_s, "/root/Desktop"_s})
            row(p, true);
        // Shared per-user folders, also reached by climbing.
        for (const char *p : {"/Desktop", "/Documents", "/.local/share", "/.config", "/.cache",
                              "/.local/share/applications", "/.local/share/applications/..", "/.local/share/x/../.."})
            row(QDir::homePath() + QLatin1String(p), true);
        for (const QString &p : {"/opt/product"_s, "/usr/local/product"_s, "/home/alice/product"_s,
                                 "/tmp/product"_s, QDir::homePath() + "/product"_s,
                                 QDir::homePath() + "/.local/share/product"_s, QDir::homePath() + "/Desktop/Demo.lnk"_s})
            row(p, false);
#endif
    }

    void protectedFolders()
    {
        QFETCH(QString, path);
        QFETCH(bool, refused);
        QCOMPARE(ProtectedPath::isProtected(std::filesystem::u8path(path.toStdString())), refused);
    }

    void removeFilesNeverTakesProtectedFolders()
    {
        Installer installer; // its install path is empty
        QVERIFY(installer.parseCustomTag({QVariantMap{{"name"_s, "tag"_s}}})); // a tag whose value is empty
        writeFile(QDir::homePath() + "/marker"_s, "home");
        writeFile(path("keep/marker"_s), "folder of an empty element");
        LogCapture logs;
        QVERIFY(installer.removeFiles({"${installPath}"_s, QDir::homePath(), path("keep/${tag}"_s)}, {}));
        QCOMPARE(logs.count("remove file erorr"_s), 3);
        QVERIFY(QFile::exists(QDir::homePath() + "/marker"_s));
        QVERIFY(QFile::exists(path("keep/marker"_s)));
    }

    // A folder exchanged with a link to a neighbour while the removal walks
    // is never followed: a thread keeps exchanging them, for a bounded number of tries.
    void removalNeverFollowsASwappedLink_data()
    {
        QTest::addColumn<bool>("tool");
        QTest::addColumn<int>("tries");
        QTest::newRow("engine") << false << 400;
        QTest::newRow("cleanup tool") << true << 40;
    }

    void removalNeverFollowsASwappedLink()
    {
        QFETCH(bool, tool);
        QFETCH(int, tries);
        if (!canExchangePaths())
            QSKIP("no atomic exchange of two paths to race the removal with here");
        const QString product = path("product"_s);
        const QString precious = path("victim/precious"_s);
        writeFile(precious, "mine");
        const QByteArray folder = QFile::encodeName(product + "/sub"_s);
        const QByteArray link = QFile::encodeName(product + "/sub-link"_s);
        for (int i = 0; i < tries && QFile::exists(precious); ++i) {
            for (const char *name : {"a", "b", "c", "sub/d", "sub/e", "sub/f"})
                writeFile(product + QLatin1Char('/') + QLatin1String(name), "x");
            QVERIFY(QFile::link(path("victim"_s), QFile::decodeName(link)));
            std::atomic<bool> stop{false};
            std::thread swapper([&] {
                while (!stop)
                    exchangePaths(folder, link);
            });
            if (tool) {
                QFile::remove(path("cleanup"_s));
                QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), path("cleanup"_s));
                QProcess::execute(path("cleanup"_s), {"--pid"_s, "999999999"_s, "--dir"_s, product, "--retry"_s, "0"_s});
            } else {
                m_installer.removeFiles({product}, {});
            }
            stop = true;
            swapper.join();
            QDir(product).removeRecursively();
        }
        QCOMPARE(readFile(precious), QByteArray("mine"));
    }

    // The download cache is used, cleaned and removed only as a folder of this
    // user: what a link in its place points to, or another user's folder, stays.
    void downloadCache_data()
    {
        QTest::addColumn<bool>("link");
        QTest::newRow("link to a folder") << true;
        QTest::newRow("folder of another user") << false;
    }
    void downloadCache()
    {
        QFETCH(bool, link);
        const QString cache = DownloadCache::folderOf(m_dir.path());
        const QString kept = link ? path("outside/keep.txt"_s) : cache + "/keep.txt"_s;
        QVERIFY(writeFile(kept, "keep"));
        if (link) {
#ifdef Q_OS_WIN
            QSKIP("QFile::link makes a .lnk shortcut on Windows, a plain file to the engine");
#endif
            QVERIFY(QFile::link(path("outside"_s), cache));
        }
        else if (!giveToNobody(cache))
            QSKIP("giving a folder to another user needs root");
        m_installer.removeUpdateDir();
        DownloadCache::clean(m_dir.path(), "app"_s);
        QCOMPARE(readFile(kept), QByteArray("keep"));
        QCOMPARE(DownloadCache::prepare(m_dir.path()), link);
        QVERIFY(!QFileInfo(cache).isSymLink());
    }

    void settingsAndUninstallRecord()
    {
        SettingsSandbox store;
        SKGlobal *global = SKGlobal::instance();
        const QString root = "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"_s;
        const QString other = "HKEY_CURRENT_USER\\SOFTWARE\\Demo"_s;
        // An expanded path with a blank is quoted: the command splits back into its arguments.
        m_installer.setInstallPath(path("My Apps/Demo"_s));
        m_installer.settings({{root + "\\Demo"_s, {{"UninstallString"_s, "${installPath}/unins.exe /S"_s}}},
                              {root + "\\DemoTwo"_s, {{"UninstallString"_s, "two.exe"_s}}},
                              {other, {{"UninstallString"_s, "other.exe"_s}}}});
        const QString command = global->settingValue(root + "\\Demo"_s, "UninstallString"_s).toString();
        QCOMPARE(Installer::splitArguments(command),
                 (QStringList{QDir::toNativeSeparators(path("My Apps/Demo/unins.exe"_s)), QDir::toNativeSeparators("/S"_s)}));
        QCOMPARE(global->settingValue(other, "UninstallString"_s).toString(), "other.exe"_s);
        // The application key drops as many leading characters as the last name is long, plus one.
        const QVariantMap record
            = global->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"_s, "UninstallObj"_s).toMap();
        QCOMPARE(record.keys(), (QStringList{root.mid(5) + "\\Demo"_s, root.mid(8) + "\\DemoTwo"_s}));
        // The record keeps the command with forward slashes.
        QCOMPARE(record.value(root.mid(5) + "\\Demo"_s).toMap().value("tolmInstallPath"_s).toString(),
                 QDir::fromNativeSeparators(command));
    }

    void splitArguments_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QStringList>("args");
        QTest::newRow("plain") << "un.exe /S"_s << QStringList{"un.exe"_s, "/S"_s};
        QTest::newRow("repeated and outer blanks") << "  un.exe \t /S  "_s << QStringList{"un.exe"_s, "/S"_s};
        QTest::newRow("quoted path") << "\"C:\\Program Files\\Old\\un.exe\" /S"_s
                                     << QStringList{"C:\\Program Files\\Old\\un.exe"_s, "/S"_s};
        QTest::newRow("quote inside a word") << "/D=\"a b\"c"_s << QStringList{"/D=a bc"_s};
        QTest::newRow("empty quotes") << "x \"\" y"_s << QStringList{"x"_s, ""_s, "y"_s};
        QTest::newRow("unclosed quote") << "\"a b"_s << QStringList{"a b"_s};
        QTest::newRow("empty") << ""_s << QStringList();
    }

    void splitArguments()
    {
        QFETCH(QString, line);
        LogCapture logs;
        QTEST(Installer::splitArguments(line), "args");
        QVERIFY(logs.contains("split sapce"_s));
    }

    void processExe_data()
    {
        QTest::addColumn<QList<ProcessHelper>>("items");
        QTest::addColumn<int>("code");
        const QStringList sleep{"--sleep"_s, "5000"_s};
        const QStringList exit1{"--exit"_s, "1"_s};
        ProcessHelper missing = helperItem(EL_Critical, {}, 30, {EP_CheckDriver});
        missing.program = "/nonexistent/setup"_s;
        QTest::newRow("warn overrun goes on") << QList<ProcessHelper>{helperItem(EL_Warn, sleep, 1)} << 0;
        QTest::newRow("critical overrun") << QList<ProcessHelper>{helperItem(EL_Critical, sleep, 1)} << 0x5123;
        QTest::newRow("timeout 0") << QList<ProcessHelper>{helperItem(EL_Critical, {}, 0)} << 0x5123;
        QTest::newRow("driver setup fails") << QList<ProcessHelper>{helperItem(EL_Critical, exit1, 30, {EP_CheckDriver}),
                                                                    helperItem(EL_Critical, sleep, 1)}
                                            << 0x5121;
        QTest::newRow("exit 1 without check") << QList<ProcessHelper>{helperItem(EL_Critical, exit1)} << 0;
        QTest::newRow("cannot start") << QList<ProcessHelper>{missing} << 0;
    }

    void processExe()
    {
        QFETCH(QList<ProcessHelper>, items);
        QTEST(int(m_installer.processExe(items)), "code");
    }

    void progressRule()
    {
        Installer installer;
        QSignalSpy rises(&installer, &Installer::riseOfProgress);
        QSignalSpy progress(&installer, &Installer::progress);
        installer.advanceProgress(80, 80);
        installer.advanceProgress(30, 70); // above the ceiling: never goes back
        installer.advanceProgress(30, 85); // capped
        LogCapture logs;
        installer.advanceProgress(15, 85); // at the ceiling
        QVERIFY(logs.contains("progress not changed"_s, QtWarningMsg));
        installer.advanceProgress(14, 99);
        installer.advanceProgress(1, 100); // 99 stops
        QCOMPARE(installer.currentProgress(), 99.0);
        QCOMPARE(progress.count(), 3);
        QCOMPARE(progress.at(1).at(0).toDouble(), 85.0);
        QCOMPARE(progress.at(2).at(0).toDouble(), 99.0);
        QCOMPARE(rises.at(1).at(0).toDouble(), 5.0);
        QCOMPARE(rises.at(2).at(0).toDouble(), 14.0);
    }

    void clearProcessEndsProgramsByName()
    {
#ifdef Q_OS_WIN
        QSKIP("its stubborn program is a shell script that ignores SIGTERM");
#endif
        const QString helper = uniqueHelper(m_dir.path(), "viewer"_s);
        const QString name = QFileInfo(helper).fileName();
        // One ends on SIGTERM; the shell copy ignores it and is ended forcibly.
        const QString stubborn = helper + "-shell"_s;
        QVERIFY(QFile::copy("/bin/sh"_s, stubborn));
        QFile::setPermissions(stubborn, QFile::permissions("/bin/sh"_s));
        QProcess polite, hard;
        polite.start(helper, {"--sleep"_s, "60000"_s});
        hard.start(stubborn, {"-c"_s, "trap '' TERM; while :; do sleep 1; done"_s});
        QVERIFY(polite.waitForStarted() && hard.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(!ProcessCloser::find(name + "-shell"_s).isEmpty(), 30000);

        // The test program's own name is listed too: the engine never ends itself.
        const QString self = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        configure(R"({"clearProcess": ["%1.exe", "%1-shell", "%2"]})"_s.arg(name, self).toUtf8());
        QVERIFY(installer()->clearProcess());
        QVERIFY(polite.waitForFinished(30000) && hard.waitForFinished(30000));
        QCOMPARE(hard.exitCode() == 0 && hard.exitStatus() == QProcess::NormalExit, false);
    }

    void driverExist_data()
    {
        QTest::addColumn<QStringList>("drivers");
        QTest::addColumn<bool>("present");
        QTest::addColumn<QString>("log");
        QTest::newRow("device file") << QStringList{"turntable"_s} << true << "driver found"_s;
        QTest::newRow("device pattern") << QStringList{"3DCamera"_s} << true << "driver found"_s;
        QTest::newRow("module missing") << QStringList{"vimba"_s} << false << "driver not found"_s;
        QTest::newRow("no identification") << QStringList{"3W"_s} << true << "driver identification missing"_s;
        QTest::newRow("one of two missing") << QStringList{"turntable"_s, "vimba"_s} << false << "driver not found"_s;
    }

    void driverExist()
    {
        QFETCH(QStringList, drivers);
        QFETCH(QString, log);
#ifdef Q_OS_WIN
        if (QTest::currentDataTag() == QByteArray("device file") || QTest::currentDataTag() == QByteArray("device pattern"))
            QSKIP("drivers are found in pnputil's listing, and Wine has no pnputil");
#endif
        configure(R"({"driverIdentification": {"turntable": {"linux": ["/dev/null"], "windows": ["nul"]},
            "3DCamera": ["/dev/nul*"], "vimba": ["no_such_module_anywhere"], "3W": []}})");
        QList<CBEnum::DriverType> types;
        for (const QString &word : drivers) {
            CBEnum::DriverType type;
            QVERIFY(Configer::strToDriverType(word, type));
            types << type;
        }
        LogCapture logs;
        QTEST(installer()->driverExist(types), "present");
        QVERIFY2(logs.contains(log), qPrintable(logs.dump()));
    }

    void olderSoftwareIsFoundAndRemoved()
    {
        SettingsSandbox store;
        const QString older = m_dir.filePath("older dir"_s);
        writeFile(older + "/bin/old.exe"_s, "old");
        writeFile(older + "/user.cfg"_s, "mine");
        SKGlobal::instance()->setSettingValue("HKEY_CURRENT_USER\\SOFTWARE\\OldDemo"_s, "InstallDir"_s, older);
        // The uninstaller's first argument is a whole command line; the others are not used.
        configure(QStringLiteral(R"({
            "install": {"olderSoftwareInfo": {
                "getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\OldDemo", "key": "InstallDir"},
                "process": [{"path": "%1", "arg": ["--touch \u0022${olderInstallPath}/uninstalled\u0022", "--touch unused"],
                             "extraProcess": ["waitExecOlderUninstall"], "waitTime": 0, "runingTimeout": 30}],
                "removeFiles": ["${olderInstallPath}/bin"],
                "removeSettings": ["HKEY_CURRENT_USER\\SOFTWARE\\OldDemo"]}},
            "uninstall": {"whiteList": ["${olderInstallPath}/user.cfg"]}})")
                      .arg(testHelperPath())
                      .toUtf8());
        QVERIFY(installer()->checkOldSoftwareIsExist());
        QVERIFY(installer()->uninstallOldSoftware());
        QVERIFY(QFile::exists(older + "/uninstalled"_s));
        QVERIFY(!QFile::exists("unused"_s));
        QVERIFY(!QFile::exists(older + "/bin/old.exe"_s));
        QCOMPARE(readFile(older + "/user.cfg"_s), QByteArray("mine"));
        // The settings entry is gone, so nothing older is left to find.
        QVERIFY(!installer()->checkOldSoftwareIsExist());
        QVERIFY(installer()->uninstallOldSoftware());
    }

    void cleanupTool()
    {
        Installer engine;
        QVERIFY(!engine.copySuicideTool()); // shipped neither beside the program nor in the install path
        const QString product = m_dir.filePath("product"_s);
        writeFile(product + "/bin/app"_s, "app");
        writeFile(product + "/data/user.cfg"_s, "kept");
        writeFile(product + "/settings/a.ini"_s, "kept");
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), product + "/corbeth-cleanup"_s));
        const QString name = "corbeth-cleanup-%1"_s.arg(QCoreApplication::applicationPid());
        const QString tool = QDir::temp().filePath(name);
        {
            // A copy that was never started goes with the engine.
            Installer unused;
            unused.setInstallPath(product);
            QVERIFY(unused.copySuicideTool());
            QVERIFY(QFile::exists(tool));
        }
        QVERIFY(!QFile::exists(tool));
        engine.setInstallPath(product);
        QVERIFY(engine.copySuicideTool());

        // The tool as suicide() starts it, waiting for a process that ends shortly.
        QProcess app;
        app.start(testHelperPath(), {"--sleep"_s, "500"_s});
        QVERIFY(app.waitForStarted());
        QProcess cleanup;
        cleanup.start(tool, {"--pid"_s, QString::number(app.processId()), "--dir"_s, product, "--keep"_s,
                             product + "/data/user.cfg"_s, "--keep"_s, product + "/settings/"_s});
        QVERIFY(cleanup.waitForFinished(60000));
        QCOMPARE(cleanup.exitCode(), 0);
        QVERIFY(!QFile::exists(product + "/bin/app"_s));
        QCOMPARE(readFile(product + "/data/user.cfg"_s), QByteArray("kept"));
        QCOMPARE(readFile(product + "/settings/a.ini"_s), QByteArray("kept"));
        // It removed itself (on Windows a moment after it ended).
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(tool), 30000);

        // suicide() copies the tool again and starts it detached; it waits for
        // this test program to end, so it is ended here instead.
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), product + "/corbeth-cleanup"_s));
        QVERIFY(!engine.isSuicide());
        engine.suicide(product);
        QVERIFY(engine.isSuicide());
        QTRY_VERIFY_WITH_TIMEOUT(!ProcessCloser::find(name).isEmpty(), 30000);
#ifdef Q_OS_WIN
        // (Under Wine an ended detached program can stay listed a while.)
        ProcessCloser::close(name, 1000);
#else
        QVERIFY(ProcessCloser::close(name, 1000));
#endif
        QFile::remove(tool);
    }

    void cleanupToolRefusesProtectedFolders_data()
    {
        QTest::addColumn<QString>("dir");
        QTest::newRow("home") << QDir::homePath();
#ifdef Q_OS_WIN
        QTest::newRow("system sub-folder") << "C:/Windows/System32"_s;
#else
        QTest::newRow("system sub-folder") << "/usr/share/doc"_s;
#endif
    }

    void cleanupToolRefusesProtectedFolders()
    {
        QFETCH(QString, dir);
        const QString tool = m_dir.filePath("cleanup"_s);
        QFile::remove(tool);
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), tool));
        writeFile(QDir::homePath() + "/marker"_s, "home");
        QProcess cleanup;
        cleanup.start(tool, {"--pid"_s, "999999999"_s, "--dir"_s, dir, "--wait"_s, "0"_s});
        QVERIFY(cleanup.waitForFinished(60000));
        QCOMPARE(cleanup.exitCode(), 2);
        QVERIFY(QFile::exists(QDir::homePath() + "/marker"_s));
    }

    void packages()
    {
        const QString dir = m_dir.filePath("packages"_s);
        writeFile(dir + "/a.tolmpkg.verify"_s, "digest");
        LogCapture logs;
        QCOMPARE(Installer::latestPackage(dir), QString());
        QVERIFY(logs.contains("No .tolmpkg files found in"_s));
        writeFile(dir + "/b.tolmpkg"_s, "new");
        writeFile(dir + "/a.tolmpkg"_s, "old");
        QFile older(dir + "/a.tolmpkg"_s);
        QVERIFY(older.open(QIODevice::ReadWrite));
        QVERIFY(older.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        older.close();
        QString found;
        QVERIFY(m_installer.searchPackage(dir, found));
        QCOMPARE(found, dir + "/b.tolmpkg"_s);
        QCOMPARE(m_installer.offlinePackage(), found);

        // An offline installer's package lies next to the program.
        QString package, verify;
        QVERIFY(!m_installer.checkIfOfflineInstall(package, verify));
        const QString shipped = QCoreApplication::applicationDirPath()
            + "/offline-%1.tolmpkg"_s.arg(QCoreApplication::applicationPid());
        writeFile(shipped, "package");
        writeFile(shipped + ".verify"_s, "digest");
        const bool offline = m_installer.checkIfOfflineInstall(package, verify);
        QFile::remove(shipped);
        QFile::remove(shipped + ".verify"_s);
        QVERIFY(offline);
        QCOMPARE(package, shipped);
        QCOMPARE(verify, shipped + ".verify"_s);
    }

private:
    QString path(const QString &relative) const { return m_dir.filePath(relative); }

    QTemporaryDir m_dir;
    Installer m_installer;
};

CORBETH_TEST_MAIN(TestInstallerSteps)
#include "tst_installersteps.moc"
