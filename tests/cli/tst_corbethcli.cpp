// corbeth run as a real process, the way a script or a CI job runs it: a
// product's whole life from a file:// repository and from nginx, the exit
// code and one clear line of each failure, Ctrl-C during a download, and the
// bar on a pseudo-terminal.
#include "packtool.h"
#include "testmain.h"
#include "testplatform.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtCore/QUrl>

using namespace VindalTest;

namespace {

// The product: bin/demo and data/changes.txt; the install links the program
// and records its folder and version, the update copies the changes, the patch replaces
// the program, the uninstall removes it all.
const char kConfig[] = R"({
  "velmira": {"repository": "%1", "retries": 0, "stallTimeout": 5},
  "downloadModuleInfo": {"module": "demo"},
  "download": {"retryInterval": 1},
  "install": {
    "links": [{"src": "${installPath}/bin/demo", "dest": "%2/links/Demo.lnk", "icon": "${installPath}/demo.png"}],
    "settings": {"HKEY_CURRENT_USER\\SOFTWARE\\Corbeth\\CliTest": {"installPath": "${installPath}", "DisplayVersion": "${packageVersion}"}},
    "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Corbeth\\CliTest", "key": "installPath"}}
  },
  "update": {"coverFiles": [{"src": "${installPath}/data/changes.txt", "dest": "${installPath}/CHANGES.txt"}]},
  "updatePatch": {"coverFiles": [{"src": "%2/patch/demo", "dest": "${installPath}/bin/demo"}]},
  "uninstall": {
    "removeFiles": ["${installPath}", "%2/links/Demo.lnk"],
    "removeSettings": ["HKEY_CURRENT_USER\\SOFTWARE\\Corbeth\\CliTest"]
  },
  "additions": {"samples": {"install": {}}}
})";

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QString err;
};

// Every line is one JSON object, the bar never goes back, a completed task
// ends at 100 and the summary is the last line with the exit code.
bool eventsAreSound(const QByteArray &out, int exitCode, QString &why)
{
    const QList<QByteArray> lines = out.trimmed().split('\n');
    double last = -1;
    for (const QByteArray &line : lines) {
        QJsonParseError error{};
        const QJsonObject event = QJsonDocument::fromJson(line, &error).object();
        if (error.error != QJsonParseError::NoError || event.value("event"_s).toString().isEmpty()) {
            why = "not an event: "_s + QString::fromUtf8(line);
            return false;
        }
        if (event.value("event"_s) == "progress"_s) {
            const double percent = event.value("percent"_s).toDouble();
            if (percent < last) {
                why = "progress went back: %1 after %2"_s.arg(percent).arg(last);
                return false;
            }
            last = percent;
        }
    }
    const QJsonObject summary = QJsonDocument::fromJson(lines.last()).object();
    if (summary.value("event"_s) != "summary"_s || summary.value("exitCode"_s).toInt() != exitCode) {
        why = "last line: "_s + QString::fromUtf8(lines.last());
        return false;
    }
    if (exitCode == 0 && last != 100) {
        why = "progress ended at %1"_s.arg(last);
        return false;
    }
    return true;
}

} // namespace

class tst_CorbethCli : public QObject
{
    Q_OBJECT

    // A space in the path, as a user's folder may have.
    QTemporaryDir m_work{QDir::tempPath() + "/corbeth cli XXXXXX"_s};
    QString m_package;
    Nginx m_nginx;
    int m_repos = 0;

    QString path(const QString &relative) const { return m_work.filePath(relative); }

    Run corbeth(const QStringList &arguments)
    {
        QProcess process;
        // A first argument that is a path runs that copy of the tool.
        const bool copy = QFileInfo(arguments.value(0)).isAbsolute();
        process.start(copy ? arguments.first() : QStringLiteral(CORBETH_CLI), arguments.mid(copy ? 1 : 0));
        if (!process.waitForFinished(120000)) {
            process.kill();
            process.waitForFinished();
        }
        // (Windows ends a line with CR LF.)
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                process.readAllStandardOutput().replace("\r\n", "\n"),
                QString::fromLocal8Bit(process.readAllStandardError().replace("\r\n", "\n"))};
    }

    // A fresh repository with the package as 1.0.0 and a configuration for it
    // (for repository when given).
    QString configure(const QString &name, bool served, const QString &repository = QString(), QString *repo = nullptr)
    {
        // Named after this run's work folder: nginx's folder outlives runs, and
        // Wine gives each run the same process ids.
        const QString run = QFileInfo(m_work.path()).fileName().section(QLatin1Char(' '), -1);
        const QString folder = served ? m_nginx.www + "/cli-%1-%2"_s.arg(run).arg(++m_repos)
                                      : path("repo-"_s + name);
        if (!PackTool::ok({"publish"_s, m_package, "--repo"_s, folder, "--module"_s, "demo"_s, "--version"_s, "1.0.0"_s}))
            return QString();
        const QString url = !repository.isEmpty() ? repository
            : served ? "http://127.0.0.1:%1/%2/"_s.arg(m_nginx.http).arg(QFileInfo(folder).fileName())
                     : QUrl::fromLocalFile(folder).toString();
        if (repo)
            *repo = folder;
        const QString config = path(name + ".json"_s);
        return writeFile(config, QString::fromUtf8(kConfig).arg(url, m_work.path()).toUtf8()) ? config : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        m_package = path("demo.tolmpkg"_s);
        QVERIFY(PackTool::makeDemoPackage(path("source"_s), m_package, 2 << 20));
        QVERIFY(writeFile(path("patch/demo"_s), "demo 1.0.1"));
        m_nginx.load();
    }

    void lifecycle_data()
    {
        QTest::addColumn<bool>("served");
        QTest::newRow("file://") << false;
        QTest::newRow("nginx") << true;
    }

    // Install, update, patch, download and uninstall, each checked on the
    // machine and in its events.
    void lifecycle()
    {
        QFETCH(bool, served);
        if (served && !m_nginx.http)
            QSKIP("the nginx fixture is not running");
        SettingsSandbox store;
        const QString name = served ? "served"_s : "local"_s;
        QString folder;
        const QString config = configure(name, served, QString(), &folder);
        QVERIFY(!config.isEmpty());
        const QString inst = path(name + "/inst"_s);
        QByteArray said; // the last step's events
        const auto step = [&](const QStringList &arguments) {
            const Run run = corbeth(arguments + QStringList{"--config"_s, config, "--json"_s});
            said = run.out;
            QString why;
            const bool sound = run.exitCode == 0 && eventsAreSound(run.out, 0, why);
            why += QString::fromUtf8(run.out);
            if (!sound)
                qWarning().noquote() << arguments << run.exitCode << why << run.err;
            return sound;
        };

        QVERIFY(step({"install"_s, "--path"_s, inst, "--addition"_s, "samples"_s}));
        QCOMPARE(readFile(inst + "/bin/demo"_s), QByteArray("demo 1.0"));
        QCOMPARE(shortcutTarget(path("links/Demo.lnk"_s)), inst + "/bin/demo"_s);
        QCOMPARE(shortcutIcon(path("links/Demo.lnk"_s)), inst + "/demo.png"_s);
        if (shortcutFile(path("links/Demo.lnk"_s)).endsWith(".desktop"_s)) // a launcher names the folder
            QVERIFY(readFile(shortcutFile(path("links/Demo.lnk"_s))).contains("\nPath=" + inst.toUtf8() + "/bin\n"));
        // Written with native separators, as every setting value is.
        QCOMPARE(storedUserSetting("SOFTWARE/Corbeth/CliTest/installPath"_s).toString(), QDir::toNativeSeparators(inst));
        const auto version = [] { return storedUserSetting("SOFTWARE/Corbeth/CliTest/DisplayVersion"_s).toString(); };
        QCOMPARE(version(), "1.0.0"_s);
        QVERIFY(!QFile::exists(inst + "/arvenorDownloadCache"_s));

        // Version 2 differs in the file the update copies; the install folder
        // is found through the settings store.
        // It carries its own configuration, whose update also writes NEWS.txt.
        QVERIFY(writeFile(path("source/data/changes.txt"_s), "changes 2.0"));
        QVERIFY(writeFile(path("source/corbeth.json"_s), readFile(config).replace(
            "\"update\": {\"coverFiles\": [", "\"update\": {\"coverFiles\": [{\"src\": \"${installPath}/data/changes.txt\", "
            "\"dest\": \"${installPath}/NEWS.txt\"}, ")));
        const QString package2 = path(name + "-2.tolmpkg"_s);
        QVERIFY(PackTool::ok({"create"_s, path("source"_s), "-o"_s, package2}));
        QVERIFY(writeFile(path("source/data/changes.txt"_s), "changes 1.0") && QFile::remove(path("source/corbeth.json"_s)));
        // Published to beta first: a stable client is offered it once it is promoted.
        const auto check = [&] { return corbeth({"check"_s, "--config"_s, config}); };
        QVERIFY(PackTool::ok({"publish"_s, package2, "--repo"_s, folder, "--module"_s, "demo"_s, "--version"_s, "2.0.0"_s,
                              "--channel"_s, "beta"_s}));
        QCOMPARE(check().exitCode, 0);
        QVERIFY(PackTool::ok({"promote"_s, "--repo"_s, folder, "--module"_s, "demo"_s, "--version"_s, "2.0.0"_s, "--to"_s, "stable"_s}));
        const Run offered = check();
        QCOMPARE(offered.exitCode, 100);
        QVERIFY2(offered.out.startsWith("2.0.0 is available") && offered.out.contains("installed: 1.0.0"), offered.out.constData());
        QVERIFY(step({"update"_s}));
        // Publishing made a delta from 1.0.0, which the update took.
        QVERIFY2(said.contains("\"bytesSaved\":") && !said.contains("\"bytesSaved\":-"), said.constData());
        QCOMPARE(readFile(inst + "/CHANGES.txt"_s), QByteArray("changes 2.0"));
        QCOMPARE(readFile(inst + "/NEWS.txt"_s), QByteArray("changes 2.0"));
        QCOMPARE(version(), "2.0.0"_s);
        // Up to date: the check says 0, and an update changes nothing.
        QCOMPARE(check().exitCode, 0);
        QVERIFY(writeFile(inst + "/CHANGES.txt"_s, "kept"));
        QVERIFY(step({"update"_s}));
        QVERIFY(corbeth({"update"_s, "--config"_s, config}).out.startsWith("already up to date: 2.0.0 (channel stable)"));
        QCOMPARE(readFile(inst + "/CHANGES.txt"_s), QByteArray("kept"));

        QVERIFY(step({"patch"_s}));
        QCOMPARE(readFile(inst + "/bin/demo"_s), QByteArray("demo 1.0.1"));

        QVERIFY(step({"download"_s, "--path"_s, path(name + "/offline"_s)}));
        const QStringList offline = QDir(path(name + "/offline"_s)).entryList(QDir::Files);
        QCOMPARE(offline.filter(".verify"_s).size(), 1);
        QVERIFY(step({"uninstall"_s}));
        QVERIFY(!QFile::exists(inst));
        QVERIFY(!nameTaken(shortcutFile(path("links/Demo.lnk"_s))));
        QVERIFY(!storedUserSetting("SOFTWARE/Corbeth/CliTest/installPath"_s).isValid());
    }

    void failures_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("said");
        const QString inst = path("failed"_s);
        const QString config = configure("failures"_s, false);
        const QString unreachable = configure("unreachable"_s, false, "http://127.0.0.1:1/"_s);
        QVERIFY(writeFile(path("malformed.json"_s), "{\n \"install\": "));
        QVERIFY(writeFile(path("empty.json"_s), "{}"));
        const auto variant = [this, &config](const char *name, const QByteArray &from, const QByteArray &to) {
            return writeFile(path(QLatin1String(name)), readFile(config).replace(from, to));
        };
        QVERIFY(variant("types.json", "\"links\": [", "\"links\": \"abc\", \"x\": ["));
        QVERIFY(PackTool::ok({"keygen"_s, path("key"_s)}));
        const QByteArray key = readFile(path("key.pub"_s)).trimmed();
        QVERIFY(variant("signed.json", "\"retries\"", "\"publicKey\": \"" + key + "\", \"retries\""));
        QVERIFY(variant("nomodule.json", "\"demo\"}", "\"nosuch\"}"));
        // corbeth alone in a folder, the cleanup tool nowhere it looks.
        const QString alone = path("alone/"_s) + QFileInfo(QStringLiteral(CORBETH_CLI)).fileName();
        QVERIFY(QDir().mkpath(path("alone"_s)));
        QVERIFY(QFile::exists(alone) || QFile::copy(QStringLiteral(CORBETH_CLI), alone));
        QVERIFY(writeFile(path("norepository.json"_s), "{ \"install\": {} }"));
        QVERIFY(QDir().mkpath(path("tampered"_s)));
        QVERIFY(QFile::exists(path("tampered/demo.tolmpkg"_s)) || QFile::copy(m_package, path("tampered/demo.tolmpkg"_s)));
        QVERIFY(writeFile(path("tampered/demo.tolmpkg.verify"_s), "0123456789abcdef0123456789abcdef"));
        // A byte of the published package changed; a repository that delivered
        // 2.0.0 before and now offers only 1.0.0.
        QString altered, older;
        const QString alteredConfig = configure("altered"_s, false, QString(), &altered);
        QFile published(altered + "/modules/demo/demo.tolmpkg"_s);
        QVERIFY(published.open(QIODevice::ReadWrite) && published.seek(1000) && published.write("X") == 1);
        published.close();
        const QString downgrade = configure("downgrade"_s, false, QString(), &older);
        QVERIFY(PackTool::ok({"publish"_s, m_package, "--repo"_s, older, "--module"_s, "demo"_s, "--version"_s, "2.0.0"_s}));
        QCOMPARE(corbeth({"download"_s, "--config"_s, downgrade, "--path"_s, path("delivered"_s)}).exitCode, 0);
        QVERIFY(QDir(older).removeRecursively() && configure("downgrade"_s, false) == downgrade);

        QTest::newRow("unknown command") << QStringList{"instal"_s} << 2 << "instal"_s;
        QTest::newRow("no configuration given") << QStringList{"install"_s, "--path"_s, inst} << 2 << "--config"_s;
        const auto install = [&inst](const QString &configuration) {
            return QStringList{"install"_s, "--config"_s, configuration, "--path"_s, inst};
        };
        QTest::newRow("missing configuration") << install(path("none.json"_s)) << 15 << "no configuration file"_s;
        QTest::newRow("configuration is a folder") << install(path("alone"_s)) << 27 << "cannot be read"_s;
        QTest::newRow("malformed configuration") << install(path("malformed.json"_s)) << 20 << "at line 2, column 13"_s;
        QTest::newRow("empty configuration") << install(path("empty.json"_s)) << 20 << "holds no settings"_s;
        QTest::newRow("values of the wrong type, cleanup tool missing")
            << QStringList{alone, "uninstall"_s, "--config"_s, path("types.json"_s), "--path"_s,
                           m_work.path()}
            << 26 << "corbeth-cleanup is in none of "_s + path("alone"_s);
        QTest::newRow("patch without updatePatch")
            << QStringList{"patch"_s, "--config"_s, path("norepository.json"_s), "--path"_s, inst}
            << 20 << "no \"updatePatch\""_s;
        QTest::newRow("unsigned index, key configured") << install(path("signed.json"_s)) << 23 << "is not signed"_s;
        QTest::newRow("unknown module") << install(path("nomodule.json"_s)) << 22 << "nosuch/index.json does not"_s;
        QTest::newRow("install folder cannot be made")
            << QStringList{"install"_s, "--config"_s, config, "--path"_s, config + "/inst"_s, "--package"_s, m_package}
            << 25 << "the target folder cannot be created"_s;
        QTest::newRow("package altered in the repository") << install(alteredConfig) + QStringList{"--retry-rounds"_s, "1"_s} << 24 << "the index says"_s;
        QTest::newRow("older than delivered before") << install(downgrade) << 28 << "older than 2.0.0"_s;
        QTest::newRow("no repository in it")
            << QStringList{"install"_s, "--config"_s, path("norepository.json"_s), "--path"_s, inst} << 20 << "EC_ConfigDataError"_s;
        QTest::newRow("unknown addition")
            << QStringList{"install"_s, "--config"_s, config, "--path"_s, inst, "--addition"_s, "nosuch"_s} << 2
            << "(known: samples)"_s;
        QTest::newRow("unreachable repository")
            << QStringList{"install"_s, "--config"_s, unreachable, "--path"_s, inst, "--retry-rounds"_s, "1"_s}
            << 11 << "Connection refused"_s;
        QTest::newRow("tampered package")
            << QStringList{"install"_s, "--config"_s, config, "--path"_s, inst, "--package"_s, path("tampered/demo.tolmpkg"_s)}
            << 19 << "EC_VerifyFailed"_s;
        QTest::newRow("tampered package, verify")
            << QStringList{"verify"_s, path("tampered/demo.tolmpkg"_s)} << 19 << "tampered/demo.tolmpkg"_s;
    }

    // Each failure: its documented exit code and one line that says what
    // failed; with --json an error event and the summary last.
    void failures()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, said);
        const Run plain = corbeth(arguments);
        QCOMPARE(plain.exitCode, exitCode);
        // One line, after a warning for each value the engine skipped.
        QCOMPARE(plain.err.trimmed().count(QLatin1Char('\n')), plain.err.count("warning: the configuration's"_s));
        QCOMPARE(plain.err.count("\"links\" was skipped"_s), int(arguments.contains(path("types.json"_s))));
        QVERIFY2(plain.err.contains(said), qPrintable(plain.err));
        QVERIFY(plain.err.startsWith("corbeth: "_s) && !plain.err.contains("cannot download"_s));
        QVERIFY(!QFileInfo::exists(path("failed/arvenorDownloadCache"_s)));
        // Not on a terminal: no control characters for a log to hold.
        QVERIFY(!plain.err.contains(QLatin1Char('\r')) && !plain.err.contains(QLatin1Char('\033')));

        const Run json = corbeth(arguments + QStringList{"--json"_s});
        QCOMPARE(json.exitCode, exitCode);
        if (json.out.isEmpty()) // the command line itself was wrong
            return;
        QString why;
        QVERIFY2(eventsAreSound(json.out, exitCode, why), qPrintable(why));
        QVERIFY2(json.out.contains("\"event\":\"error\""), json.out.constData());
    }

    void interrupt_data()
    {
        QTest::addColumn<int>("interrupts");
        QTest::newRow("Ctrl-C revokes the download") << 1;
        QTest::newRow("a second Ctrl-C ends at once") << 2;
    }

    // SIGINT while the package trickles in: exit code 130 and nothing left running.
    void interrupt()
    {
        QFETCH(int, interrupts);
        FaultServer faults;
        QVERIFY(faults.start(path("repo-failures"_s)));
        const QString config = configure("interrupt"_s, false, faults.url("drip"_s));
        QProcess process;
        process.start(QStringLiteral(CORBETH_CLI),
                      {"install"_s, "--config"_s, config, "--path"_s, path("interrupted"_s), "--json"_s});
        QVERIFY(process.waitForStarted());
        QByteArray out;
        QVERIFY(QTest::qWaitFor([&] {
            out += process.readAllStandardOutput();
            return out.contains("TS_Downloading");
        }, 60000));
        const qint64 pid = process.processId();
        for (int i = 0; i < interrupts; ++i) {
            if (!interruptProcess(pid))
                QSKIP("no Ctrl+C can reach a program without a console of its own under Wine");
        }
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 130);
        QVERIFY(processEnded(pid));
        if (interrupts == 1) {
            out += process.readAllStandardOutput();
            QString why;
            QVERIFY2(eventsAreSound(out, 130, why), qPrintable(why));
            QVERIFY(out.contains("TS_Aborted"));
        }
    }

    void terminalBar_data()
    {
        QTest::addColumn<int>("columns");
        QTest::newRow("80 columns") << 80;
        QTest::newRow("40 columns") << 40;
    }

    // On a terminal the bar is one line redrawn in place within the width,
    // figures left out whole when they do not fit, and the line after it starts clean.
    void terminalBar()
    {
        QFETCH(int, columns);
        const QString script = QStandardPaths::findExecutable("script"_s);
        if (script.isEmpty())
            QSKIP("script (util-linux) is not installed");
        SettingsSandbox store;
        const QString config = configure("terminal"_s, false);
        const auto quoted = [](const QString &text) { return QLatin1Char('\'') + text + QLatin1Char('\''); };
        const QString command = QStringList{"stty cols %1 &&"_s.arg(columns), quoted(QStringLiteral(CORBETH_CLI)),
                                            "install"_s, "--config"_s, quoted(config),
                                            "--path"_s, quoted(path("terminal/inst%1"_s.arg(columns)))}
                                    .join(QLatin1Char(' '));
        QProcess process;
        process.start(script, {"-qfec"_s, command, "/dev/null"_s});
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitCode(), 0);
        const QByteArray output = process.readAllStandardOutput();
        const int summary = output.indexOf("install: done in");
        QVERIFY2(summary > 0, output.constData());
        const QByteArray bar = output.left(summary);
        // Redrawn: several states on one line, no line break until the end.
        QVERIFY2(bar.count('\r') >= 3, bar.constData());
        QVERIFY(bar.endsWith("\r\n"));
        QCOMPARE(bar.count('\n'), 1);
        for (const QByteArray &state : bar.split('\r')) {
            const QByteArray text = QByteArray(state).replace("\033[K", "").trimmed();
            QVERIFY2(text.size() < columns, text.constData());
            const QByteArray last = text.mid(text.lastIndexOf(' ') + 1);
            const QByteArrayList whole{"downloading", "unpacking", "installing", "verifying", "preparing",
                                       "finished",    "left",      "B",          "KiB",       "MiB"};
            QVERIFY2(text.isEmpty() || whole.contains(last) || last.endsWith("/s"), text.constData());
        }
        QVERIFY(bar.contains("100%"));
    }
};

CORBETH_TEST_MAIN(tst_CorbethCli)
#include "tst_corbethcli.moc"
