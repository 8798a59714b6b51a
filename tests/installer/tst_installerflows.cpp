// The four operations end to end on a small example product, and every way
// each of them can fail.
#include "manager/metatypes_p.h"
#include "platform/processcloser.h"
#include "platform/skglobal.h"

#include "logcapture.h"
#include "testmain.h"
#include "testproduct.h"

#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace Corbeth;
using namespace TestProduct;

namespace {

const QString kUninstallKey = "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Demo"_s;

const QByteArray kMissingFiles = R"({"coverFiles": [{"src": "/nowhere/x", "dest": "/nowhere/y"}]})";

// The example product's description. %1 is the test folder, %2 the helper
// program; the package is unpacked into ${installPath}/package beforehand, as
// the module service does.
const char kProduct[] = R"({
  "driverIdentification": {"turntable": ["/dev/null"], "vimba": ["no_such_module_anywhere"]},
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
        connect(engine, &Installer::progress, this, [this](double p) { m_events << QStringLiteral("progress %1").arg(p); });
        connect(engine, &Installer::installPackageFinished, this, [this] { m_events << "installPackageFinished"_s; });
        connect(engine, &Installer::uninstallPackageFinished, this, [this] { m_events << "uninstallPackageFinished"_s; });
        connect(engine, &Installer::errorOccurred, this,
                [this](CBEnum::ErrorCode code) { m_events << QStringLiteral("error %1").arg(code, 0, 16); });
        QVERIFY(m_dir.isValid());
        QDir(m_dir.path()).removeRecursively();
        m_inst = m_dir.filePath("inst"_s);
        writeFile(m_dir.filePath("neighbour/keep.txt"_s), "neighbour");
        writeFile(m_dir.filePath("patch/demo"_s), "demo 2.1");
        unpack("1.0");
        QDir().mkpath(m_dir.filePath("links"_s));
    }

    void cleanup() { QFile::remove(QDir::temp().filePath(QStringLiteral("corbeth-cleanup-%1").arg(QCoreApplication::applicationPid()))); }

    void wholeLifecycle()
    {
        SettingsSandbox store;
        configureProduct();

        // Install.
        QVERIFY(installer()->installPackage());
        QTRY_VERIFY_WITH_TIMEOUT(m_events.contains("installPackageFinished"_s), 30000);
        QCOMPARE(m_events, (QStringList{"progress 30"_s, "progress 40"_s, "progress 70"_s, "progress 85"_s,
                                        "installPackageFinished"_s}));
        QCOMPARE(readFile(m_inst + QLatin1String("/bin/demo")), QByteArray("demo 1.0"));
        QCOMPARE(readFile(m_inst + QLatin1String("/config.ini")), QByteArray("[demo]"));
        QVERIFY(QFile::exists(m_inst + QLatin1String("/process-ran")));
        QCOMPARE(QFileInfo(m_dir.filePath("links/Demo.lnk"_s)).symLinkTarget(), m_inst + QLatin1String("/bin/demo"));
        SKGlobal *global = SKGlobal::instance();
        QCOMPARE(global->settingValue(kUninstallKey, "DisplayName"_s).toString(), "Demo"_s);
        const QVariantMap record
            = global->settingValue("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller"_s, "UninstallObj"_s).toMap();
        const QVariantMap entry = record.value(kUninstallKey.mid(5)).toMap();
        QCOMPARE(entry.value("installPath"_s).toString(), m_inst);
        QCOMPARE(entry.value("tolmInstallPath"_s).toString(), m_inst + QLatin1String("/corbeth-cleanup"));

        // The user's own files, one of them white-listed by the update only.
        writeFile(m_inst + QLatin1String("/data/user.cfg"), QByteArray("user\0bytes\n", 11));
        writeFile(m_inst + QLatin1String("/data/notes.txt"), "notes");

        // Update: the uninstall half, a new package unpacked, then the update itself.
        m_events.clear();
        QVERIFY(installer()->uninstallPackage("update"_s));
        QCOMPARE(m_events.last(), "uninstallPackageFinished"_s);
        QCOMPARE(readFile(m_inst + QLatin1String("/data/notes.txt")), QByteArray("notes"));
        QVERIFY(!QFile::exists(m_inst + QLatin1String("/bin/demo")));
        QVERIFY(!global->settingValue(kUninstallKey, "DisplayName"_s).isValid());
        unpack("2.0");
        installer()->setOlderInstallPath(m_inst);
        m_events.clear();
        QVERIFY(installer()->update());
        QCOMPARE(m_events.count("installPackageFinished"_s), 1);
        QCOMPARE(m_events.last(), "progress 100"_s);
        QCOMPARE(readFile(m_inst + QLatin1String("/bin/demo")), QByteArray("demo 2.0"));
        QCOMPARE(readFile(m_inst + QLatin1String("/CHANGES.txt")), QByteArray("changes 2.0"));
        QVERIFY(!QFile::exists(m_inst + QLatin1String("/data/old.txt")));

        // Patch.
        QVERIFY(installer()->updatePatch());
        QCOMPARE(readFile(m_inst + QLatin1String("/bin/demo")), QByteArray("demo 2.1"));
        QVERIFY(QFile::exists(m_inst + QLatin1String("/patched")));
        QVERIFY(!QFile::exists(m_inst + QLatin1String("/data/changes.txt")));

        // Uninstall: only the white-listed file stays, byte for byte, and nothing outside is touched.
        m_events.clear();
        QVERIFY(installer()->uninstallPackage("uninstall"_s));
        QCOMPARE(m_events, (QStringList{"progress 10"_s, "progress 20"_s, "progress 30"_s, "progress 40"_s,
                                        "progress 50"_s, "progress 60"_s, "progress 80"_s, "progress 99"_s,
                                        "uninstallPackageFinished"_s}));
        QVERIFY(QFile::exists(m_dir.filePath("uninstall-ran"_s)));
        QCOMPARE(readFile(m_inst + QLatin1String("/data/user.cfg")), QByteArray("user\0bytes\n", 11));
        QVERIFY(!QFile::exists(m_inst + QLatin1String("/bin")));
        QCOMPARE(readFile(m_dir.filePath("neighbour/keep.txt"_s)), QByteArray("neighbour"));
    }

    void installFailures_data()
    {
        QTest::addColumn<QByteArray>("change");
        QTest::addColumn<bool>("callbackFails");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("error");
        QTest::newRow("callback") << QByteArray("{}") << true << "call back fail EC_UnknownError"_s << "error 5103"_s;
        QTest::newRow("driver") << QByteArray(R"({"install": {"checkDrivers": ["vimba"]}})") << false
                                << "dirver not exist"_s << "error 5121"_s;
        QTest::newRow("cover files") << QByteArray(R"({"install": )" + kMissingFiles + "}") << false
                                     << "cut file error"_s << "error 5120"_s;
    }

    void installFailures()
    {
        QFETCH(QByteArray, change);
        QFETCH(bool, callbackFails);
        QFETCH(QString, log);
        QFETCH(QString, error);
        configureProduct(change);
        if (callbackFails)
            installer()->setInstallCallback([] { return CBEnum::EC_UnknownError; });
        LogCapture logs;
        QVERIFY(installer()->installPackage());
        QTRY_VERIFY_WITH_TIMEOUT(logs.contains("install fail"_s, QtCriticalMsg), 30000);
        QVERIFY2(logs.contains(log, QtCriticalMsg), qPrintable(logs.dump()));
        // The signal crosses from the pool thread, so it may arrive after the log line.
        QTRY_COMPARE(m_events.filter("error"_s), QStringList{error});
        QVERIFY(!m_events.contains("installPackageFinished"_s));
    }

    void installProcessFailureWaitsForEver()
    {
        // The parked pool thread would hold up the test program's exit, so the
        // install runs in a child copy of this program that leaves without waiting.
        if (isChild()) {
            configureProduct(QStringLiteral(R"({"install": {"process": [{"path": "%1", "arg": ["--exit", "1"],
                "waitTime": 0, "runingTimeout": 30, "extraProcess": ["checkDriver"]}]}})")
                                 .arg(testHelperPath())
                                 .toUtf8());
            LogCapture logs;
            installer()->installPackage();
            (void)QTest::qWaitFor([this] { return !m_events.isEmpty(); }, 30000);
            QTest::qWait(4000);
            leaveChild(QStringLiteral("%1|%2|%3").arg(m_events.join(QLatin1Char(',')))
                           .arg(logs.count("install error process exe "_s))
                           .arg(logs.count("install fail"_s) - logs.count("driver install fail"_s)));
        }
        // One error, no finished signal, and the install never got past the process step.
        QCOMPARE(runChild(QString::fromLatin1(QTest::currentTestFunction())), "error 5121|1|0"_s);
    }

    void clearProcessFailure()
    {
        // A program that cannot be ended: one of another user. Only the
        // administrator can set that up, running the engine as nobody.
        if (isChild()) {
            configureProduct(QStringLiteral(R"({"clearProcess": ["%1"]})").arg(qEnvironmentVariable("CLEAR_NAME")).toUtf8());
            installer()->setOlderInstallPath(m_inst);
            LogCapture logs;
            const bool uninstalled = installer()->uninstallPackage("uninstall"_s);
            const bool patched = installer()->updatePatch();
            leaveChild(QStringLiteral("%1|%2|%3|%4").arg(uninstalled).arg(patched)
                           .arg(logs.count("clear runing exe fail"_s)).arg(m_events.join(QLatin1Char(','))));
        }
        if (!SKGlobal::instance()->isProcessElevated())
            QSKIP("needs to start a process that the engine, run as another user, cannot end");
        const QString helper = uniqueHelper(QDir::tempPath(), "unclosable"_s);
        QProcess unclosable;
        unclosable.start(helper, {"--sleep"_s, "60000"_s});
        QVERIFY(unclosable.waitForStarted());
        const QString result = runChild(QString::fromLatin1(QTest::currentTestFunction()),
                                        {{"CLEAR_NAME"_s, QFileInfo(helper).fileName()}}, true);
        unclosable.kill();
        unclosable.waitForFinished();
        QFile::remove(helper);
        QCOMPARE(result, "0|0|2|progress 10,error 5103,error 5103"_s);
    }

    void uninstallFailures_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("error");
        QTest::newRow("no cleanup tool") << "tool"_s << "copy suicide tool exe fail"_s << "error 5103"_s;
        QTest::newRow("callback") << "callback"_s << "call back error EC_FileNotOpen"_s << "error 5120"_s;
        QTest::newRow("cover files") << "cover"_s << "cut file error"_s << "error 5120"_s;
    }

    void uninstallFailures()
    {
        QFETCH(QString, failure);
        QFETCH(QString, log);
        QFETCH(QString, error);
        configureProduct(failure == QLatin1String("cover") ? QByteArray(R"({"uninstall": )" + kMissingFiles + "}")
                                                           : QByteArray("{}"));
        if (failure != QLatin1String("tool"))
            QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), m_inst + QLatin1String("/corbeth-cleanup")));
        if (failure == QLatin1String("callback"))
            installer()->setInstallCallback([] { return CBEnum::EC_FileNotOpen; });
        LogCapture logs;
        QVERIFY(!installer()->uninstallPackage("uninstall"_s));
        QVERIFY2(logs.contains(log, QtCriticalMsg), qPrintable(logs.dump()));
        QCOMPARE(m_events.filter("error"_s), QStringList{error});
        QVERIFY(!m_events.contains("uninstallPackageFinished"_s));
        QVERIFY(QFile::exists(m_inst + QLatin1String("/package/bin/demo"))); // nothing removed
    }

    void updateAndPatchRefusals_data()
    {
        QTest::addColumn<bool>("patch");
        QTest::addColumn<bool>("configured");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QStringList>("events");
        QTest::newRow("update not configured") << false << false << "not init"_s << QStringList();
        QTest::newRow("patch not configured") << true << false << "m_updatePatchInfo not init"_s << QStringList();
        QTest::newRow("update without install") << false << true << "not install software"_s
                                                << QStringList{"error 511f"_s};
        QTest::newRow("patch without install") << true << true << "not install software"_s
                                               << QStringList{"error 511f"_s};
    }

    void updateAndPatchRefusals()
    {
        QFETCH(bool, patch);
        QFETCH(bool, configured);
        QFETCH(QString, log);
        QFETCH(QStringList, events);
        if (configured)
            configureProduct();
        Installer fresh; // never configured
        Installer *engine = configured ? installer() : &fresh;
        LogCapture logs;
        QVERIFY(!(patch ? engine->updatePatch() : engine->update()));
        QVERIFY2(logs.contains(log, QtCriticalMsg), qPrintable(logs.dump()));
        QCOMPARE(m_events, events);
    }

    void updateGoesOnAfterFailedFiles()
    {
        configureProduct(R"({"update": )" + kMissingFiles + "}");
        installer()->setOlderInstallPath(m_inst);
        LogCapture logs;
        QVERIFY(installer()->update());
        QVERIFY(logs.contains("cut file error"_s));
        QCOMPARE(m_events.filter("error"_s), QStringList{"error 5120"_s});
        QCOMPARE(m_events.count("installPackageFinished"_s), 1);
    }

    void waitsForEver_data()
    {
        QTest::addColumn<bool>("patch");
        QTest::addColumn<QByteArray>("change");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("error");
        QTest::newRow("update install fails") << false << QByteArray(R"({"install": {"checkDrivers": ["vimba"]}})")
                                              << "installl fail"_s << "error 5121"_s;
        QTest::newRow("patch files fail") << true << QByteArray(R"({"updatePatch": )" + kMissingFiles + "}")
                                          << "cut file error"_s << "error 5120"_s;
    }

    void waitsForEver()
    {
        QFETCH(bool, patch);
        QFETCH(QByteArray, change);
        QFETCH(QString, log);
        QFETCH(QString, error);
        configureProduct(change);
        installer()->setOlderInstallPath(m_inst);
        LogCapture logs;
        // The operation parks its calling thread, so it gets one of its own.
        std::atomic<QThread *> caller{nullptr};
        std::atomic<bool> returned{false};
        std::thread thread([&] {
            caller = QThread::currentThread();
            patch ? installer()->updatePatch() : installer()->update();
            returned = true;
        });
        QTRY_VERIFY_WITH_TIMEOUT(m_events.contains(error), 30000);
        QTRY_VERIFY(logs.contains(log));
        QTest::qWait(3000);
        const bool parked = !returned;
        const QStringList events = m_events;
        caller.load()->exit(); // let it go so the test program can end
        thread.join();
        QVERIFY(parked);
        QCOMPARE(events.filter("error"_s), QStringList{error});
        QVERIFY(!events.contains("installPackageFinished"_s));
    }

private:
    static bool isChild() { return qEnvironmentVariableIsSet("CORBETH_CHILD"); }

    // Runs test function in a child copy of this program (as the user nobody
    // when asNobody) and returns what it reported.
    QString runChild(const QString &function, const QMap<QString, QString> &vars = {}, bool asNobody = false)
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("CORBETH_CHILD"_s, "1"_s);
        for (auto it = vars.cbegin(); it != vars.cend(); ++it)
            env.insert(it.key(), it.value());
        child.setProcessEnvironment(env);
        QStringList args{QCoreApplication::applicationFilePath(), function};
        if (asNobody)
            args = QStringList{"--reuid=nobody"_s, "--regid=nogroup"_s, "--clear-groups"_s} + args;
        child.start(asNobody ? "setpriv"_s : args.takeFirst(), args);
        if (!child.waitForFinished(90000))
            child.kill();
        const QByteArray output = child.readAllStandardOutput();
        const int at = output.indexOf("RESULT ");
        if (at < 0)
            return QString::fromUtf8(output);
        return QString::fromUtf8(output.mid(at + 7, output.indexOf('\n', at) - at - 7));
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

    void unpack(const char *version)
    {
        const QString package = m_inst + QLatin1String("/package");
        writeFile(package + QLatin1String("/bin/demo"), QByteArray("demo ") + version);
        writeFile(package + QLatin1String("/data/changes.txt"), QByteArray("changes ") + version);
        writeFile(package + QLatin1String("/data/old.txt"), "old");
        writeFile(package + QLatin1String("/config/default.ini"), "[demo]");
        QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), package + QLatin1String("/corbeth-cleanup"));
    }

    // The product's description with the sections of overrides merged in,
    // key by key.
    void configureProduct(const QByteArray &overrides = "{}")
    {
        QVariantMap document
            = fromJson(QString::fromUtf8(kProduct).arg(m_dir.path(), testHelperPath()).toUtf8());
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
