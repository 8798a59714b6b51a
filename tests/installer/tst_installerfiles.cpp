// The installer's steps one by one: files, white list, links, settings, the
// process step and the progress rule.
#include "installer/installer.h"
#include "platform/processcloser.h"
#include "platform/skglobal.h"

#include "logcapture.h"
#include "testmain.h"
#include "testproduct.h"

#include <QtCore/QFile>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

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
    ProcessHelper item;
    item.level = level;
    item.program = testHelperPath();
    item.args = args;
    item.runingTimeout = timeout;
    item.extraProcess = extra;
    return item;
}

} // namespace

class TestInstallerFiles : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_installer.setInstallPath(m_dir.path());
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        // The source tree: two files, a nested one and a folder of its own.
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
        const int crit = EL_Critical;
        const int warn = EL_Warn;
        QTest::newRow("file") << "src/a.txt"_s << "out/x.txt"_s << crit << true << QStringList{"x.txt"_s} << ""_s;
        QTest::newRow("folder tree") << "src"_s << "out"_s << crit << true
                                     << QStringList{"a.txt"_s, "b.tar.txt"_s, "c.bin"_s, "sub/d.txt"_s} << ""_s;
        QTest::newRow("star star: files only") << "src/*.*"_s << "out"_s << crit << true
                                               << QStringList{"a.txt"_s, "b.tar.txt"_s, "c.bin"_s} << ""_s;
        QTest::newRow("star suffix: complete suffix") << "src/*.txt"_s << "out"_s << crit << true << QStringList{"a.txt"_s}
                                                      << ""_s;
        QTest::newRow("pattern without matches") << "src/*.xyz"_s << "out"_s << crit << true << QStringList() << ""_s;
        QTest::newRow("missing critical") << "nowhere"_s << "out"_s << crit << false << QStringList() << "dir not exist"_s;
        QTest::newRow("missing warn") << "nowhere"_s << "out"_s << warn << true << QStringList() << "not exist"_s;
        QTest::newRow("src == dest") << "nowhere"_s << "nowhere"_s << crit << true << QStringList() << "src == dest"_s;
        QTest::newRow("file into missing folder") << "src/a.txt"_s << "out/deep/x.txt"_s << crit << true << QStringList()
                                                  << "file copy fail "_s;
    }

    void cutFiles()
    {
        QFETCH(QString, src);
        QFETCH(QString, dest);
        QFETCH(int, level);
        QFETCH(bool, result);
        QFETCH(QStringList, copied);
        QFETCH(QString, log);
        CoverFileInfo item;
        item.pair = {QStringLiteral("${installPath}/") + src, QStringLiteral("${installPath}/") + dest};
        item.level = static_cast<ErrorLevel>(level);
        QDir().mkpath(path("out"_s));
        LogCapture logs;
        QCOMPARE(m_installer.cutFiles({item}), result);
        QCOMPARE(filesBelow(path("out"_s)), copied);
        if (!log.isEmpty())
            QVERIFY2(logs.contains(log), qPrintable(logs.dump()));
    }

    void coverFileAnswersInvertedForFolders()
    {
        LogCapture logs;
        QVERIFY(!m_installer.coverFile(path("src"_s), path("out"_s)));
        QVERIFY(logs.contains(QStringLiteral("coverFile"), QtCriticalMsg));
        QVERIFY(!m_installer.coverFile(path("missing"_s), path("out2"_s)));
        QVERIFY(logs.contains(path("missing"_s) + QStringLiteral(" not exist"), QtWarningMsg));
        // Only a file that cannot be opened makes the folder copy fail, and the answer true.
        QDir().mkpath(path("out3/a.txt"_s));
        QVERIFY(m_installer.coverFile(path("src"_s), path("out3"_s)));
        QVERIFY(logs.contains(QStringLiteral("open fail"), QtCriticalMsg));
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
        QVERIFY(QFileInfo(path("out/c.bin"_s)).permission(QFile::ExeOwner));
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
        QVERIFY(logs.contains(QStringLiteral("remove file erorr")));
        QVERIFY(logs.contains(QStringLiteral("not exist"), QtWarningMsg));
    }

    void removeFilesNeverTakesProtectedFolders_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::newRow("unset variable") << "${installPath}"_s;
        QTest::newRow("variable before a system folder") << "${installPath}/usr"_s;
        QTest::newRow("home") << QDir::homePath();
    }

    void removeFilesNeverTakesProtectedFolders()
    {
        QFETCH(QString, entry);
        Installer installer; // its install path is empty
        writeFile(QDir::homePath() + QLatin1String("/marker"), "home");
        LogCapture logs;
        QVERIFY(installer.removeFiles({entry}, {}));
        QVERIFY(logs.contains(QStringLiteral("remove file erorr")));
        QVERIFY(QFile::exists(QDir::homePath() + QLatin1String("/marker")));
    }

    void linksReplaceAndSkip()
    {
        writeFile(path("links/Demo.lnk"_s), "old");
        LogCapture logs;
        QVERIFY(m_installer.links({{"${installPath}/src/a.txt"_s, "${installPath}/links/Demo.lnk"_s},
                                   {"${installPath}/missing"_s, "${installPath}/links/Missing.lnk"_s}}));
        QCOMPARE(QFileInfo(path("links/Demo.lnk"_s)).symLinkTarget(), path("src/a.txt"_s));
        QVERIFY(!QFileInfo::exists(path("links/Missing.lnk"_s)));
        QVERIFY(logs.contains(QStringLiteral("link src not exist"), QtCriticalMsg));
    }

    void settingsAndUninstallRecord()
    {
        SettingsSandbox store;
        SKGlobal *global = SKGlobal::instance();
        const QString root = QStringLiteral("HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall");
        const QString other = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Demo");
        m_installer.settings({{root + QLatin1String("\\Demo"), {{"UninstallString"_s, "${installPath}/unins.exe"_s},
                                                                  {"DisplayName"_s, "Demo"_s}}},
                              {root + QLatin1String("\\DemoTwo"), {{"UninstallString"_s, "two.exe"_s}}},
                              {other, {{"UninstallString"_s, "other.exe"_s}}}});
        QCOMPARE(global->settingValue(root + QLatin1String("\\Demo"), "UninstallString"_s).toString(),
                 QDir::toNativeSeparators(path("unins.exe"_s)));
        QCOMPARE(global->settingValue(root + QLatin1String("\\Demo"), "DisplayName"_s).toString(), "Demo"_s);
        QCOMPARE(global->settingValue(other, "UninstallString"_s).toString(), "other.exe"_s);

        // The application key drops as many leading characters as the last name is long, plus one.
        const QVariantMap record
            = global->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"_s, "UninstallObj"_s).toMap();
        const QString demoKey = root.mid(5) + QLatin1String("\\Demo");
        const QString twoKey = root.mid(8) + QLatin1String("\\DemoTwo");
        QCOMPARE(record.keys(), (QStringList{demoKey, twoKey}));
        const QVariantMap entry = record.value(demoKey).toMap();
        QCOMPARE(entry.value("installPath"_s).toString(), m_dir.path());
        QCOMPARE(entry.value("tolmInstallPath"_s).toString(), path("unins.exe"_s));

        m_installer.removeSettings({root + QLatin1String("\\Demo")});
        QVERIFY(!global->settingValue(root + QLatin1String("\\Demo"), "DisplayName"_s).isValid());
        QVERIFY(global->settingValue(other, "UninstallString"_s).isValid());
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
        QFETCH(QStringList, args);
        LogCapture logs;
        QCOMPARE(Installer::splitArguments(line), args);
        QVERIFY(logs.contains(QStringLiteral("split sapce")));
    }

    void processExe_data()
    {
        QTest::addColumn<QList<ProcessHelper>>("items");
        QTest::addColumn<int>("code");
        const QStringList sleep{"--sleep"_s, "5000"_s};
        const QStringList exit1{"--exit"_s, "1"_s};
        QTest::newRow("warn overrun goes on") << QList<ProcessHelper>{helperItem(EL_Warn, sleep, 1)} << 0;
        QTest::newRow("critical overrun") << QList<ProcessHelper>{helperItem(EL_Critical, sleep, 1)} << 0x5123;
        QTest::newRow("timeout 0") << QList<ProcessHelper>{helperItem(EL_Critical, {}, 0)} << 0x5123;
        QTest::newRow("driver setup fails")
            << QList<ProcessHelper>{helperItem(EL_Critical, exit1, 30, {EP_CheckDriver}),
                                    helperItem(EL_Critical, sleep, 1)}
            << 0x5121;
        QTest::newRow("exit 1 without check") << QList<ProcessHelper>{helperItem(EL_Critical, exit1)} << 0;
        ProcessHelper missing = helperItem(EL_Critical, {}, 30, {EP_CheckDriver});
        missing.program = QStringLiteral("/nonexistent/setup");
        QTest::newRow("cannot start") << QList<ProcessHelper>{missing} << 0;
    }

    void processExe()
    {
        QFETCH(QList<ProcessHelper>, items);
        QFETCH(int, code);
        QCOMPARE(int(m_installer.processExe(items)), code);
    }

    void processExeOlderUninstallCommandLine()
    {
        // The first argument is a whole command line; the others are not used.
        const QString made = path("with space/made file"_s);
        QDir().mkpath(path("with space"_s));
        const ProcessHelper item = helperItem(EL_Critical,
                                              {"--touch \"${installPath}/with space/made file\""_s, "--touch unused"_s},
                                              30, {EP_WaitExecOlderUninstall});
        QCOMPARE(m_installer.processExe({item}), CBEnum::EC_NoError);
        QVERIFY(QFile::exists(made));
        QVERIFY(!QFile::exists(QStringLiteral("unused")));
    }

    void timedOutProcessLeavesNothingRunning()
    {
        // A copy under a name of its own, so only this test's processes are looked for.
        const QString name = QStringLiteral("corbeth-timeout-%1").arg(QCoreApplication::applicationPid());
        QVERIFY(QFile::copy(testHelperPath(), path(name)));
        QFile::setPermissions(path(name), QFile::permissions(testHelperPath()));
        ProcessHelper item = helperItem(EL_Critical, {"--spawn-child"_s, path("child.pid"_s), "--sleep"_s, "60000"_s}, 2);
        item.program = path(name);
        QCOMPARE(m_installer.processExe({item}), CBEnum::EC_ProcessTimeout);
        QVERIFY(QFile::exists(path("child.pid"_s)));
        QTRY_VERIFY(ProcessCloser::find(name).isEmpty());
    }

    void advanceProgress_data()
    {
        QTest::addColumn<double>("start");
        QTest::addColumn<double>("step");
        QTest::addColumn<double>("ceiling");
        QTest::addColumn<double>("end");
        QTest::addColumn<QString>("log");
        QTest::newRow("above the ceiling") << 95.0 << 30.0 << 85.0 << 95.0 << ""_s;
        QTest::newRow("capped") << 80.0 << 30.0 << 85.0 << 85.0 << "install progress "_s;
        QTest::newRow("at the ceiling") << 85.0 << 15.0 << 85.0 << 85.0 << "progress not changed"_s;
        QTest::newRow("99 stops") << 99.0 << 1.0 << 100.0 << 99.0 << ""_s;
        QTest::newRow("to 100") << 98.5 << 100.0 << 100.0 << 100.0 << "install progress "_s;
    }

    void advanceProgress()
    {
        QFETCH(double, start);
        QFETCH(double, step);
        QFETCH(double, ceiling);
        QFETCH(double, end);
        QFETCH(QString, log);
        Installer installer;
        installer.advanceProgress(start, start);
        QSignalSpy rises(&installer, &Installer::riseOfProgress);
        QSignalSpy progress(&installer, &Installer::progress);
        LogCapture logs;
        installer.advanceProgress(step, ceiling);
        QCOMPARE(installer.currentProgress(), end);
        QCOMPARE(progress.count(), end == start ? 0 : 1);
        if (end != start) {
            QCOMPARE(rises.at(0).at(0).toDouble(), end - start);
            QCOMPARE(progress.at(0).at(0).toDouble(), end);
        }
        QCOMPARE(logs.lines().isEmpty(), log.isEmpty());
        if (!log.isEmpty())
            QVERIFY(logs.contains(log));
    }

private:
    QString path(const QString &relative) const { return m_dir.filePath(relative); }

    QTemporaryDir m_dir;
    Installer m_installer;
};

CORBETH_TEST_MAIN(TestInstallerFiles)
#include "tst_installerfiles.moc"
