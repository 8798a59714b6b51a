#include "logcapture.h"
#include "platform/linuxhardware_p.h"
#include "platform/systeminfo.h"
#include "testfiles.h"
#include "testmain.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtTest/QtTest>

using namespace Corbeth;

using Blocks = QList<QVariantMap>;

namespace {
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
    // A stand-in "powershell.exe", first on PATH for the whole run, logs each
    // command and prints <class>.txt for the CIM class it names (after 20 s
    // when <class>.slow exists).
    QTemporaryDir m_fake;

#ifdef Q_OS_WIN
    static constexpr bool s_standIn = false;
#else
    static constexpr bool s_standIn = true;
#endif

    QString fake(const char *name) const { return m_fake.filePath(QString::fromUtf8(name)); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_fake.isValid());
        if (!s_standIn)
            return;
        const QString script = fake("powershell.exe");
        QVERIFY(writeFile(script, "#!/bin/sh\n"
                                  "d=$(dirname \"$0\")\n"
                                  "printf '%s %s\\n' \"$1\" \"$2\" >> \"$d/commands.log\"\n"
                                  "f=$d/$(echo \"$2\" | grep -o 'Win32_[A-Za-z]*')\n"
                                  "[ -e \"$f.slow\" ] && sleep 20\n"
                                  "[ -e \"$f.txt\" ] && cat \"$f.txt\"\n"
                                  "exit 0\n"));
        QVERIFY(QFile::setPermissions(script, QFile::ReadOwner | QFile::ExeOwner));
        qputenv("PATH", QFile::encodeName(QDir::toNativeSeparators(m_fake.path()) + QDir::listSeparator()) + qgetenv("PATH"));
    }

    void init()
    {
        QFile::remove(fake("commands.log"));
        QFile::remove(fake("Win32_Processor.slow"));
        QVERIFY(writeFile(fake("Win32_Processor.txt"), s_cpuOutput));
        QVERIFY(writeFile(fake("Win32_VideoController.txt"), s_gpuOutput));
        QVERIFY(writeFile(fake("Win32_PhysicalMemory.txt"), s_memOutput));
        QVERIFY(writeFile(fake("Win32_PageFileUsage.txt"), s_pageOutput));
    }

    void listOutputToMaps_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<bool>("result");
        QTest::addColumn<Blocks>("maps");
        QTest::addColumn<int>("skippedLines");
        // Several blocks of one class are read by powerShellInventory.
        QTest::newRow("padded keys and an empty value")
            << QByteArray("\r\nNumber Of Cores   : 4\r\nStatus            : \r\n") << true
            << Blocks{{{"NumberOfCores"_s, "4"_s}, {"Status"_s, QString()}}} << 0;
        // PowerShell wraps a long value onto an indented line without ": ".
        QTest::newRow("wrapped line") << QByteArray("\r\n\r\nName    : A very long controller name that\r\n"
                                                    "          wraps onto a second line\r\nDriverVersion : 1.0\r\n\r\n")
                                      << true
                                      << Blocks{{{"Name"_s, "A very long controller name that"_s},
                                                 {"DriverVersion"_s, "1.0"_s}}}
                                      << 1;
        QTest::newRow("value holding the separator")
            << QByteArray("Name : a: b\r\nSpeed : 1\r\n") << true << Blocks{{{"Speed"_s, "1"_s}}} << 1;
        QTest::newRow("empty output") << QByteArray() << false << Blocks() << 0;
    }

    void listOutputToMaps()
    {
        QFETCH(QByteArray, output);
        LogCapture log;
        Blocks parsed;
        QTEST(SystemInfo::listOutputToMaps(output, parsed), "result");
        QTEST(parsed, "maps");
        QTEST(log.count("error key value"_s, QtCriticalMsg), "skippedLines");
    }

    void powerShellInventory_data()
    {
        QTest::addColumn<bool>("failing");
        QTest::newRow("all answer") << false;
        QTest::newRow("processor query overruns, memory query prints nothing") << true;
    }

    void powerShellInventory()
    {
        if (!s_standIn)
            QSKIP("the stand-in PowerShell is a shell script, which Windows does not run");
        QFETCH(bool, failing);
        if (failing) {
            QVERIFY(writeFile(fake("Win32_Processor.slow"), ""));
            QVERIFY(QFile::remove(fake("Win32_PhysicalMemory.txt")));
        }
        const HardwareInfo info = SystemInfo(SystemInfo::Source::PowerShell).getHardwareInfo();

        // One command per record type, as written, in this order.
        QFile commands(fake("commands.log"));
        QVERIFY(commands.open(QIODevice::ReadOnly));
        const QByteArray query = "-Command Get-CimInstance -ClassName Win32_";
        QCOMPARE(commands.readAll(), query + "Processor | Format-List Name,NumberOfCores,maxclockspeed\n" + query
                     + "VideoController | Format-List Name, AdapterRAM, DriverVersion\n" + query
                     + "PhysicalMemory | Format-List Capacity, Speed\n" + query + "PageFileUsage | Format-List *\n");

        if (failing) {
            QVERIFY(info.cpuInfos.isEmpty());
            QVERIFY(info.memInfos.isEmpty());
        } else {
            QCOMPARE(info.cpuInfos.size(), 2);
            QCOMPARE(info.cpuInfos.at(0).name, "Intel(R) Xeon(R) Gold 6230 CPU @ 2.10GHz"_s);
            QCOMPARE(info.cpuInfos.at(0).coreNum, 20);
            QCOMPARE(info.cpuInfos.at(0).maxClockSpeed, 2095);
            // A missing property leaves its default.
            QCOMPARE(info.cpuInfos.at(1).maxClockSpeed, 0);
            QCOMPARE(info.memInfos.size(), 2);
            QCOMPARE(info.memInfos.at(1).capacity, Q_INT64_C(8589934592));
            QCOMPARE(info.memInfos.at(1).speed, Q_INT64_C(2666));
        }
        // The other queries still run.
        QCOMPARE(info.gpuInfos.size(), 2);
        QCOMPARE(info.gpuInfos.at(0).name, "NVIDIA GeForce RTX 3060"_s);
        QCOMPARE(info.gpuInfos.at(0).adapterRAM, Q_INT64_C(4293918720));
        QCOMPARE(info.gpuInfos.at(1).driverVersion, "27.20.100.9466"_s);
        const VirtualMemInfo &page = info.virtMemInfo;
        QCOMPARE(page.allocSize, 4864u);
        QCOMPARE(page.currentUsage, 712u);
        QCOMPARE(page.peakUsage, 1290u);
        QCOMPARE(page.pageFileName, "C:\\pagefile.sys"_s);
        QCOMPARE(page.installDate, "2023/5/14 9:21:07"_s);
        QCOMPARE(page.status, QString());
        QVERIFY(!page.tempPageFile);
    }

    // Kept on purpose: only the exact text "TRUE" marks a temporary page file.
    void tempPageFileNeedsExactTrue()
    {
        if (!s_standIn)
            QSKIP("the stand-in PowerShell is a shell script, which Windows does not run");
        SystemInfo info(SystemInfo::Source::PowerShell);
        QVERIFY(writeFile(fake("Win32_PageFileUsage.txt"), "Name : p\r\nTempPageFile : TRUE\r\n"));
        QVERIFY(info.getVirtMemInfo().tempPageFile);
        QVERIFY(writeFile(fake("Win32_PageFileUsage.txt"), "Name : p\r\nTempPageFile : True\r\n"));
        QVERIFY(!info.getVirtMemInfo().tempPageFile);
    }

    void linuxProcessors()
    {
        // Two packages of two cores with hyper-threading; cpufreq only for cpu 0.
        QByteArray cpuinfo;
        for (int cpu = 0; cpu < 8; ++cpu) {
            const QByteArray package = QByteArray::number(cpu / 4);
            cpuinfo += "processor\t: " + QByteArray::number(cpu) + "\nmodel name\t: Test CPU " + package
                + "\nphysical id\t: " + package + "\ncore id\t\t: " + QByteArray::number(cpu % 2)
                + "\ncpu cores\t: 2\ncpu MHz\t\t: 1999.6\n\n";
        }
        const Blocks blocks = LinuxHardware::processorBlocks(cpuinfo, [](int cpu) { return cpu == 0 ? 3500000 : 0; });
        const QString cores = "NumberOfCores"_s, clock = "maxclockspeed"_s;
        QCOMPARE(blocks, (Blocks{{{"Name"_s, "Test CPU 0"_s}, {cores, "2"_s}, {clock, "3500"_s}},
                                 {{"Name"_s, "Test CPU 1"_s}, {cores, "2"_s}, {clock, "2000"_s}}}));

        // ARM: no package, core or speed lines; the machine is named at the end.
        const Blocks arm = LinuxHardware::processorBlocks(
            "processor\t: 0\nBogoMIPS\t: 108.00\n\nprocessor\t: 1\nBogoMIPS\t: 108.00\n\n"
            "Hardware\t: BCM2835\nModel\t\t: Raspberry Pi 4 Model B Rev 1.4\n",
            nullptr);
        QCOMPARE(arm, (Blocks{{{"Name"_s, "Raspberry Pi 4 Model B Rev 1.4"_s}, {"NumberOfCores"_s, "2"_s}}}));
    }

    void linuxMemoryFromSmbios()
    {
        // A memory device structure (type 17) with its size and speed, followed
        // by its strings and the double NUL.
        auto device = [](quint16 size, quint32 extendedSize, quint16 speed) {
            uchar formatted[0x28] = {17, 0x28};
            qToLittleEndian<quint16>(size, formatted + 0x0C);
            qToLittleEndian<quint16>(speed, formatted + 0x15);
            qToLittleEndian<quint32>(extendedSize, formatted + 0x1C);
            const QByteArray strings("DIMM A\0\0", 8);
            return QByteArray(reinterpret_cast<const char *>(formatted), sizeof(formatted)) + strings;
        };
        QByteArray bios(0x1A, '\0'); // a BIOS structure (type 0) without strings
        bios[1] = 0x18;
        const QByteArray end("\x7f\x04\x00\x00\x00\x00", 6);
        const QByteArray table = bios + device(16384, 0, 3200) // 16 GiB
            + device(0, 0, 0)                                  // empty slot
            + device(0x7FFF, 65536, 4800)                      // 64 GiB, extended size
            + device(0x8000 | 512, 0, 0xFFFF)                  // 512 KiB, unknown speed
            + end + device(1, 0, 1);                           // nothing after the end
        const Blocks blocks = LinuxHardware::memoryBlocksFromSmbios(table);
        QCOMPARE(blocks.size(), 3);
        QCOMPARE(blocks.at(0).value("Capacity"_s).toLongLong(), Q_INT64_C(16) << 30);
        QCOMPARE(blocks.at(0).value("Speed"_s).toInt(), 3200);
        QCOMPARE(blocks.at(1).value("Capacity"_s).toLongLong(), Q_INT64_C(64) << 30);
        QCOMPARE(blocks.at(2).value("Capacity"_s).toLongLong(), Q_INT64_C(512) << 10);
        QVERIFY(!blocks.at(2).contains("Speed"_s));
        // A truncated table gives what it holds, no more.
        QCOMPARE(LinuxHardware::memoryBlocksFromSmbios(table.left(bios.size() + 0x20)).size(), 0);
    }

    void linuxSwaps()
    {
        const Blocks blocks = LinuxHardware::swapBlocks(
            "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
            "/swap\\040file\t\t\t\tfile\t\t2097148\t\t1024\t\t-2\n"
            "/dev/sda3                               partition\t8388604\t\t0\t\t-3\n");
        QCOMPARE(blocks.size(), 2);
        QCOMPARE(blocks.at(0).value("Name"_s).toString(), "/swap file"_s);
        QCOMPARE(blocks.at(0).value("AllocatedBaseSize"_s).toString(), "2047"_s);
        QCOMPARE(blocks.at(0).value("CurrentUsage"_s).toString(), "1"_s);
        QVERIFY(LinuxHardware::swapBlocks("Filename\tType\tSize\tUsed\tPriority\n").isEmpty());
    }

    void thisMachine()
    {
        LogCapture log;
        const HardwareInfo info = SystemInfo().getHardwareInfo();
        if (info.cpuInfos.isEmpty() && log.contains("ret is empty wmic to list fail"_s, QtCriticalMsg)) {
            // No real PowerShell (Wine's prints nothing): each query fails
            // as on an empty answer, its records stay empty, nothing waits.
            QVERIFY(log.contains("getCPUInfo() to list fail"_s, QtCriticalMsg));
            QVERIFY(info.memInfos.isEmpty() && info.gpuInfos.isEmpty());
            QSKIP("no PowerShell answers here (Wine): the inventory is empty, as the engine leaves it then");
        }
        QVERIFY2(!info.cpuInfos.isEmpty(), qPrintable(log.dump()));
        for (const CPUInfo &cpu : info.cpuInfos)
            QVERIFY(!cpu.name.isEmpty() && cpu.coreNum > 0);
        QVERIFY2(!info.memInfos.isEmpty(), qPrintable(log.dump()));
        QVERIFY(info.memInfos.first().capacity > 0);
    }
};

CORBETH_TEST_MAIN(tst_SystemInfo)
#include "tst_systeminfo.moc"
