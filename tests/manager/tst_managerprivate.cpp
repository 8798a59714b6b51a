// The combined progress figure, the task status and the worker set, driven
// through the orchestrator's own slots.
#include "manager/managerprivate.h"
#include "installer/installer.h"
#include "manager/ptrmanager.h"

#include "testfiles.h"
#include "testmain.h"

#include <corbeth/manager.h>

#include <QtCore/QPointer>
#include <QtTest/QSignalSpy>

using namespace Corbeth;

namespace {

// Progress figures the client saw, in order.
QList<double> figures(const QSignalSpy &spy)
{
    QList<double> values;
    for (const QList<QVariant> &args : spy)
        values << args.first().toDouble();
    return values;
}

} // namespace

class tst_ManagerPrivate : public QObject
{
    Q_OBJECT

    static void report(ManagerPrivate *d, qlonglong received, qlonglong total)
    {
        QMetaObject::invokeMethod(d, "onProgress", Q_ARG(qlonglong, received), Q_ARG(qlonglong, total));
    }
    static void rise(ManagerPrivate *d, double step)
    {
        QMetaObject::invokeMethod(d, "onRiseOfProgress", Q_ARG(double, step));
    }

private slots:
    // Setting the status it already has sends nothing.
    void sameStatusIsNotSentAgain()
    {
        Manager manager;
        QSignalSpy spy(&manager, &Manager::taskStatusChanged);
        ManagerPrivate::get(&manager)->setTaskStatus(CBEnum::TS_Downloading);
        ManagerPrivate::get(&manager)->setTaskStatus(CBEnum::TS_Downloading);
        QCOMPARE(spy.count(), 1);
    }

    void weights_data()
    {
        QTest::addColumn<int>("operation");
        QTest::addColumn<uint>("status");
        QTest::addColumn<QList<qlonglong>>("received");
        QTest::addColumn<qlonglong>("total");
        QTest::addColumn<QList<double>>("expected");
        QTest::newRow("online download, smaller figure dropped")
            << int(O_OnlineInstall) << uint(CBEnum::TS_Downloading) << QList<qlonglong>{50, 40, 100} << 100LL
            << QList<double>{25, 50};
        QTest::newRow("online unpack") << int(O_OnlineInstall) << uint(CBEnum::TS_Uncompressing)
                                       << QList<qlonglong>{0, 100} << 100LL << QList<double>{50, 80};
        QTest::newRow("offline unpack") << int(O_OfflineInstall) << uint(CBEnum::TS_Uncompressing)
                                        << QList<qlonglong>{100} << 100LL << QList<double>{70};
        QTest::newRow("offline download") << int(O_OfflineDownload) << uint(CBEnum::TS_Downloading)
                                          << QList<qlonglong>{30, 100} << 100LL << QList<double>{30, 100};
        QTest::newRow("no task running") << int(O_OnlineInstall) << uint(CBEnum::TS_Finished)
                                         << QList<qlonglong>{50} << 100LL << QList<double>{};
        // A total of 0 or one not known yet never moves the bar.
        QTest::newRow("total 0") << int(O_OfflineDownload) << uint(CBEnum::TS_Downloading) << QList<qlonglong>{0}
                                 << 0LL << QList<double>{};
        QTest::newRow("total unknown") << int(O_OfflineDownload) << uint(CBEnum::TS_Downloading)
                                       << QList<qlonglong>{10} << -1LL << QList<double>{};
    }

    void weights()
    {
        QFETCH(int, operation);
        QFETCH(uint, status);
        QFETCH(QList<qlonglong>, received);
        QFETCH(qlonglong, total);
        QFETCH(QList<double>, expected);
        Manager manager;
        ManagerPrivate *d = ManagerPrivate::get(&manager);
        d->setOperation(Operation(operation));
        d->setTaskStatus(status);
        QSignalSpy spy(&manager, &Manager::progress);
        for (qlonglong r : received)
            report(d, r, total);
        QCOMPARE(figures(spy), expected);
    }

    // The engine's increments: weighted, capped at 99 until the task ends.
    void engineIncrements()
    {
        Manager manager;
        ManagerPrivate *d = ManagerPrivate::get(&manager);
        d->setOperation(O_OfflineInstall);
        d->setTaskStatus(CBEnum::TS_Uncompressing);
        report(d, 100, 100);
        QCOMPARE(d->currentProgress(), 70.0);
        d->setTaskStatus(CBEnum::TS_Installing);
        QSignalSpy spy(&manager, &Manager::progress);
        rise(d, 0.0);
        rise(d, 10.0);
        QCOMPARE(figures(spy), QList<double>{73.0});
        for (int i = 0; i < 20; ++i)
            rise(d, 30.0);
        QCOMPARE(d->currentProgress(), 99.0);
        QCOMPARE(figures(spy).last(), 99.0);
    }

    // The end of an online install at 80: TS_Finished, then 100; the next
    // task starts from 0.
    void finishLiftsToHundred()
    {
        Manager manager;
        ManagerPrivate *d = ManagerPrivate::get(&manager);
        d->setOperation(O_OnlineInstall);
        d->setTaskStatus(CBEnum::TS_Uncompressing);
        report(d, 100, 100);
        QStringList seen;
        connect(&manager, &Manager::taskStatusChanged, this, [&](uint s) { seen << "status %1"_s.arg(s); });
        connect(&manager, &Manager::progress, this, [&](double p) { seen << "progress %1"_s.arg(p); });
        emit d->finished();
        QCOMPARE(seen, (QStringList{"status 5"_s, "progress 100"_s}));
        QCOMPARE(d->currentProgress(), 0.0);
    }

    void freshWorkersForEachManager()
    {
        QPointer<QObject> first;
        {
            Manager manager;
            first = PtrManager::instance()->installer().data();
            QVERIFY(first);
        }
        QVERIFY(!first);
        Manager next;
        QVERIFY(PtrManager::instance()->installer());
    }

    // checkPackage: an empty digest passes without hashing; the status says
    // what is going on.
    void checkPackage()
    {
        Manager manager;
        ManagerPrivate *d = ManagerPrivate::get(&manager);
        QVERIFY(d->checkPackage(QString(), "/nowhere"_s));
        QCOMPARE(d->taskStatus(), uint(CBEnum::TS_Verifying));
        QVERIFY(!d->checkPackage("d41d8cd98f00b204e9800998ecf8427e"_s, "/nowhere"_s));
    }
};

CORBETH_TEST_MAIN(tst_ManagerPrivate)
#include "tst_managerprivate.moc"
