#include "logcapture.h"
#include "platform/blockdevice_p.h"
#include "platform/skglobal.h"
#include "testfiles.h"
#include "testmain.h"
#include "testplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonArray>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>


using namespace Corbeth;

namespace {
QStringList words(const char *text)
{
    return QString::fromUtf8(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

SKGlobal *sk()
{
    return SKGlobal::instance();
}

// Runs its program as the user "nobody".
class OtherUserProcess : public QProcess
{
protected:
    void setupChildProcess() override { becomeNobody(); }
};
} // namespace

class tst_SKGlobal : public QObject
{
    Q_OBJECT

private slots:
    void runProcess_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("timeout");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("logLine");

        const QString helper = testHelperPath();
        const QByteArray untouched("untouched");
        QTest::newRow("output and exit code") << helper << words("--print hello --stderr ignored --exit 3") << 30
                                              << true << QByteArray("hello\n") << 3 << "process existcode"_s;
        QTest::newRow("no limit") << helper << words("--sleep 200") << -1 << true << QByteArray() << 0
                                  << "finished process"_s;
        // A start failure is logged but not reported through the result.
        QTest::newRow("missing program") << "/nonexistent/program"_s << QStringList() << 30 << true << untouched << -77
                                         << "process started fail"_s;
        QTest::newRow("empty program") << QString() << QStringList() << 30 << true << untouched << -77
                                       << "process started fail"_s;
        QTest::newRow("overrun") << helper << words("--sleep 10000") << 1 << false << untouched << -77 << "time : 1"_s;
        QTest::newRow("zero timeout") << helper << words("--exit 0") << 0 << false << untouched << -77
                                      << "process error"_s;
        QTest::newRow("negative timeout")
            << helper << words("--exit 0") << -5 << false << untouched << -77 << "process timeout invalid"_s;
    }

    void runProcess()
    {
        QFETCH(QString, program);
        QFETCH(QStringList, args);
        QFETCH(int, timeout);
        QFETCH(QString, logLine);

        LogCapture log;
        QByteArray out("untouched");
        int code = -77;
        QTEST(sk()->runProcess(program, timeout, args, 0, out, code), "result");
        QTEST(out.replace("\r\n", "\n"), "output"); // (CR LF from a Windows program)
        QTEST(code, "exitCode");
        QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
    }

    void runProcessEndsTheWholeTreeOnTimeout()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString mainPidFile = dir.filePath("main.pid"_s);
        const QString childPidFile = dir.filePath("child.pid"_s);
        const QString detachedPidFile = dir.filePath("detached.pid"_s);
        QByteArray out;
        QVERIFY(!sk()->runProcess(testHelperPath(), 2,
                                  {"--pidfile"_s, mainPidFile, "--spawn-child"_s, childPidFile, "--detach-child"_s,
                                   detachedPidFile, "--sleep"_s, "30000"_s},
                                  0, out));
        for (const QString &file : {mainPidFile, childPidFile, detachedPidFile}) {
            const qint64 pid = ::readFile(file).toLongLong();
            QVERIFY2(pid > 0, qPrintable(file));
            QTRY_VERIFY2_WITH_TIMEOUT(processEnded(pid), qPrintable(file), 30000);
        }
    }

    void runProcessLingersWithEvents()
    {
        bool delivered = false;
        QMetaObject::invokeMethod(this, [&delivered] { delivered = true; }, Qt::QueuedConnection);
        QElapsedTimer timer;
        timer.start();
        QByteArray out;
        QVERIFY(sk()->runProcess(testHelperPath(), 30, words("--print x"), 1, out));
        QVERIFY(delivered);
        QVERIFY(timer.elapsed() >= 1000);
        QCOMPARE(out.replace("\r\n", "\n"), QByteArray("x\n"));
    }

    void readFile()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        LogCapture log;
        QByteArray content("kept");
        for (const QString &path : {QString(), dir.filePath("missing"_s), dir.path()})
            QVERIFY2(!sk()->readFile(path, content), qPrintable(path));
        QCOMPARE(content, QByteArray("kept"));
        QVERIFY(log.contains("config file not exist"_s, QtCriticalMsg));
        QVERIFY(log.contains("config file open fail"_s, QtCriticalMsg));

        const QString file = dir.filePath("data.bin"_s);
        const QByteArray binary("a\r\nb\0c", 6);
        QVERIFY(writeFile(file, binary));
        QVERIFY(sk()->readFile(file, content));
        QCOMPARE(content, binary);
    }

    // A parsed but empty document (or an array) replaces the map before it is refused.
    void readJsonMapEmptiesTheMapOnAnEmptyDocument()
    {
        QTemporaryDir dir;
        const QString file = dir.filePath("config.json"_s);
        LogCapture log;
        for (const QByteArray &json : {QByteArray("{}"), QByteArray("[1]")}) {
            QVERIFY(writeFile(file, json));
            QVariantMap read{{"old"_s, 1}};
            QVERIFY(!sk()->readJsonMap(file, read));
            QCOMPARE(read, QVariantMap());
        }
        QCOMPARE(log.count("config file parse json error"_s, QtCriticalMsg), 2);
    }

    void readJsonObject()
    {
        QTemporaryDir dir;
        const QString file = dir.filePath("o.json"_s);
        QVERIFY(writeFile(file, "\n  {\"name\": \"caf\xc3\xa9\"}  \n\n"));
        QCOMPARE(sk()->readJsonObject(file).value("name"_s).toString(), QStringLiteral("caf\u00e9"));
        QVERIFY(writeFile(file, "not json"));
        QVERIFY(sk()->readJsonObject(file).isEmpty());
        QVERIFY(sk()->readJsonObject(dir.filePath("missing"_s)).isEmpty());
    }

    void writeJson()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        LogCapture log;
        const QString nested = dir.filePath("a/b/c.json"_s);
        QVERIFY(sk()->writeJsonMap(nested, {{"k"_s, "v"_s}}));
        QCOMPARE(::readFile(nested), QByteArray("{\n    \"k\": \"v\"\n}\n"));
        // A folder that cannot be made: a plain file stands in its way.
        QVERIFY(!sk()->writeFile(nested + "/d"_s, "x"));
        QVERIFY(log.contains("mkpath config file not exist"_s, QtCriticalMsg));

        const QString file = dir.filePath("v.json"_s);
        QVERIFY(sk()->writeJsonValue("a"_s, 1, file));
        // Written in text mode: CR LF on Windows.
        QCOMPARE(::readFile(file).replace("\r\n", "\n"), QByteArray("{\n    \"a\": 1\n}\n"));
        QVERIFY(sk()->writeJsonValue("b"_s, QJsonArray{"x"_s}, file));
        QVERIFY(sk()->writeJsonValue("a"_s, "two"_s, file));
        QCOMPARE(::readFile(file).replace("\r\n", "\n"), QByteArray("{\n    \"a\": \"two\",\n    \"b\": [\n        \"x\"\n    ]\n}\n"));

        // Content that is not an object is left as it was rather than replaced.
        QVERIFY(writeFile(file, "[1, 2]"));
        QVERIFY(!sk()->writeJsonValue("a"_s, 1, file));
        QCOMPARE(::readFile(file), QByteArray("[1, 2]"));
        QVERIFY(!sk()->writeJsonValue("a"_s, 1, dir.filePath("no/such/folder.json"_s)));
        QVERIFY(log.contains("not exist file"_s, QtCriticalMsg));
    }

    // Without a root of its own, HKLM goes to the machine-wide folder when this
    // process may write it, and to the user's folder otherwise.
    void settingsMachineStore()
    {
        if (SettingsSandbox::isRegistry())
            QSKIP("the Windows registry keeps the machine's settings, not files");
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QByteArray savedRoot = qgetenv("CORBETH_SETTINGS_ROOT");
        const QByteArray savedMachine = qgetenv("CORBETH_SETTINGS_MACHINE_ROOT");
        const QByteArray savedConfig = qgetenv("XDG_CONFIG_HOME");
        qunsetenv("CORBETH_SETTINGS_ROOT");
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("user"_s)));
        const QString key = "HKLM\\SOFTWARE\\Arvenor\\App"_s;
        const auto restore = qScopeGuard([&] {
            qputenv("CORBETH_SETTINGS_ROOT", savedRoot);
            qputenv("CORBETH_SETTINGS_MACHINE_ROOT", savedMachine);
            qputenv("XDG_CONFIG_HOME", savedConfig);
        });

        // A machine folder that cannot be made (below a plain file, which stops
        // root too): the write goes to the user's store and is read back.
        QVERIFY(writeFile(dir.filePath("file"_s), "x"));
        qputenv("CORBETH_SETTINGS_MACHINE_ROOT", QFile::encodeName(dir.filePath("file/registry"_s)));
        sk()->setSettingValue(key, "path"_s, "user"_s);
        QCOMPARE(sk()->settingValue(key, "path"_s).toString(), "user"_s);
        QVERIFY(QFile::exists(dir.filePath("user/corbeth/registry/HKEY_LOCAL_MACHINE.ini"_s)));

        // An unwritable root is reported, not silently lost.
        qputenv("CORBETH_SETTINGS_ROOT", QFile::encodeName(dir.filePath("file/root"_s)));
        LogCapture log;
        sk()->setSettingValue(key, "path"_s, "lost"_s);
        QVERIFY(log.contains("settings write fail"_s, QtCriticalMsg));
        qunsetenv("CORBETH_SETTINGS_ROOT");

        // Root writes the machine store; another user reads it.
        const QString machine = dir.filePath("machine"_s);
        qputenv("CORBETH_SETTINGS_MACHINE_ROOT", QFile::encodeName(machine));
        sk()->setSettingValue(key, "path"_s, "machine"_s);
        QVERIFY(QFile::exists(machine + "/HKEY_LOCAL_MACHINE.ini"_s));
        QCOMPARE(sk()->settingValue(key, "path"_s).toString(), "machine"_s);
        if (!runsAsRoot())
            QSKIP("reading as another user needs root");
        QFile::setPermissions(dir.path(), QFile::permissions(dir.path()) | QFile::ExeOther | QFile::ReadOther);
        QFile::setPermissions(machine, QFile::permissions(machine) | QFile::ExeOther | QFile::ReadOther);
        OtherUserProcess reader;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME"_s, dir.filePath("other"_s));
        env.insert("HOME"_s, dir.filePath("other"_s));
        reader.setProcessEnvironment(env);
        reader.start(QStringLiteral(CORBETH_SETTINGS_READER), {"--get"_s, key, "path"_s});
        if (!reader.waitForFinished(60000) || reader.exitStatus() != QProcess::NormalExit || reader.exitCode() == 126)
            QSKIP("the reader cannot run as another user from this checkout");
        QCOMPARE(reader.readAllStandardOutput().trimmed(), QByteArray("machine"));
    }

    // Two processes writing one hive at once: neither loses the other's keys.
    void settingsTwoWriters()
    {
        const QString path = "HKCU\\SOFTWARE\\Writers"_s;
        QProcess first, second;
        first.start(QStringLiteral(CORBETH_SETTINGS_READER), {"--write"_s, path, "a"_s, "60"_s});
        second.start(QStringLiteral(CORBETH_SETTINGS_READER), {"--write"_s, path, "b"_s, "60"_s});
        QVERIFY(first.waitForFinished(30000) && second.waitForFinished(30000));
        for (int i = 0; i < 60; ++i) {
            for (const char *prefix : {"a", "b"}) {
                const QString key = QLatin1String(prefix) + QString::number(i);
                QVERIFY2(sk()->settingValue(path, key).toInt() == i, qPrintable(key));
            }
        }
    }

    void settingsHiveNames()
    {
        if (SettingsSandbox::isRegistry())
            QSKIP("the Windows registry keeps the hives, not files");
        SettingsSandbox sandbox;
        QTemporaryDir cwd;
        QVERIFY(sandbox.isValid() && cwd.isValid());
        const QString previous = QDir::currentPath();
        QDir::setCurrent(cwd.path());

        sk()->setSettingValue("HKCU\\SOFTWARE\\X"_s, "k"_s, "user"_s);
        sk()->setSettingValue("HKLM\\SOFTWARE\\X"_s, "k"_s, "machine"_s);
        sk()->setSettingValue("HKEY_CLASSES_ROOT\\.tolmpkg"_s, "k"_s, "class"_s);
        QCOMPARE(sk()->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\X"_s, "k"_s).toString(), "user"_s);
        QCOMPARE(sk()->settingValue("HKEY_LOCAL_MACHINE\\SOFTWARE\\X"_s, "k"_s).toString(), "machine"_s);
        QCOMPARE(sk()->settingValue("HKCR\\.tolmpkg"_s, "k"_s).toString(), "class"_s);
        // Both separators, and stray ones, reach the same key.
        sk()->setSettingValue("\\HKCU\\SOFTWARE//Y/"_s, "k"_s, "spelt"_s);
        QCOMPARE(sk()->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\Y"_s, "k"_s).toString(), "spelt"_s);
        // The key path is a group of the hive, whose parent sees it as a sub-key.
        QCOMPARE(sk()->settingValue("HKCU\\SOFTWARE"_s, "X/k"_s).toString(), "user"_s);

        QDir::setCurrent(previous);
        // Nothing is created under a name made from the registry path.
        QCOMPARE(QDir(cwd.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
        QCOMPARE(QDir(sandbox.path()).entryList(QDir::Files),
                 (QStringList{"HKEY_CLASSES_ROOT.ini"_s, "HKEY_CURRENT_USER.ini"_s, "HKEY_LOCAL_MACHINE.ini"_s}));
    }

    void settingsKeyMatchIsExact()
    {
        const QString path = "HKCU\\SOFTWARE\\Case"_s;
        sk()->setSettingValue(path, "Version"_s, "1"_s);
        sk()->setSettingValue(path, "Sub/Key"_s, "2"_s);
        QCOMPARE(sk()->settingValue(path, "Version"_s).toString(), "1"_s);
        QCOMPARE(sk()->settingValue(path, "Sub/Key"_s).toString(), "2"_s);
        for (const QString &key : {"version"_s, "VERSION"_s, "Sub"_s})
            QVERIFY2(!sk()->settingValue(path, key).isValid(), qPrintable(key));
        // Registry keys (not values) are not case-sensitive.
        if (!SettingsSandbox::isRegistry())
            QVERIFY(!sk()->settingValue("HKCU\\SOFTWARE\\case"_s, "Version"_s).isValid());
    }

    void clearSettingsKeepsTheRest()
    {
        const QStringList cleared{"HKCU\\SOFTWARE\\Clear\\App"_s, "HKCU\\SOFTWARE\\Clear\\App\\Sub"_s};
        const QStringList kept{"HKCU\\SOFTWARE\\Clear"_s, "HKCU\\SOFTWARE\\Clear\\Apple"_s,
                               "HKLM\\SOFTWARE\\Clear\\App"_s};
        for (const QString &path : cleared + kept)
            sk()->setSettingValue(path, "k"_s, path);
        sk()->clearSettings("HKEY_CURRENT_USER\\SOFTWARE\\Clear\\App"_s);
        for (const QString &path : cleared)
            QVERIFY2(!sk()->settingValue(path, "k"_s).isValid(), qPrintable(path));
        for (const QString &path : kept)
            QCOMPARE(sk()->settingValue(path, "k"_s).toString(), path);
    }

    void settingsUnknownHive_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("empty") << QString();
        QTest::newRow("no hive") << "SOFTWARE\\Arvenor"_s;
        QTest::newRow("unknown hive") << "HKEY_NOWHERE\\SOFTWARE"_s;
        QTest::newRow("hive prefix only") << "HKCUX\\SOFTWARE"_s;
        QTest::newRow("lower case hive") << "hkcu\\SOFTWARE"_s;
    }

    void settingsUnknownHive()
    {
        QFETCH(QString, path);
        SettingsSandbox sandbox;
        QVERIFY(sandbox.isValid());
        LogCapture log;
        sk()->setSettingValue(path, "k"_s, 1);
        sk()->clearSettings(path);
        QVERIFY(!sk()->settingValue(path, "k"_s).isValid());
        QCOMPARE(log.count("settings path has no known hive"_s, QtWarningMsg), 3);
        QVERIFY(QDir(sandbox.path()).isEmpty());
    }

    void settingsReaderInAnotherProcessSeesWholeStore()
    {
        const QString path = "HKCU\\SOFTWARE\\Torn"_s;
        const QString key = "state"_s;
        // A big value makes a torn write likely to be seen if writes were not atomic.
        auto generation = [](int g) {
            QVariantMap map{{"filler"_s, QString(20000, QLatin1Char('x'))}};
            for (int i = 0; i < 200; ++i)
                map.insert(QStringLiteral("k%1").arg(i), g);
            return map;
        };
        sk()->setSettingValue(path, key, generation(1));

        QProcess reader;
        reader.start(QStringLiteral(CORBETH_SETTINGS_READER), {path, key, "3000"_s});
        QVERIFY(reader.waitForStarted());
        int g = 1;
        while (reader.state() == QProcess::Running && g < 100000) {
            sk()->setSettingValue(path, key, generation(++g));
            reader.waitForFinished(1);
        }
        QVERIFY(reader.state() == QProcess::NotRunning || reader.waitForFinished(30000));
        const QByteArray report = reader.readAllStandardOutput();
        QVERIFY2(reader.exitCode() == 0, report.constData());
        // The reader saw the store change, not one cached state.
        QVERIFY2(report.split(' ').value(3).trimmed().toInt() > 1, report.constData());
    }

    void processNameById()
    {
        QCOMPARE(sk()->processNameById(quint32(QCoreApplication::applicationPid())), QFileInfo(QCoreApplication::applicationFilePath()).fileName().toStdWString());
        QCOMPARE(sk()->processNameById(0xFFFFFFF0u), std::wstring());
    }

    void busTypeOfPath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("busType");
        const QString pci = "/sys/devices/pci0000:00/"_s;
        // USB wins over the SCSI host its bridge emulates.
        QTest::newRow("usb stick") << pci + "0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb/sdb1"_s
                                   << int(BlockDevice::BusUsb);
        QTest::newRow("sata disk") << pci + "0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda/sda2"_s
                                   << int(BlockDevice::BusSata);
        QTest::newRow("nvme") << pci + "0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1"_s << int(BlockDevice::BusNvme);
        QTest::newRow("sd card") << "/sys/devices/platform/soc/mmc_host/mmc0/mmc0:0001/block/mmcblk0"_s
                                 << int(BlockDevice::BusSd);
        QTest::newRow("loop") << "/sys/devices/virtual/block/loop0"_s << int(BlockDevice::BusFileBackedVirtual);
        QTest::newRow("virtio") << pci + "0000:00:02.0/virtio1/block/vda"_s << int(BlockDevice::BusUnknown);
    }

    void busTypeOfPath()
    {
#ifdef Q_OS_WIN
        QSKIP("the bus of a Linux block device, from its sysfs folder");
#else
        QFETCH(QString, path);
        QTEST(int(BlockDevice::busTypeOfPath(path)), "busType");
#endif
    }

    void isDriveFixed_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("readable");
        QTest::newRow("root file system") << "/"_s << true;
        QTest::newRow("missing path") << "/no/such/drive"_s << false;
        QTest::newRow("windows drive letter") << "Q:\\setup"_s << false;
    }

    // No USB disk is attached here: readable drives come out fixed, and so, on
    // purpose, do those whose bus cannot be read.
    void isDriveFixed()
    {
        QFETCH(QString, path);
        QFETCH(bool, readable);
#ifdef Q_OS_WIN
        if (readable)
            QSKIP("a drive's storage descriptor: Wine has no storage stack behind its drives");
#else
        if (readable && BlockDevice::sysfsFolderOf(path).isEmpty())
            QSKIP("no block device behind / on this machine");
#endif
        LogCapture log;
        QVERIFY(sk()->isDriveFixed(path));
        QCOMPARE(log.contains("is driver bugstype"_s), readable);
        QCOMPARE(log.contains("GetDriveTypeByBus fail"_s, QtCriticalMsg), !readable);
    }
};

CORBETH_TEST_MAIN(tst_SKGlobal)
#include "tst_skglobal.moc"
