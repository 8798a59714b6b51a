#include "testmain.h"

#include <corbeth/cbenum.h>
#include <corbeth/hardwareinfo.h>

#include "types/metatypes_p.h"

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

// The shared types as they cross threads in queued signals.
class tst_CBEnum : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { registerMetaTypes(); }

    void queuedSignalsCarryBothSpellingsAndTheInventory()
    {
        QThread thread;
        Emitter emitter;
        emitter.moveToThread(&thread);
        thread.start();

        QList<int> received;
        HardwareInfo got;
        QObject receiver;
        connect(&emitter, &Emitter::shortName, &receiver, [&](CBEnum::ErrorCode c) { received << c; });
        connect(&emitter, &Emitter::fullName, &receiver, [&](Corbeth::CBEnum::ErrorCode c) { received << c; });
        connect(&emitter, &Emitter::inventory, &receiver, [&](const HardwareInfo &i) { got = i; });
        // String-based connections resolve the argument type by name at run time.
        QSignalSpy spyShort(&emitter, SIGNAL(shortName(CBEnum::ErrorCode)));
        QSignalSpy spyFull(&emitter, SIGNAL(fullName(Corbeth::CBEnum::ErrorCode)));
        QVERIFY(spyShort.isValid() && spyFull.isValid());

        QMetaObject::invokeMethod(&emitter, [&] {
            emit emitter.shortName(CBEnum::EC_VerifyFailed);
            emit emitter.fullName(CBEnum::EC_VerifyFailed);
            HardwareInfo info;
            info.cpuInfos.append(CPUInfo{QStringLiteral("queued"), 1, 2});
            emit emitter.inventory(info);
        });
        QTRY_VERIFY_WITH_TIMEOUT(!got.cpuInfos.isEmpty(), 30000);
        QCOMPARE(received, (QList<int>{0x5124, 0x5124}));
        QCOMPARE(got.cpuInfos.first().name, QStringLiteral("queued"));
        QCOMPARE(spyShort.size() + spyFull.size(), 2);
        thread.quit();
        thread.wait();
    }

    // Copy and move are written by hand (the record is exported).
    void hardwareInfoCopyAndMove()
    {
        HardwareInfo info;
        info.cpuInfos.append(CPUInfo{QStringLiteral("cpu"), 3000, 8});
        info.memInfos.append(MemInfo{8LL << 30, 3200});
        info.virtMemInfo.pageFileName = QStringLiteral("C:\\pagefile.sys");
        HardwareInfo &self = info;
        info = self;
        QCOMPARE(info.cpuInfos.first().name, QStringLiteral("cpu"));

        HardwareInfo copy;
        copy = info;
        QCOMPARE(copy.memInfos.first().capacity, 8LL << 30);
        HardwareInfo moved(std::move(copy));
        QCOMPARE(moved.virtMemInfo.pageFileName, QStringLiteral("C:\\pagefile.sys"));
        QVERIFY(copy.cpuInfos.isEmpty());
        HardwareInfo target;
        target = std::move(moved);
        QCOMPARE(target.cpuInfos.size(), 1);
        QVERIFY(moved.memInfos.isEmpty());
    }
};

CORBETH_TEST_MAIN(tst_CBEnum)
#include "tst_cbenum.moc"
