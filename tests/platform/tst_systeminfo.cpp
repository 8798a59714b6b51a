#include "logcapture.h"
#include "platform/linuxhardware_p.h"
#include "platform/systeminfo.h"
#include "testmain.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtTest/QtTest>

using namespace Corbeth;

using Blocks = QList<QVariantMap>;

namespace {
bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// PowerShell's list layout: blank lines around blocks, keys padded to one
// width, CRLF line ends.
const QByteArray s_cpuOutput = "\r\n\r\nName          : Intel(R) Xeon(R) Gold 6230 CPU @ 2.10GHz\r\n"
                               "NumberOfCores : 20\r\nmaxclockspeed : 2095\r\n\r\n"
                               "Name          : Intel(R) Xeon(R) Gold 6230 CPU @ 2.10GHz\r\n"
                               "NumberOfCores : 20\r\n\r\n\r\n\r\n";
const QByteArray s_gpuOutput = "\r\n\r\nName          : NVIDIA GeForce RTX 3060\r\nAdapterRAM    : 4293918720\r\n"
                               "DriverVersion : 31.0.15.3623\r\n\r\n"
                               "Name          : Intel(R) UHD Graphics 630\r\nAdapterRAM    : 1073741824\r\n"
                               "DriverVersion : 27.20.100.9466\r\n\r\n\r\n\r\n";
const QByteArray s_memOutput = "\r\n\r\nCapacity : 17179869184\r\nSpeed    : 3200\r\n\r\n"
                               "Capacity : 8589934592\r\nSpeed    : 2666\r\n\r\n\r\n\r\n";
const QByteArray s_pageOutput = "\r\n\r\nCaption           : C:\\pagefile.sys\r\nDescription       : C:\\pagefile.sys\r\n"
                                "InstallDate       : 2023/5/14 9:21:07\r\nName              : C:\\pagefile.sys\r\n"
                                "Status            : \r\nAllocatedBaseSize : 4864\r\nCurrentUsage      : 712\r\n"
                                "PeakUsage         : 1290\r\nTempPageFile      : False\r\n\r\n\r\n\r\n";
} // namespace

class tst_SystemInfo : public QObject
{
    Q_OBJECT

private slots:
    void listOutputToMaps_data();
    void listOutputToMaps();

    void powerShellInventory_data();
    void powerShellInventory();
    void tempPageFileNeedsExactTrue();

    void linuxProcessors();
    void linuxMemoryFromSmbios();
    void linuxSwaps();
    void thisMachine();

private:
    // A stand-in "powershell.exe" on PATH that logs each command and prints
    // the output file the test wrote for it.
    bool installFakePowerShell(const QTemporaryDir &dir);
};

void tst_SystemInfo::listOutputToMaps_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<bool>("result");
    QTest::addColumn<Blocks>("maps");
    QTest::addColumn<int>("skippedLines");

    QTest::newRow("two video controllers")
        << s_gpuOutput << true
        << Blocks{{{QStringLiteral("Name"), QStringLiteral("NVIDIA GeForce RTX 3060")},
                   {QStringLiteral("AdapterRAM"), QStringLiteral("4293918720")},
                   {QStringLiteral("DriverVersion"), QStringLiteral("31.0.15.3623")}},
                  {{QStringLiteral("Name"), QStringLiteral("Intel(R) UHD Graphics 630")},
                   {QStringLiteral("AdapterRAM"), QStringLiteral("1073741824")},
                   {QStringLiteral("DriverVersion"), QStringLiteral("27.20.100.9466")}}}
        << 0;
    QTest::newRow("padded keys and an empty value")
        << QByteArray("\r\nNumber Of Cores   : 4\r\nStatus            : \r\n") << true
        << Blocks{{{QStringLiteral("NumberOfCores"), QStringLiteral("4")}, {QStringLiteral("Status"), QString()}}}
        << 0;
    // PowerShell wraps a long value onto an indented line without ": ".
    QTest::newRow("wrapped line")
        << QByteArray("\r\n\r\nName    : A very long controller name that\r\n"
                      "          wraps onto a second line\r\nDriverVersion : 1.0\r\n\r\n")
        << true
        << Blocks{{{QStringLiteral("Name"), QStringLiteral("A very long controller name that")},
                   {QStringLiteral("DriverVersion"), QStringLiteral("1.0")}}}
        << 1;
    QTest::newRow("value holding the separator")
        << QByteArray("Name : a: b\r\nSpeed : 1\r\n") << true
        << Blocks{{{QStringLiteral("Speed"), QStringLiteral("1")}}} << 1;
    QTest::newRow("empty output") << QByteArray() << false << Blocks() << 0;
}

void tst_SystemInfo::listOutputToMaps()
{
    QFETCH(QByteArray, output);
    QFETCH(bool, result);
    QFETCH(Blocks, maps);
    QFETCH(int, skippedLines);

    LogCapture log;
    Blocks parsed;
    QCOMPARE(SystemInfo::listOutputToMaps(output, parsed), result);
    QCOMPARE(parsed, maps);
    QCOMPARE(log.count(QStringLiteral("error key value"), QtCriticalMsg), skippedLines);
    QCOMPARE(log.contains(QStringLiteral("ret is empty wmic to list fail"), QtCriticalMsg), !result);
}

bool tst_SystemInfo::installFakePowerShell(const QTemporaryDir &dir)
{
    const QString script = dir.filePath(QStringLiteral("powershell.exe"));
    const QByteArray body = "#!/bin/sh\n"
                            "dir=$(dirname \"$0\")\n"
                            "printf '%s %s\\n' \"$1\" \"$2\" >> \"$dir/commands.log\"\n"
                            "case \"$2\" in\n"
                            "*Win32_Processor*) f=cpu ;;\n"
                            "*Win32_VideoController*) f=gpu ;;\n"
                            "*Win32_PhysicalMemory*) f=mem ;;\n"
                            "*Win32_PageFileUsage*) f=page ;;\n"
                            "esac\n"
                            "[ -e \"$dir/$f.slow\" ] && sleep 20\n"
                            "[ -e \"$dir/$f.txt\" ] && cat \"$dir/$f.txt\"\n"
                            "exit 0\n";
    if (!writeFile(script, body)
        || !QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        return false;
    qputenv("PATH", QFile::encodeName(dir.path()) + ':' + qgetenv("PATH"));
    return writeFile(dir.filePath(QStringLiteral("cpu.txt")), s_cpuOutput)
        && writeFile(dir.filePath(QStringLiteral("gpu.txt")), s_gpuOutput)
        && writeFile(dir.filePath(QStringLiteral("mem.txt")), s_memOutput)
        && writeFile(dir.filePath(QStringLiteral("page.txt")), s_pageOutput);
}

void tst_SystemInfo::powerShellInventory_data()
{
    QTest::addColumn<QString>("broken");
    QTest::addColumn<bool>("slow");
    QTest::newRow("all answer") << QString() << false;
    QTest::newRow("processor query overruns") << QStringLiteral("cpu") << true;
    QTest::newRow("memory query prints nothing") << QStringLiteral("mem") << false;
}

void tst_SystemInfo::powerShellInventory()
{
    QFETCH(QString, broken);
    QFETCH(bool, slow);

    const QByteArray path = qgetenv("PATH");
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(installFakePowerShell(dir));
    if (!broken.isEmpty()) {
        QVERIFY(slow ? writeFile(dir.filePath(broken + QLatin1String(".slow")), "")
                     : QFile::remove(dir.filePath(broken + QLatin1String(".txt"))));
    }
    LogCapture log;
    const HardwareInfo info = SystemInfo(SystemInfo::Source::PowerShell).getHardwareInfo();
    qputenv("PATH", path);

    // One command per record type, as written, in this order.
    const QByteArray commands = "-Command Get-CimInstance -ClassName Win32_Processor | Format-List Name,NumberOfCores,maxclockspeed\n"
                                "-Command Get-CimInstance -ClassName Win32_VideoController | Format-List Name, AdapterRAM, DriverVersion\n"
                                "-Command Get-CimInstance -ClassName Win32_PhysicalMemory | Format-List Capacity, Speed\n"
                                "-Command Get-CimInstance -ClassName Win32_PageFileUsage | Format-List *\n";
    QFile logFile(dir.filePath(QStringLiteral("commands.log")));
    QVERIFY(logFile.open(QIODevice::ReadOnly));
    QCOMPARE(logFile.readAll(), commands);

    if (broken == QLatin1String("cpu")) {
        QVERIFY(info.cpuInfos.isEmpty());
        QVERIFY(log.contains(QStringLiteral("getCPUInfo() to list fail"), QtCriticalMsg));
    } else {
        QCOMPARE(info.cpuInfos.size(), 2);
        QCOMPARE(info.cpuInfos.at(0).name, QStringLiteral("Intel(R) Xeon(R) Gold 6230 CPU @ 2.10GHz"));
        QCOMPARE(info.cpuInfos.at(0).coreNum, 20);
        QCOMPARE(info.cpuInfos.at(0).maxClockSpeed, 2095);
        // A missing property is logged and leaves its default.
        QCOMPARE(info.cpuInfos.at(1).maxClockSpeed, 0);
        QCOMPARE(log.count(QStringLiteral("Get CPU max clock speed failed!"), QtCriticalMsg), 1);
    }
    QCOMPARE(info.gpuInfos.size(), 2);
    QCOMPARE(info.gpuInfos.at(0).name, QStringLiteral("NVIDIA GeForce RTX 3060"));
    QCOMPARE(info.gpuInfos.at(0).adapterRAM, Q_INT64_C(4293918720));
    QCOMPARE(info.gpuInfos.at(1).driverVersion, QStringLiteral("27.20.100.9466"));
    if (broken == QLatin1String("mem")) {
        QVERIFY(info.memInfos.isEmpty());
        QVERIFY(log.contains(QStringLiteral("ret is empty wmic to list fail"), QtCriticalMsg));
    } else {
        QCOMPARE(info.memInfos.size(), 2);
        QCOMPARE(info.memInfos.at(1).capacity, Q_INT64_C(8589934592));
        QCOMPARE(info.memInfos.at(1).speed, Q_INT64_C(2666));
    }
    QCOMPARE(info.virtMemInfo.allocSize, 4864u);
    QCOMPARE(info.virtMemInfo.currentUsage, 712u);
    QCOMPARE(info.virtMemInfo.peakUsage, 1290u);
    QCOMPARE(info.virtMemInfo.pageFileName, QStringLiteral("C:\\pagefile.sys"));
    QCOMPARE(info.virtMemInfo.installDate, QStringLiteral("2023/5/14 9:21:07"));
    QCOMPARE(info.virtMemInfo.status, QString());
    QVERIFY(!info.virtMemInfo.tempPageFile);
}

void tst_SystemInfo::tempPageFileNeedsExactTrue()
{
    const QByteArray path = qgetenv("PATH");
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(installFakePowerShell(dir));
    SystemInfo info(SystemInfo::Source::PowerShell);
    QVERIFY(writeFile(dir.filePath(QStringLiteral("page.txt")), "Name : p\r\nTempPageFile : TRUE\r\n"));
    const bool exact = info.getVirtMemInfo().tempPageFile;
    QVERIFY(writeFile(dir.filePath(QStringLiteral("page.txt")), "Name : p\r\nTempPageFile : True\r\n"));
    const bool titleCase = info.getVirtMemInfo().tempPageFile;
    qputenv("PATH", path);
    QVERIFY(exact);
    QVERIFY(!titleCase);
}

void tst_SystemInfo::linuxProcessors()
{
    // Two packages of two cores with hyper-threading; cpufreq only for cpu 0.
    QByteArray cpuinfo;
    for (int cpu = 0; cpu < 8; ++cpu) {
        cpuinfo += "processor\t: " + QByteArray::number(cpu) + "\nmodel name\t: Test CPU " + QByteArray::number(cpu / 4)
            + "\nphysical id\t: " + QByteArray::number(cpu / 4) + "\ncore id\t\t: " + QByteArray::number(cpu % 2)
            + "\ncpu cores\t: 2\ncpu MHz\t\t: 1999.6\n\n";
    }
    const Blocks blocks = LinuxHardware::processorBlocks(cpuinfo, [](int cpu) { return cpu == 0 ? 3500000 : 0; });
    QCOMPARE(blocks.size(), 2);
    QCOMPARE(blocks.at(0).value(QStringLiteral("Name")).toString(), QStringLiteral("Test CPU 0"));
    QCOMPARE(blocks.at(0).value(QStringLiteral("NumberOfCores")).toString(), QStringLiteral("2"));
    QCOMPARE(blocks.at(0).value(QStringLiteral("maxclockspeed")).toString(), QStringLiteral("3500"));
    QCOMPARE(blocks.at(1).value(QStringLiteral("maxclockspeed")).toString(), QStringLiteral("2000"));

    // ARM: no package, core or speed lines; the machine is named at the end.
    const Blocks arm = LinuxHardware::processorBlocks(
        "processor\t: 0\nBogoMIPS\t: 108.00\n\nprocessor\t: 1\nBogoMIPS\t: 108.00\n\n"
        "Hardware\t: BCM2835\nModel\t\t: Raspberry Pi 4 Model B Rev 1.4\n",
        nullptr);
    QCOMPARE(arm.size(), 1);
    QCOMPARE(arm.at(0).value(QStringLiteral("Name")).toString(), QStringLiteral("Raspberry Pi 4 Model B Rev 1.4"));
    QCOMPARE(arm.at(0).value(QStringLiteral("NumberOfCores")).toString(), QStringLiteral("2"));
    QVERIFY(!arm.at(0).contains(QStringLiteral("maxclockspeed")));
}

void tst_SystemInfo::linuxMemoryFromSmbios()
{
    // A memory device structure (type 17) with its size and speed, followed by
    // its strings and the double NUL.
    auto device = [](quint16 size, quint32 extendedSize, quint16 speed) {
        uchar formatted[0x28] = {17, 0x28};
        qToLittleEndian<quint16>(size, formatted + 0x0C);
        qToLittleEndian<quint16>(speed, formatted + 0x15);
        qToLittleEndian<quint32>(extendedSize, formatted + 0x1C);
        return QByteArray(reinterpret_cast<const char *>(formatted), sizeof(formatted)) + QByteArray("DIMM A\0\0", 8);
    };
    QByteArray bios(0x18, '\0');
    bios[0] = 0; // a BIOS structure without strings
    bios[1] = 0x18;
    bios += QByteArray(2, '\0');
    const QByteArray end = QByteArray("\x7f\x04\x00\x00\x00\x00", 6);
    const QByteArray table = bios + device(16384, 0, 3200) // 16 GiB
        + device(0, 0, 0)                                   // empty slot
        + device(0x7FFF, 65536, 4800)                       // 64 GiB, extended size
        + device(0x8000 | 512, 0, 0xFFFF)                   // 512 KiB, unknown speed
        + end + device(1, 0, 1);                            // nothing after the end
    const Blocks blocks = LinuxHardware::memoryBlocksFromSmbios(table);
    QCOMPARE(blocks.size(), 3);
    QCOMPARE(blocks.at(0).value(QStringLiteral("Capacity")).toLongLong(), Q_INT64_C(16) << 30);
    QCOMPARE(blocks.at(0).value(QStringLiteral("Speed")).toInt(), 3200);
    QCOMPARE(blocks.at(1).value(QStringLiteral("Capacity")).toLongLong(), Q_INT64_C(64) << 30);
    QCOMPARE(blocks.at(2).value(QStringLiteral("Capacity")).toLongLong(), Q_INT64_C(512) << 10);
    QVERIFY(!blocks.at(2).contains(QStringLiteral("Speed")));
    // A truncated table gives what it holds, no more.
    QCOMPARE(LinuxHardware::memoryBlocksFromSmbios(table.left(bios.size() + 0x20)).size(), 0);
}

void tst_SystemInfo::linuxSwaps()
{
    const Blocks blocks = LinuxHardware::swapBlocks(
        "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
        "/swap\\040file\t\t\t\tfile\t\t2097148\t\t1024\t\t-2\n"
        "/dev/sda3                               partition\t8388604\t\t0\t\t-3\n");
    QCOMPARE(blocks.size(), 2);
    QCOMPARE(blocks.at(0).value(QStringLiteral("Name")).toString(), QStringLiteral("/swap file"));
    QCOMPARE(blocks.at(0).value(QStringLiteral("AllocatedBaseSize")).toString(), QStringLiteral("2047"));
    QCOMPARE(blocks.at(0).value(QStringLiteral("CurrentUsage")).toString(), QStringLiteral("1"));
    QVERIFY(LinuxHardware::swapBlocks("Filename\tType\tSize\tUsed\tPriority\n").isEmpty());
}

void tst_SystemInfo::thisMachine()
{
    LogCapture log;
    const HardwareInfo info = SystemInfo().getHardwareInfo();
    QVERIFY2(!info.cpuInfos.isEmpty(), qPrintable(log.dump()));
    for (const CPUInfo &cpu : info.cpuInfos) {
        QVERIFY(!cpu.name.isEmpty());
        QVERIFY(cpu.coreNum > 0);
    }
    QVERIFY2(!info.memInfos.isEmpty(), qPrintable(log.dump()));
    QVERIFY(info.memInfos.first().capacity > 0);
}

CORBETH_TEST_MAIN(tst_SystemInfo)
#include "tst_systeminfo.moc"
