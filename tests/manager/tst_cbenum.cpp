#include "testmain.h"

#include <corbeth/cbenum.h>
#include <corbeth/hardwareinfo.h>

#include "types/metatypes_p.h"

#include <QtCore/QMetaEnum>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>

namespace Corbeth {

// Declares its signals with both spellings of the error-code type, the way the
// engine's private objects and the public facade do.
class Emitter : public QObject
{
    Q_OBJECT
signals:
    void shortName(CBEnum::ErrorCode code);
    void fullName(Corbeth::CBEnum::ErrorCode code);
    void inventory(const HardwareInfo &info);
};

} // namespace Corbeth

using namespace Corbeth;

class tst_CBEnum : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { registerMetaTypes(); }

    void errorCodeKeys_data()
    {
        QTest::addColumn<int>("value");
        QTest::addColumn<QByteArray>("key");
        QTest::newRow("verify") << 0x5124 << QByteArray("EC_VerifyFailed");
        QTest::newRow("none") << 0x0 << QByteArray("EC_NoError");
        QTest::newRow("config") << 0x515D << QByteArray("EC_ConfigDataError");
        QTest::newRow("gap") << 0x5104 << QByteArray();
        QTest::newRow("gap-high") << 0x5125 << QByteArray();
    }
    void errorCodeKeys()
    {
        QFETCH(int, value);
        QFETCH(QByteArray, key);
        const QMetaEnum e = QMetaEnum::fromType<CBEnum::ErrorCode>();
        QCOMPARE(QByteArray(e.valueToKey(value)), key);
        if (!key.isEmpty()) {
            bool ok = false;
            QCOMPARE(e.keyToValue(key.constData(), &ok), value);
            QVERIFY(ok);
        }
    }

    void namespaceEnumsHaveTheirOwnMetaObject()
    {
        const QMetaObject &mo = Corbeth::staticMetaObject;
        QCOMPARE(QByteArray(mo.className()), QByteArray("Corbeth"));
        const QMetaEnum op = QMetaEnum::fromType<Operation>();
        QCOMPARE(op.enclosingMetaObject(), &mo);
        QCOMPARE(QByteArray(op.valueToKey(O_Waiting)), QByteArray("O_Waiting"));
        QCOMPARE(QMetaEnum::fromType<ErrorLevel>().keyToValue("EL_Critical"), 1);
        QCOMPARE(QMetaEnum::fromType<ExtraProcess>().keyToValue("EP_WaitExecOlderUninstall"), 1);
        // 2 is a hole in the driver types and must stay one.
        QCOMPARE(QMetaEnum::fromType<CBEnum::DriverType>().valueToKey(2), nullptr);
        QCOMPARE(QMetaEnum::fromType<CBEnum::TaskStatus>().keyToValue("TS_Verifying"), 7);
    }

    void bothSpellingsAreOneType()
    {
        const int full = QMetaType::type("Corbeth::CBEnum::ErrorCode");
        QVERIFY(full != QMetaType::UnknownType);
        QCOMPARE(QMetaType::type("CBEnum::ErrorCode"), full);
        QCOMPARE(QMetaType::type("HardwareInfo"), QMetaType::type("Corbeth::HardwareInfo"));
        QVERIFY(QMetaType::typeFlags(full) & QMetaType::IsEnumeration);
        QCOMPARE(QMetaType::sizeOf(full), 4);
        registerMetaTypes(); // a second registration changes nothing
        QCOMPARE(QMetaType::type("CBEnum::ErrorCode"), full);
    }

    void queuedConnectionsCarryBothSpellings()
    {
        QThread thread;
        Emitter emitter;
        emitter.moveToThread(&thread);
        thread.start();

        QList<int> received;
        QObject receiver;
        connect(&emitter, &Emitter::shortName, &receiver, [&](CBEnum::ErrorCode c) { received << c; }, Qt::QueuedConnection);
        connect(&emitter, &Emitter::fullName, &receiver, [&](Corbeth::CBEnum::ErrorCode c) { received << c; }, Qt::QueuedConnection);
        // String-based connections resolve the argument type by name at run time.
        QSignalSpy spyShort(&emitter, SIGNAL(shortName(CBEnum::ErrorCode)));
        QSignalSpy spyFull(&emitter, SIGNAL(fullName(Corbeth::CBEnum::ErrorCode)));
        QVERIFY(spyShort.isValid() && spyFull.isValid());

        QMetaObject::invokeMethod(&emitter, [&] {
            emit emitter.shortName(CBEnum::EC_VerifyFailed);
            emit emitter.fullName(CBEnum::EC_VerifyFailed);
        });
        QTRY_COMPARE(received.size(), 2);
        QCOMPARE(received, (QList<int>{0x5124, 0x5124}));
        QCOMPARE(spyShort.size(), 1);
        QCOMPARE(spyFull.size(), 1);
        thread.quit();
        thread.wait();
    }

    void hardwareInfoCopyAndMove()
    {
        HardwareInfo info;
        QVERIFY(info.cpuInfos.isEmpty() && info.gpuInfos.isEmpty() && info.memInfos.isEmpty());
        QCOMPARE(info.virtMemInfo.tempPageFile, false);
        QCOMPARE(info.virtMemInfo.allocSize, 0u);

        info.cpuInfos.append(CPUInfo{QStringLiteral("cpu"), 3000, 8});
        info.gpuInfos.append(GPUInfo{QStringLiteral("gpu"), 1024, QStringLiteral("1.0"), QString()});
        info.memInfos.append(MemInfo{8LL << 30, 3200});
        info.virtMemInfo.pageFileName = QStringLiteral("C:\\pagefile.sys");
        info.virtMemInfo.peakUsage = 12;

        HardwareInfo &self = info;
        info = self;
        QCOMPARE(info.cpuInfos.size(), 1);
        QCOMPARE(info.cpuInfos.first().name, QStringLiteral("cpu"));
        QCOMPARE(info.virtMemInfo.pageFileName, QStringLiteral("C:\\pagefile.sys"));

        HardwareInfo copy;
        copy = info;
        QVERIFY(copy.cpuInfos.isSharedWith(info.cpuInfos));
        QCOMPARE(copy.memInfos.first().capacity, 8LL << 30);

        HardwareInfo moved(std::move(copy));
        QCOMPARE(moved.gpuInfos.first().adapterRAM, 1024);
        QVERIFY(copy.cpuInfos.isEmpty() && copy.gpuInfos.isEmpty() && copy.memInfos.isEmpty());
        QCOMPARE(copy.virtMemInfo.pageFileName, QStringLiteral("C:\\pagefile.sys"));

        HardwareInfo target;
        target = std::move(moved);
        QCOMPARE(target.cpuInfos.size(), 1);
        QVERIFY(moved.cpuInfos.isEmpty() && moved.memInfos.isEmpty());
        QCOMPARE(moved.virtMemInfo.peakUsage, 12u);
    }

    void hardwareInfoCrossesThreads()
    {
        QThread thread;
        Emitter emitter;
        emitter.moveToThread(&thread);
        thread.start();
        HardwareInfo got;
        bool arrived = false;
        QObject receiver;
        connect(&emitter, &Emitter::inventory, &receiver, [&](const HardwareInfo &i) { got = i; arrived = true; });
        QMetaObject::invokeMethod(&emitter, [&] {
            HardwareInfo i;
            i.cpuInfos.append(CPUInfo{QStringLiteral("queued"), 1, 2});
            emit emitter.inventory(i);
        });
        QTRY_VERIFY(arrived);
        QCOMPARE(got.cpuInfos.first().name, QStringLiteral("queued"));
        thread.quit();
        thread.wait();
    }
};

CORBETH_TEST_MAIN(tst_CBEnum)
#include "tst_cbenum.moc"
