// The four operations end to end on a small example product, and every way
// each of them can fail.
#include "types/metatypes_p.h"
#include "platform/skglobal.h"

#include "logcapture.h"
#include "testmain.h"
#include "testplatform.h"
#include "testproduct.h"

#include <QtCore/QTemporaryDir>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace Corbeth;
using namespace TestProduct;

namespace {

const QString kUninstallKey = "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Demo"_s;

const QByteArray kMissingFiles = R"({"coverFiles": [{"src": "/nowhere/x", "dest": "/nowhere/y"}]})";
QByteArray missingFiles(const char *section)
{
    return QByteArray("{\"") + section + "\": " + kMissingFiles + "}";
}

const QByteArray kMissingDriver = R"({"install": {"checkDrivers": ["vimba"]}})";

// The example product's description. %1 is the test folder, %2 the helper
// program; the package is unpacked into ${installPath}/package beforehand, as
// the module service does. (Windows lists drivers with pnputil, which Wine
// lacks: there the turntable has no identification, which passes.)
const char kProduct[] = R"({
  "driverIdentification": {"turntable": {"linux": ["/dev/null"], "windows": []}, "vimba": ["no_such_module_anywhere"]},
  "install": {
    "process": [{"path": "%2", "arg": ["--touch", "${installPath}/process-ran"], "waitTime": 0, "runingTimeout": 30}],
    "checkDrivers": ["turntable"],
    "coverFiles": [{"src": "${installPath}/package", "dest": "${installPath}"},
                   {"src": "${installPath}/package/config/default.ini", "dest": "${installPath}/config.ini"}],
    "links": [{"src": "${installPath}/bin/demo", "dest": "%1/links/Demo.lnk"}],
    "settings": {"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Demo":
                     {"DisplayName": "Demo", "UninstallString": "${installPath}/corbeth-cleanup"}}
  },
  "uninstall": {
    "process": [{"path": "%2", "arg": ["--touch", "%1/uninstall-ran"], "waitTime": 0, "runingTimeout": 30}],
    "removeFiles": ["${installPath}/bin", "${installPath}/data", "${installPath}/config", "${installPath}/package",
                    "${installPath}/config.ini", "${installPath}/process-ran", "${installPath}/corbeth-cleanup"],
    "whiteList": ["${installPath}/data/user.cfg"],
    "removeSettings": ["HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Demo"]
  },
  "update": {
    "coverFiles": [{"src": "${installPath}/package/data/changes.txt", "dest": "${installPath}/CHANGES.txt"}],
    "removeFiles": ["${installPath}/data/old.txt"],
    "whiteList": ["${installPath}/data/notes.txt"]
  },
  "updatePatch": {
    "coverFiles": [{"src": "%1/patch/demo", "dest": "${installPath}/bin/demo"}],
    "process": [{"path": "%2", "arg": ["--touch", "${installPath}/patched"], "waitTime": 0, "runingTimeout": 30}],
    "removeFiles": ["${installPath}/data/changes.txt"]
  }
})";

} // namespace

class TestInstallerFlows : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { registerMetaTypes(); }

    void init()
    {
        // A fresh engine for each test: its progress never goes back.
        PtrManager::destroyInstance();
        // Signals the last test's engine queued before it went must not count here.
        QCoreApplication::sendPostedEvents();
        m_events.clear();
        Installer *engine = installer();
        connect(engine, &Installer::progress, this, [this](double p) { m_events << "progress %1"_s.arg(p); });
        connect(engine, &Installer::installPackageFinished, this, [this] { m_events << "installPackageFinished"_s; });
        connect(engine, &Installer::uninstallPackageFinished, this, [this] { m_events << "uninstallPackageFinished"_s; });
        connect(engine, &Installer::errorOccurred, this,
                [this](CBEnum::ErrorCode code) { m_events << "error %1"_s.arg(code, 0, 16); });
        QVERIFY(m_dir.isValid());
        QDir(m_dir.path()).removeRecursively();
        m_inst = m_dir.filePath("inst"_s);
        writeFile(m_dir.filePath("neighbour/keep.txt"_s), "neighbour");
        writeFile(m_dir.filePath("patch/demo"_s), "demo 2.1");
        unpack("1.0");
        writeFile(shortcutFile(m_dir.filePath("links/Demo.lnk"_s)), "replaced by the install");
    }

    // The last engine goes too, and with it its copy of the cleanup tool.
    void cleanupTestCase()
    {
        PtrManager::destroyInstance();
        QVERIFY(!QFile::exists(QDir::temp().filePath("corbeth-cleanup-%1"_s.arg(QCoreApplication::applicationPid()))));
    }

    void wholeLifecycle()
    {
        SettingsSandbox store;
        configureProduct();

        // Install.
        QVERIFY(installer()->installPackage());
        QTRY_VERIFY_WITH_TIMEOUT(m_events.contains("installPackageFinished"_s), 30000);
        QCOMPARE(m_events, (QStringList{"progress 30"_s, "progress 40"_s, "progress 70"_s, "progress 85"_s,
                                        "installPackageFinished"_s}));
        QCOMPARE(readFile(inst("bin/demo")), QByteArray("demo 1.0"));
        QCOMPARE(readFile(inst("config.ini")), QByteArray("[demo]"));
        QVERIFY(QFile::exists(inst("process-ran")));
        QCOMPARE(shortcutTarget(m_dir.filePath("links/Demo.lnk"_s)), inst("bin/demo"));
        SKGlobal *global = SKGlobal::instance();
        QCOMPARE(global->settingValue(kUninstallKey, "DisplayName"_s).toString(), "Demo"_s);
        const QVariantMap record
            = global->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"_s, "UninstallObj"_s).toMap();
        const QVariantMap entry = record.value(kUninstallKey.mid(5)).toMap();
        QCOMPARE(entry.value("installPath"_s).toString(), m_inst);
        QCOMPARE(entry.value("tolmInstallPath"_s).toString(), inst("corbeth-cleanup"));

        // The user's own files, one of them white-listed by the update only.
        writeFile(inst("data/user.cfg"), QByteArray("user\0bytes\n", 11));
        writeFile(inst("data/notes.txt"), "notes");

        // Update: the uninstall half, a new package unpacked, then the update itself.
        m_events.clear();
        QVERIFY(installer()->uninstallPackage("update"_s));
        QCOMPARE(m_events.last(), "uninstallPackageFinished"_s);
        QCOMPARE(readFile(inst("data/notes.txt")), QByteArray("notes"));
        QVERIFY(!QFile::exists(inst("bin/demo")));
        QVERIFY(!global->settingValue(kUninstallKey, "DisplayName"_s).isValid());
        unpack("2.0");
        installer()->setOlderInstallPath(m_inst);
        m_events.clear();
        QVERIFY(installer()->update());
        QCOMPARE(m_events.count("installPackageFinished"_s), 1);
        QCOMPARE(m_events.last(), "progress 100"_s);
        QCOMPARE(readFile(inst("bin/demo")), QByteArray("demo 2.0"));
        QCOMPARE(readFile(inst("CHANGES.txt")), QByteArray("changes 2.0"));
        QVERIFY(!QFile::exists(inst("data/old.txt")));

        // Patch.
        QVERIFY(installer()->updatePatch());
        QCOMPARE(readFile(inst("bin/demo")), QByteArray("demo 2.1"));
        QVERIFY(QFile::exists(inst("patched")));
        QVERIFY(!QFile::exists(inst("data/changes.txt")));

        // Uninstall: only the white-listed file stays, byte for byte, and nothing outside is touched.
        m_events.clear();
        QVERIFY(installer()->uninstallPackage("uninstall"_s));
        QCOMPARE(m_events, (QStringList{"progress 10"_s, "progress 20"_s, "progress 30"_s, "progress 40"_s,
                                        "progress 50"_s, "progress 60"_s, "progress 80"_s, "progress 99"_s,
                                        "uninstallPackageFinished"_s}));
        QVERIFY(QFile::exists(m_dir.filePath("uninstall-ran"_s)));
        QCOMPARE(readFile(inst("data/user.cfg")), QByteArray("user\0bytes\n", 11));
        QVERIFY(!QFile::exists(inst("bin")));
        QCOMPARE(readFile(m_dir.filePath("neighbour/keep.txt"_s)), QByteArray("neighbour"));
    }

    // A run killed between hiding the white-listed files and showing them
    // again leaves them under their marker names: the next run gives them
    // back before it starts, over a default the program made meanwhile.
    void killedUninstallIsRecovered()
    {
        SettingsSandbox store;
        configureProduct();
        writeFile(inst("data/user.cfg.WHITEFILE"), "mine");
        writeFile(inst("data/user.cfg"), "default");
        QVERIFY(installer()->installPackage());
        QTRY_VERIFY_WITH_TIMEOUT(m_events.contains("installPackageFinished"_s), 30000);
        QCOMPARE(readFile(inst("data/user.cfg")), QByteArray("mine"));
        QVERIFY(!QFile::exists(inst("data/user.cfg.WHITEFILE")));
    }

    // Failures that end the operation at once. An operation returns true only
    // when it goes on (the install reports from its pool thread).
    void failures_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QByteArray>("change"); // null: never configured
        QTest::addColumn<int>("callback");
        QTest::addColumn<bool>("installed"); // cleanup tool in place, older install path set
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("errors");
        QTest::addColumn<int>("finished");
        const QByteArray none = "{}";
        const int unknown = CBEnum::EC_UnknownError;
        const int notOpen = CBEnum::EC_FileNotOpen;
        QTest::newRow("install: callback") << "install"_s << none << unknown << true << "call back fail EC_UnknownError"_s
                                           << "error 5103"_s << 0;
        QTest::newRow("install: driver") << "install"_s << kMissingDriver << 0 << true << "dirver not exist"_s
                                         << "error 5121"_s << 0;
        QTest::newRow("install: cover files") << "install"_s << missingFiles("install") << 0 << true << "cut file error"_s
                                              << "error 5120"_s << 0;
        QTest::newRow("uninstall: no cleanup tool") << "uninstall"_s << none << 0 << false
                                                    << "copy suicide tool exe fail"_s << "error 5103"_s << 0;
        QTest::newRow("uninstall: callback") << "uninstall"_s << none << notOpen << true
                                             << "call back error EC_FileNotOpen"_s << "error 5120"_s << 0;
        QTest::newRow("uninstall: cover files") << "uninstall"_s << missingFiles("uninstall") << 0 << true
                                                << "cut file error"_s << "error 5120"_s << 0;
        QTest::newRow("update: not configured") << "update"_s << QByteArray() << 0 << true << "not init"_s << ""_s << 0;
        QTest::newRow("patch: not configured") << "patch"_s << QByteArray() << 0 << true << "m_updatePatchInfo not init"_s
                                               << ""_s << 0;
        QTest::newRow("update: not installed") << "update"_s << none << 0 << false << "not install software"_s
                                               << "error 511f"_s << 0;
        QTest::newRow("patch: not installed") << "patch"_s << none << 0 << false << "not install software"_s
                                              << "error 511f"_s << 0;
        // Phase 2 would remove what the update copies from.
        QTest::newRow("update stops after failed files") << "update"_s << missingFiles("update") << 0 << true
                                                         << "cut file error"_s << "error 5120"_s << 0;
    }

    void failures()
    {
        QFETCH(QString, operation);
        QFETCH(QByteArray, change);
        QFETCH(int, callback);
        QFETCH(bool, installed);
        QFETCH(QString, log);
        QFETCH(QString, errors);
        QFETCH(int, finished);
        if (!change.isNull())
            configureProduct(change);
        if (callback)
            installer()->setInstallCallback([callback] { return CBEnum::ErrorCode(callback); });
        if (installed) {
            QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), inst("corbeth-cleanup")));
            installer()->setOlderInstallPath(m_inst);
        }
        LogCapture logs;
        QCOMPARE(run(operation), operation == "install"_s || finished > 0);
        if (operation == "install"_s)
            QTRY_VERIFY_WITH_TIMEOUT(logs.contains("install fail"_s, QtCriticalMsg), 30000);
        QVERIFY2(logs.contains(log, QtCriticalMsg), qPrintable(logs.dump()));
        // The signal crosses from the pool thread, so it may arrive after the log line.
        QTRY_COMPARE_WITH_TIMEOUT(m_events.filter("error"_s).join(QLatin1Char(',')), errors, 30000);
        QCOMPARE(m_events.count("installPackageFinished"_s) + m_events.count("uninstallPackageFinished"_s), finished);
        QVERIFY(QFile::exists(inst("package/bin/demo"))); // nothing removed
    }

    // Failures after which the operation waits for ever: one error, no
    // finished signal, and the failing step is never passed.
    void waitsForEver_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QByteArray>("change");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("result"); // errors|finished signals|lines of log|returned
        QTest::newRow("install process") << "install"_s << QStringLiteral(R"({"install": {"process": [{"path": "%1",
            "arg": ["--exit", "1"], "waitTime": 0, "runingTimeout": 30, "extraProcess": ["checkDriver"]}]}})")
                                                               .arg(testHelperPath()).toUtf8()
                                         << "install error process exe "_s << "error 5121|0|1|1"_s;
        QTest::newRow("update install") << "update"_s << kMissingDriver << "installl fail"_s << "error 5121|0|1|0"_s;
        QTest::newRow("patch files") << "patch"_s << missingFiles("updatePatch")
                                     << "cut file error"_s << "error 5120|0|1|0"_s;
    }

    void waitsForEver()
    {
        // A parked thread would hold up the test program's exit, so the
        // operation runs in a child copy of this program that leaves without waiting.
        if (isChild()) {
            QFETCH(QString, operation);
            QFETCH(QByteArray, change);
            QFETCH(QString, log);
            configureProduct(change);
            installer()->setOlderInstallPath(m_inst);
            LogCapture logs;
            std::atomic<bool> returned{false};
            std::thread([&] {
                run(operation);
                returned = true;
            }).detach();
            (void)QTest::qWaitFor([this] { return !m_events.filter("error"_s).isEmpty(); }, 30000);
            QTest::qWait(4000);
            leaveChild("%1|%2|%3|%4"_s.arg(m_events.filter("error"_s).join(QLatin1Char(',')))
                           .arg(m_events.count("installPackageFinished"_s)).arg(logs.count(log)).arg(int(returned)));
        }
        QTEST(runChild("waitsForEver:"_s + QString::fromLatin1(QTest::currentDataTag())), "result");
    }

    void clearProcessFailure()
    {
        // A program that cannot be ended: one of another user. Only the
        // administrator can set that up, running the engine as nobody.
        if (isChild()) {
            configureProduct("{\"clearProcess\": [\"" + qgetenv("CLEAR_NAME") + "\"]}");
            installer()->setOlderInstallPath(m_inst);
            LogCapture logs;
            const bool uninstalled = installer()->uninstallPackage("uninstall"_s);
            const bool patched = installer()->updatePatch();
            leaveChild("%1|%2|%3|%4"_s.arg(uninstalled).arg(patched).arg(logs.count("clear runing exe fail"_s))
                           .arg(m_events.join(QLatin1Char(','))));
        }
        if (!runsAsRoot())
            QSKIP("needs root, to run the engine as another user that cannot end this process");
        const QString helper = uniqueHelper(QDir::tempPath(), "unclosable"_s);
        QProcess unclosable;
        unclosable.start(helper, {"--sleep"_s, "60000"_s});
        QVERIFY(unclosable.waitForStarted());
        qputenv("CLEAR_NAME", QFileInfo(helper).fileName().toUtf8());
        const QString result = runChild("clearProcessFailure"_s, true);
        unclosable.kill();
        unclosable.waitForFinished();
        QFile::remove(helper);
        QCOMPARE(result, "0|0|2|progress 10,error 5103,error 5103"_s);
    }

private:
    static bool isChild() { return qEnvironmentVariableIsSet("CORBETH_CHILD"); }

    bool run(const QString &operation)
    {
        if (operation == "install"_s)
            return installer()->installPackage();
        if (operation == "uninstall"_s)
            return installer()->uninstallPackage("uninstall"_s);
        return operation == "update"_s ? installer()->update() : installer()->updatePatch();
    }

    // Runs a test function in a child copy of this program (as the user nobody
    // when asNobody) and returns what it reported.
    QString runChild(const QString &function, bool asNobody = false)
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("CORBETH_CHILD"_s, "1"_s);
        child.setProcessEnvironment(env);
        QStringList args{QCoreApplication::applicationFilePath(), function};
        // The build may lie in a folder only its owner can enter: another user
        // runs a copy, with the module service library beside it.
        QTemporaryDir reachable(QDir::tempPath() + "/corbeth-child-XXXXXX"_s);
        if (asNobody) {
            const QString copy = reachable.filePath(QFileInfo(args.first()).fileName());
            if (!QFile::copy(args.first(), copy) || !QFile::copy(QStringLiteral(VINDAL_LIBRARY),
                                                                 reachable.filePath(QStringLiteral(VINDAL_SONAME))))
                return "cannot copy the test for another user"_s;
            QFile::setPermissions(reachable.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                        | QFile::ReadOther | QFile::ExeOther);
            env.insert("LD_LIBRARY_PATH"_s, reachable.path());
            child.setProcessEnvironment(env);
            args = QStringList{"--reuid=nobody"_s, "--regid=nogroup"_s, "--clear-groups"_s, copy, function};
        }
        child.start(asNobody ? "setpriv"_s : args.takeFirst(), args);
        if (!child.waitForFinished(90000))
            child.kill();
        const QByteArray output = child.readAllStandardOutput().replace("\r\n", "\n"); // (CR LF on Windows)
        const int at = output.indexOf("RESULT ");
        return QString::fromUtf8(at < 0 ? output : output.mid(at + 7, output.indexOf('\n', at) - at - 7));
    }

    // Reports to the parent and ends at once, without waiting for parked threads.
    void leaveChild(const QString &result)
    {
        std::printf("RESULT %s\n", qPrintable(result));
        std::fflush(stdout);
        m_dir.remove();
        QDir(TestSandbox::root()).removeRecursively();
        std::_Exit(0);
    }

    QString inst(const char *relative) const { return m_inst + QLatin1Char('/') + QLatin1String(relative); }

    void unpack(const char *version)
    {
        writeFile(inst("package/bin/demo"), QByteArray("demo ") + version);
        writeFile(inst("package/data/changes.txt"), QByteArray("changes ") + version);
        writeFile(inst("package/data/old.txt"), "old");
        writeFile(inst("package/config/default.ini"), "[demo]");
        QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), inst("package/corbeth-cleanup"));
    }

    // The product's description with the sections of overrides merged in, key by key.
    void configureProduct(const QByteArray &overrides = "{}")
    {
        QVariantMap document = fromJson(QString::fromUtf8(kProduct).arg(m_dir.path(), testHelperPath()).toUtf8());
        const QVariantMap changes = fromJson(overrides);
        for (auto it = changes.cbegin(); it != changes.cend(); ++it) {
            QVariantMap section = document.value(it.key()).toMap();
            const QVariantMap change = it.value().toMap();
            for (auto c = change.cbegin(); c != change.cend(); ++c)
                section.insert(c.key(), c.value());
            document.insert(it.key(), it.value().type() == QVariant::Map ? QVariant(section) : it.value());
        }
        PtrManager::instance()->configer()->setConfigData(document);
        installer()->setInstallPath(m_inst);
    }

    QTemporaryDir m_dir;
    QString m_inst;
    QStringList m_events;
};

CORBETH_TEST_MAIN(TestInstallerFlows)
#include "tst_installerflows.moc"
