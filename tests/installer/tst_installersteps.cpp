// The steps around the operations: closing programs, drivers, older software,
// the cleanup tool and the offline package.
#include "platform/processcloser.h"
#include "platform/skglobal.h"

#include "logcapture.h"
#include "testmain.h"
#include "testproduct.h"

#include <QtCore/QTemporaryDir>

using namespace Corbeth;
using namespace TestProduct;

class TestInstallerSteps : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(m_dir.isValid()); }

    void clearProcessEndsProgramsByName()
    {
        const QString helper = uniqueHelper(m_dir.path(), "viewer"_s);
        const QString name = QFileInfo(helper).fileName();
        // One ends on SIGTERM; the shell copy ignores it and is ended forcibly.
        const QString stubborn = m_dir.filePath(name + QLatin1String("-shell"));
        QVERIFY(QFile::copy("/bin/sh"_s, stubborn));
        QFile::setPermissions(stubborn, QFile::permissions("/bin/sh"_s));
        QProcess polite, hard;
        polite.start(helper, {"--sleep"_s, "60000"_s});
        hard.start(stubborn, {"-c"_s, "trap '' TERM; while :; do sleep 1; done"_s});
        QVERIFY(polite.waitForStarted() && hard.waitForStarted());
        QTRY_VERIFY(!ProcessCloser::find(name + QLatin1String("-shell")).isEmpty());

        // The test program's own name is listed too: the engine never ends itself.
        const QString self = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        configure(QStringLiteral(R"({"clearProcess": ["%1.exe", "%1-shell", "%2"]})").arg(name, self).toUtf8());
        QVERIFY(installer()->clearProcess());
        QVERIFY(polite.waitForFinished(1000) && hard.waitForFinished(1000));
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
        QTest::newRow("none listed") << QStringList() << true << QString();
    }

    void driverExist()
    {
        QFETCH(QStringList, drivers);
        QFETCH(bool, present);
        QFETCH(QString, log);
        configure(R"({"driverIdentification": {
            "turntable": {"linux": ["/dev/null"], "windows": ["nul"]},
            "3DCamera": ["/dev/nul*"],
            "vimba": ["no_such_module_anywhere"],
            "3W": []}})");
        QList<CBEnum::DriverType> types;
        for (const QString &word : drivers) {
            CBEnum::DriverType type;
            QVERIFY(Configer::strToDriverType(word, type));
            types << type;
        }
        LogCapture logs;
        QCOMPARE(installer()->driverExist(types), present);
        if (!log.isEmpty())
            QVERIFY2(logs.contains(log), qPrintable(logs.dump()));
    }

    void olderSoftwareIsFoundAndRemoved()
    {
        SettingsSandbox store;
        const QString older = m_dir.filePath("older"_s);
        writeFile(older + QLatin1String("/bin/old.exe"), "old");
        writeFile(older + QLatin1String("/user.cfg"), "mine");
        SKGlobal::instance()->setSettingValue("HKEY_CURRENT_USER\\SOFTWARE\\OldDemo"_s, "InstallDir"_s, older);
        configure(QStringLiteral(R"({
            "install": {"olderSoftwareInfo": {
                "getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\OldDemo", "key": "InstallDir"},
                "process": [{"path": "%1", "arg": ["--touch \u0022${olderInstallPath}/uninstalled\u0022"],
                             "extraProcess": ["waitExecOlderUninstall"], "waitTime": 0, "runingTimeout": 30}],
                "removeFiles": ["${olderInstallPath}/bin", "${olderInstallPath}/uninstalled"],
                "removeSettings": ["HKEY_CURRENT_USER\\SOFTWARE\\OldDemo"]}},
            "uninstall": {"whiteList": ["${olderInstallPath}/user.cfg"]}})")
                      .arg(testHelperPath())
                      .toUtf8());
        QVERIFY(installer()->checkOldSoftwareIsExist());
        QVERIFY(installer()->uninstallOldSoftware());
        QVERIFY(!QFile::exists(older + QLatin1String("/bin/old.exe")));
        QCOMPARE(readFile(older + QLatin1String("/user.cfg")), QByteArray("mine"));
        // The settings entry is gone, so nothing older is left to find.
        QVERIFY(!installer()->checkOldSoftwareIsExist());
        QVERIFY(installer()->uninstallOldSoftware());
    }

    void cleanupToolRemovesFolderAfterProcess()
    {
        Installer engine;
        QVERIFY(!engine.copySuicideTool()); // shipped neither beside the program nor in the install path
        const QString product = m_dir.filePath("product"_s);
        writeFile(product + QLatin1String("/bin/app"), "app");
        writeFile(product + QLatin1String("/data/user.cfg"), "kept");
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), product + QLatin1String("/corbeth-cleanup")));
        engine.setInstallPath(product);
        QVERIFY(engine.copySuicideTool());

        // The tool as suicide() starts it, waiting for a process that ends shortly.
        const QString tool = QDir::temp().filePath(QStringLiteral("corbeth-cleanup-%1").arg(QCoreApplication::applicationPid()));
        QVERIFY(QFile::exists(tool));
        QProcess app;
        app.start(testHelperPath(), {"--sleep"_s, "500"_s});
        QVERIFY(app.waitForStarted());
        QProcess cleanup;
        cleanup.start(tool, {"--pid"_s, QString::number(app.processId()), "--dir"_s, product, "--keep"_s,
                             product + QLatin1String("/data/user.cfg")});
        QVERIFY(cleanup.waitForFinished(20000));
        QCOMPARE(cleanup.exitCode(), 0);
        QVERIFY(!QFile::exists(product + QLatin1String("/bin/app")));
        QCOMPARE(readFile(product + QLatin1String("/data/user.cfg")), QByteArray("kept"));
        QVERIFY(!QFile::exists(tool)); // it removed itself
    }

    void cleanupToolRefusesProtectedFolders_data()
    {
        QTest::addColumn<QString>("dir");
        QTest::newRow("root") << "/"_s;
        QTest::newRow("home") << QDir::homePath();
        QTest::newRow("above home") << QDir::homePath() + QLatin1String("/..");
        QTest::newRow("system folder") << "/usr/share"_s;
    }

    void cleanupToolRefusesProtectedFolders()
    {
        QFETCH(QString, dir);
        const QString tool = m_dir.filePath("cleanup"_s);
        QFile::remove(tool);
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), tool));
        writeFile(QDir::homePath() + QLatin1String("/marker"), "home");
        QProcess cleanup;
        cleanup.start(tool, {"--pid"_s, "999999999"_s, "--dir"_s, dir, "--wait"_s, "0"_s});
        QVERIFY(cleanup.waitForFinished(10000));
        QCOMPARE(cleanup.exitCode(), 2);
        QVERIFY(QFile::exists(QDir::homePath() + QLatin1String("/marker")));
    }

    void suicideStartsTheToolDetached()
    {
        Installer engine;
        const QString product = m_dir.filePath("product2"_s);
        QVERIFY(QDir().mkpath(product));
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), product + QLatin1String("/corbeth-cleanup")));
        engine.setInstallPath(product);
        QVERIFY(!engine.isSuicide());
        engine.suicide(product);
        QVERIFY(engine.isSuicide());
        // It waits for this test program to end; end it here instead.
        const QString name = QStringLiteral("corbeth-cleanup-%1").arg(QCoreApplication::applicationPid());
        QTRY_VERIFY(!ProcessCloser::find(name).isEmpty());
        QVERIFY(ProcessCloser::close(name, 1000));
        QFile::remove(QDir::temp().filePath(name));
    }

    void latestPackage()
    {
        const QString dir = m_dir.filePath("packages"_s);
        writeFile(dir + QLatin1String("/a.tolmpkg.verify"), "digest");
        LogCapture logs;
        QCOMPARE(Installer::latestPackage(dir), QString());
        QVERIFY(logs.contains("No .tolmpkg files found in"_s));
        writeFile(dir + QLatin1String("/b.tolmpkg"), "new");
        writeFile(dir + QLatin1String("/a.tolmpkg"), "old");
        QFile older(dir + QLatin1String("/a.tolmpkg"));
        QVERIFY(older.open(QIODevice::ReadWrite));
        QVERIFY(older.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        older.close();
        QCOMPARE(Installer::latestPackage(dir), dir + QLatin1String("/b.tolmpkg"));

        Installer engine;
        QString found;
        QVERIFY(engine.searchPackage(dir, found));
        QCOMPARE(found, dir + QLatin1String("/b.tolmpkg"));
        QCOMPARE(engine.offlinePackage(), found);
    }

    void offlinePackageNextToProgram()
    {
        Installer engine;
        QString package, verify;
        QVERIFY(!engine.checkIfOfflineInstall(package, verify));
        const QString path = QCoreApplication::applicationDirPath()
            + QStringLiteral("/offline-%1.tolmpkg").arg(QCoreApplication::applicationPid());
        writeFile(path, "package");
        writeFile(path + QLatin1String(".verify"), "digest");
        const bool found = engine.checkIfOfflineInstall(package, verify);
        QFile::remove(path);
        QFile::remove(path + QLatin1String(".verify"));
        QVERIFY(found);
        QCOMPARE(package, path);
        QCOMPARE(verify, path + QLatin1String(".verify"));
    }

    void removeUpdateDirTakesOnlyTheCache()
    {
        Installer engine;
        engine.setInstallPath(m_dir.path());
        writeFile(m_dir.filePath("arvenorDownloadCache/pkg.tolmpkg"_s), "cached");
        writeFile(m_dir.filePath("app.bin"_s), "app");
        engine.removeUpdateDir();
        QVERIFY(!QFileInfo::exists(m_dir.filePath("arvenorDownloadCache"_s)));
        QVERIFY(QFile::exists(m_dir.filePath("app.bin"_s)));
    }

private:
    QTemporaryDir m_dir;
};

CORBETH_TEST_MAIN(TestInstallerSteps)
#include "tst_installersteps.moc"
