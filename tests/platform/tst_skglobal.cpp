#include "platform/blockdevice_p.h"
#include "logcapture.h"
#include "sandbox.h"
#include "platform/skglobal.h"
#include "testmain.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <csignal>
#include <sys/types.h>
#include <unistd.h>

using namespace Corbeth;

namespace {
SKGlobal *sk()
{
    return SKGlobal::instance();
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeAll(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// Gone, or a zombie that nobody reaps in a container without an init.
bool processEnded(qint64 pid)
{
    if (::kill(pid_t(pid), 0) != 0)
        return true;
    const QByteArray stat = readAll(QStringLiteral("/proc/%1/stat").arg(pid));
    const int close = stat.lastIndexOf(')');
    return close > 0 && stat.mid(close + 2, 1) == "Z";
}
} // namespace

class tst_SKGlobal : public QObject
{
    Q_OBJECT

private slots:
    void runProcess_data();
    void runProcess();
    void runProcessEndsTheWholeTreeOnTimeout();
    void runProcessLingersWithEvents();

    void readFile();
    void readJsonMap_data();
    void readJsonMap();
    void readJsonObject();
    void writeFileMakesFolders();
    void writeJsonValue();

    void settingsRoundTrip_data();
    void settingsRoundTrip();
    void settingsHiveNames();
    void settingsKeyMatchIsExact();
    void clearSettingsKeepsTheRest();
    void settingsUnknownHive_data();
    void settingsUnknownHive();
    void settingsReaderInAnotherProcessSeesWholeStore();

    void processNameById();
    void busTypeOfPath_data();
    void busTypeOfPath();
    void isDriveFixed_data();
    void isDriveFixed();
};

void tst_SKGlobal::runProcess_data()
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
    QTest::newRow("output and exit code")
        << helper << QStringList{QStringLiteral("--print"), QStringLiteral("hello"), QStringLiteral("--stderr"),
                                  QStringLiteral("not collected"), QStringLiteral("--exit"), QStringLiteral("3")}
        << 30 << true << QByteArray("hello\n") << 3 << QStringLiteral("process existcode");
    QTest::newRow("no limit") << helper << QStringList{QStringLiteral("--sleep"), QStringLiteral("200")} << -1
                              << true << QByteArray() << 0 << QStringLiteral("finished process");
    // A start failure is logged but not reported through the result.
    QTest::newRow("missing program") << QStringLiteral("/nonexistent/program") << QStringList() << 30 << true
                                     << untouched << -77 << QStringLiteral("process started fail");
    QTest::newRow("empty program") << QString() << QStringList() << 30 << true << untouched << -77
                                   << QStringLiteral("process started fail");
    QTest::newRow("overrun") << helper << QStringList{QStringLiteral("--sleep"), QStringLiteral("10000")} << 1
                             << false << untouched << -77 << QStringLiteral("time : 1");
    QTest::newRow("zero timeout") << helper << QStringList{QStringLiteral("--exit"), QStringLiteral("0")} << 0
                                  << false << untouched << -77 << QStringLiteral("process error");
    QTest::newRow("negative timeout") << helper << QStringList{QStringLiteral("--exit"), QStringLiteral("0")} << -5
                                      << false << untouched << -77 << QStringLiteral("process timeout invalid");
}

void tst_SKGlobal::runProcess()
{
    QFETCH(QString, program);
    QFETCH(QStringList, args);
    QFETCH(int, timeout);
    QFETCH(bool, result);
    QFETCH(QByteArray, output);
    QFETCH(int, exitCode);
    QFETCH(QString, logLine);

    LogCapture log;
    QByteArray out("untouched");
    int code = -77;
    QCOMPARE(sk()->runProcess(program, timeout, args, 0, out, code), result);
    QCOMPARE(out, output);
    QCOMPARE(code, exitCode);
    QVERIFY2(log.contains(logLine), qPrintable(log.dump()));
    QVERIFY2(log.contains(QStringLiteral("process exe")), qPrintable(log.dump()));
}

void tst_SKGlobal::runProcessEndsTheWholeTreeOnTimeout()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString childPidFile = dir.filePath(QStringLiteral("child.pid"));
    const QString mainPidFile = dir.filePath(QStringLiteral("main.pid"));
    QByteArray out;
    QVERIFY(!sk()->runProcess(testHelperPath(), 2,
                              {QStringLiteral("--pidfile"), mainPidFile, QStringLiteral("--spawn-child"), childPidFile,
                               QStringLiteral("--sleep"), QStringLiteral("30000")},
                              0, out));
    const qint64 mainPid = readAll(mainPidFile).toLongLong();
    const qint64 childPid = readAll(childPidFile).toLongLong();
    QVERIFY(mainPid > 0);
    QVERIFY(childPid > 0);
    QTRY_VERIFY_WITH_TIMEOUT(processEnded(mainPid), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(processEnded(childPid), 5000);
}

void tst_SKGlobal::runProcessLingersWithEvents()
{
    // Queued calls to this thread's objects are delivered while lingering.
    bool delivered = false;
    QMetaObject::invokeMethod(this, [&delivered] { delivered = true; }, Qt::QueuedConnection);
    QElapsedTimer timer;
    timer.start();
    QByteArray out;
    QVERIFY(sk()->runProcess(testHelperPath(), 30, {QStringLiteral("--print"), QStringLiteral("x")}, 1, out));
    QVERIFY(delivered);
    QVERIFY(timer.elapsed() >= 1000);
    QCOMPARE(out, QByteArray("x\n"));
}

void tst_SKGlobal::readFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    LogCapture log;
    QByteArray content("kept");
    QVERIFY(!sk()->readFile(QString(), content));
    QVERIFY(log.contains(QStringLiteral("is emptyyyyyyyyyyyyyyy"), QtDebugMsg));
    QVERIFY(!sk()->readFile(dir.filePath(QStringLiteral("missing")), content));
    QVERIFY(log.contains(QStringLiteral("config file not exist"), QtCriticalMsg));
    QVERIFY(!sk()->readFile(dir.path(), content));
    QVERIFY(log.contains(QStringLiteral("config file open fail"), QtCriticalMsg));
    QCOMPARE(content, QByteArray("kept"));

    const QString file = dir.filePath(QStringLiteral("data.bin"));
    const QByteArray binary("a\r\nb\0c", 6);
    QVERIFY(writeAll(file, binary));
    QVERIFY(sk()->readFile(file, content));
    QCOMPARE(content, binary);
}

void tst_SKGlobal::readJsonMap_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QVariantMap>("map");

    const QVariantMap untouched{{QStringLiteral("old"), 1}};
    QTest::newRow("object") << QByteArray(R"({"a": 1, "b": {"c": "d"}})") << true
                            << QVariantMap{{QStringLiteral("a"), 1.0},
                                           {QStringLiteral("b"), QVariantMap{{QStringLiteral("c"), QStringLiteral("d")}}}};
    // A parsed but empty document replaces the map before it is refused.
    QTest::newRow("empty object") << QByteArray("{}") << false << QVariantMap();
    QTest::newRow("array") << QByteArray("[1]") << false << QVariantMap();
    QTest::newRow("not json") << QByteArray("{\"a\": ") << false << untouched;
    QTest::newRow("empty file") << QByteArray() << false << untouched;
}

void tst_SKGlobal::readJsonMap()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, result);
    QFETCH(QVariantMap, map);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("config.json"));
    QVERIFY(writeAll(file, json));
    LogCapture log;
    QVariantMap read{{QStringLiteral("old"), 1}};
    QCOMPARE(sk()->readJsonMap(file, read), result);
    QCOMPARE(read, map);
    QCOMPARE(log.contains(QStringLiteral("config file parse json error"), QtCriticalMsg), !result);

    QVERIFY(!sk()->readJsonMap(dir.filePath(QStringLiteral("missing.json")), read));
    QVERIFY(log.contains(QStringLiteral("read file fail"), QtCriticalMsg));
}

void tst_SKGlobal::readJsonObject()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("o.json"));
    QVERIFY(writeAll(file, "\n  {\"name\": \"caf\xc3\xa9\"}  \n\n"));
    QCOMPARE(sk()->readJsonObject(file).value(QStringLiteral("name")).toString(), QStringLiteral("caf\u00e9"));
    QVERIFY(writeAll(file, "not json"));
    QVERIFY(sk()->readJsonObject(file).isEmpty());
    QVERIFY(sk()->readJsonObject(dir.filePath(QStringLiteral("missing"))).isEmpty());
}

void tst_SKGlobal::writeFileMakesFolders()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("a/b/c.json"));
    QVERIFY(sk()->writeJsonMap(file, {{QStringLiteral("k"), QStringLiteral("v")}}));
    QVariantMap map;
    QVERIFY(sk()->readJsonMap(file, map));
    QCOMPARE(map.value(QStringLiteral("k")).toString(), QStringLiteral("v"));
    QVERIFY(readAll(file).contains("\n    \"k\""));

    // A folder that cannot be made: a plain file stands in its way.
    LogCapture log;
    QVERIFY(!sk()->writeFile(dir.filePath(QStringLiteral("a/b/c.json/d")), "x"));
    QVERIFY(log.contains(QStringLiteral("mkpath config file not exist"), QtCriticalMsg));
}

void tst_SKGlobal::writeJsonValue()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("v.json"));
    QVERIFY(sk()->writeJsonValue(QStringLiteral("a"), 1, file));
    QCOMPARE(readAll(file), QByteArray("{\n    \"a\": 1\n}\n"));
    QVERIFY(sk()->writeJsonValue(QStringLiteral("b"), QJsonArray{QStringLiteral("x")}, file));
    QVERIFY(sk()->writeJsonValue(QStringLiteral("a"), QStringLiteral("two"), file));
    const QJsonObject object = QJsonDocument::fromJson(readAll(file)).object();
    QCOMPARE(object.value(QStringLiteral("a")).toString(), QStringLiteral("two"));
    QCOMPARE(object.value(QStringLiteral("b")).toArray().size(), 1);

    // Content that is not an object is left as it was rather than replaced.
    LogCapture log;
    QVERIFY(writeAll(file, "[1, 2]"));
    QVERIFY(!sk()->writeJsonValue(QStringLiteral("a"), 1, file));
    QCOMPARE(readAll(file), QByteArray("[1, 2]"));
    QVERIFY(!sk()->writeJsonValue(QStringLiteral("a"), 1, dir.filePath(QStringLiteral("no/such/folder.json"))));
    QVERIFY(log.contains(QStringLiteral("not exist file"), QtCriticalMsg));
}

void tst_SKGlobal::settingsRoundTrip_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("string") << QVariant(QStringLiteral("C:\\Program Files\\App, \"quoted\" = x"));
    QTest::newRow("int") << QVariant(42);
    QTest::newRow("large number") << QVariant(Q_INT64_C(1) << 40);
    QTest::newRow("string list") << QVariant(QStringList{QStringLiteral("a"), QStringLiteral("b, c")});
    QTest::newRow("one-item list") << QVariant(QStringList{QStringLiteral("only")});
    QTest::newRow("map") << QVariant(QVariantMap{
        {QStringLiteral("name"), QStringLiteral("pkg")},
        {QStringLiteral("size"), 12},
        {QStringLiteral("nested"), QVariantMap{{QStringLiteral("list"), QStringList{QStringLiteral("x")}}}}});
}

// The INI store gives numbers back as text and a one-item list as its item;
// the conversions callers use give the value back in every case.
void tst_SKGlobal::settingsRoundTrip()
{
    QFETCH(QVariant, value);
    const QString path = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller");
    sk()->setSettingValue(path, QStringLiteral("value"), value);
    const QVariant read = sk()->settingValue(path, QStringLiteral("value"));
    QVERIFY(read.isValid());
    switch (int(value.type())) {
    case QMetaType::QStringList:
        QCOMPARE(read.toStringList(), value.toStringList());
        break;
    case QMetaType::Int:
    case QMetaType::LongLong:
        QCOMPARE(read.toLongLong(), value.toLongLong());
        break;
    default:
        QCOMPARE(read, value);
    }
}

void tst_SKGlobal::settingsHiveNames()
{
    SettingsSandbox sandbox;
    QVERIFY(sandbox.isValid());
    QTemporaryDir cwd;
    QVERIFY(cwd.isValid());
    const QString previous = QDir::currentPath();
    QDir::setCurrent(cwd.path());

    sk()->setSettingValue(QStringLiteral("HKCU\\SOFTWARE\\X"), QStringLiteral("k"), QStringLiteral("user"));
    sk()->setSettingValue(QStringLiteral("HKLM\\SOFTWARE\\X"), QStringLiteral("k"), QStringLiteral("machine"));
    sk()->setSettingValue(QStringLiteral("HKEY_CLASSES_ROOT\\.tolmpkg"), QStringLiteral("k"), QStringLiteral("class"));
    QCOMPARE(sk()->settingValue(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\X"), QStringLiteral("k")).toString(),
             QStringLiteral("user"));
    QCOMPARE(sk()->settingValue(QStringLiteral("HKEY_LOCAL_MACHINE\\SOFTWARE\\X"), QStringLiteral("k")).toString(),
             QStringLiteral("machine"));
    QCOMPARE(sk()->settingValue(QStringLiteral("HKCR\\.tolmpkg"), QStringLiteral("k")).toString(),
             QStringLiteral("class"));
    // The key path is a group of the hive, whose parent sees it as a sub-key.
    QCOMPARE(sk()->settingValue(QStringLiteral("HKCU\\SOFTWARE"), QStringLiteral("X/k")).toString(),
             QStringLiteral("user"));

    QDir::setCurrent(previous);
    // Nothing is created under a name made from the registry path.
    QCOMPARE(QDir(cwd.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
    QCOMPARE(QDir(sandbox.path()).entryList(QDir::Files),
             (QStringList{QStringLiteral("HKEY_CLASSES_ROOT.ini"), QStringLiteral("HKEY_CURRENT_USER.ini"),
                          QStringLiteral("HKEY_LOCAL_MACHINE.ini")}));
}

void tst_SKGlobal::settingsKeyMatchIsExact()
{
    const QString path = QStringLiteral("HKCU\\SOFTWARE\\Case");
    sk()->setSettingValue(path, QStringLiteral("Version"), QStringLiteral("1"));
    sk()->setSettingValue(path, QStringLiteral("Sub/Key"), QStringLiteral("2"));
    QCOMPARE(sk()->settingValue(path, QStringLiteral("Version")).toString(), QStringLiteral("1"));
    QCOMPARE(sk()->settingValue(path, QStringLiteral("Sub/Key")).toString(), QStringLiteral("2"));
    QVERIFY(!sk()->settingValue(path, QStringLiteral("version")).isValid());
    QVERIFY(!sk()->settingValue(path, QStringLiteral("VERSION")).isValid());
    QVERIFY(!sk()->settingValue(path, QStringLiteral("Sub")).isValid());
    QVERIFY(!sk()->settingValue(QStringLiteral("HKCU\\SOFTWARE\\case"), QStringLiteral("Version")).isValid());
}

void tst_SKGlobal::clearSettingsKeepsTheRest()
{
    const QString key = QStringLiteral("k");
    const QStringList cleared{QStringLiteral("HKCU\\SOFTWARE\\Clear\\App"),
                              QStringLiteral("HKCU\\SOFTWARE\\Clear\\App\\Sub")};
    const QStringList kept{QStringLiteral("HKCU\\SOFTWARE\\Clear"), QStringLiteral("HKCU\\SOFTWARE\\Clear\\Apple"),
                           QStringLiteral("HKLM\\SOFTWARE\\Clear\\App")};
    for (const QString &path : cleared + kept)
        sk()->setSettingValue(path, key, path);
    sk()->clearSettings(QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Clear\\App"));
    for (const QString &path : cleared)
        QVERIFY2(!sk()->settingValue(path, key).isValid(), qPrintable(path));
    for (const QString &path : kept)
        QCOMPARE(sk()->settingValue(path, key).toString(), path);
}

void tst_SKGlobal::settingsUnknownHive_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("empty") << QString();
    QTest::newRow("no hive") << QStringLiteral("SOFTWARE\\Arvenor");
    QTest::newRow("unknown hive") << QStringLiteral("HKEY_NOWHERE\\SOFTWARE");
    QTest::newRow("hive prefix only") << QStringLiteral("HKCUX\\SOFTWARE");
    QTest::newRow("lower case hive") << QStringLiteral("hkcu\\SOFTWARE");
}

void tst_SKGlobal::settingsUnknownHive()
{
    QFETCH(QString, path);
    SettingsSandbox sandbox;
    QVERIFY(sandbox.isValid());
    LogCapture log;
    sk()->setSettingValue(path, QStringLiteral("k"), 1);
    sk()->clearSettings(path);
    QVERIFY(!sk()->settingValue(path, QStringLiteral("k")).isValid());
    QCOMPARE(log.count(QStringLiteral("settings path has no known hive"), QtWarningMsg), 3);
    QVERIFY(QDir(sandbox.path()).isEmpty());
}

void tst_SKGlobal::settingsReaderInAnotherProcessSeesWholeStore()
{
    const QString path = QStringLiteral("HKCU\\SOFTWARE\\Torn");
    const QString key = QStringLiteral("state");
    // A big value makes a torn write likely to be seen if writes were not atomic.
    auto generation = [](int g) {
        QVariantMap map{{QStringLiteral("filler"), QString(20000, QLatin1Char('x'))}};
        for (int i = 0; i < 200; ++i)
            map.insert(QStringLiteral("k%1").arg(i), g);
        return map;
    };
    sk()->setSettingValue(path, key, generation(1));

    QProcess reader;
    reader.start(QStringLiteral(CORBETH_SETTINGS_READER), {path, key, QStringLiteral("3000")});
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

void tst_SKGlobal::processNameById()
{
    QCOMPARE(sk()->processNameById(quint32(QCoreApplication::applicationPid())), std::wstring(L"tst_skglobal"));
    QCOMPARE(sk()->processNameById(0xFFFFFFF0u), std::wstring());
}

void tst_SKGlobal::busTypeOfPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("busType");
    QTest::newRow("usb stick")
        << QStringLiteral("/sys/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb/sdb1")
        << int(BlockDevice::BusUsb);
    QTest::newRow("sata disk") << QStringLiteral(
        "/sys/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda/sda2")
                               << int(BlockDevice::BusSata);
    QTest::newRow("nvme") << QStringLiteral("/sys/devices/pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1")
                          << int(BlockDevice::BusNvme);
    QTest::newRow("sd card") << QStringLiteral("/sys/devices/platform/soc/mmc_host/mmc0/mmc0:0001/block/mmcblk0")
                             << int(BlockDevice::BusSd);
    QTest::newRow("loop") << QStringLiteral("/sys/devices/virtual/block/loop0") << int(BlockDevice::BusFileBackedVirtual);
    QTest::newRow("virtio") << QStringLiteral("/sys/devices/pci0000:00/0000:00:02.0/virtio1/block/vda")
                            << int(BlockDevice::BusUnknown);
}

void tst_SKGlobal::busTypeOfPath()
{
    QFETCH(QString, path);
    QFETCH(int, busType);
    QCOMPARE(int(BlockDevice::busTypeOfPath(path)), busType);
}

void tst_SKGlobal::isDriveFixed_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("readable");
    QTest::newRow("root file system") << QStringLiteral("/") << true;
    QTest::newRow("missing path") << QStringLiteral("/no/such/drive") << false;
    QTest::newRow("empty path") << QString() << false;
    QTest::newRow("windows drive letter") << QStringLiteral("Q:\\setup") << false;
}

// No USB disk is attached here: readable drives come out fixed, and so, on
// purpose, do those whose bus cannot be read.
void tst_SKGlobal::isDriveFixed()
{
    QFETCH(QString, path);
    QFETCH(bool, readable);
    if (readable && BlockDevice::sysfsFolderOf(path).isEmpty())
        QSKIP("no block device behind / on this machine");
    LogCapture log;
    QVERIFY(sk()->isDriveFixed(path));
    QCOMPARE(log.contains(QStringLiteral("is driver bugstype")), readable);
    QCOMPARE(log.contains(QStringLiteral("GetDriveTypeByBus fail"), QtCriticalMsg), !readable);
}

CORBETH_TEST_MAIN(tst_SKGlobal)
#include "tst_skglobal.moc"
