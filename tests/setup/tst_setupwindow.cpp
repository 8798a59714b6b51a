// The installer window as a user meets it: real pages, keys and clicks, a real
// engine installing a real package from a file:// repository (or the fault
// server), and the machine's state checked after each run.
#include "failurecause.h"
#include "productinfo.h"
#include "setuptask.h"
#include "setupwindow.h"
#include "singleinstance.h"

#include "packtool.h"
#include "sandbox.h"
#include "testplatform.h"

#include <QtCore/QProcess>
#include <QtCore/QSettings>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtCore/QUrl>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QMessageBox>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStackedWidget>

using namespace Corbeth;
using namespace VindalTest;

namespace {

// A small product: a program, data, and an addition that copies a sample.
// The install records its folder in the settings store, where the uninstall
// finds it again.
const char kProduct[] = R"({
  "product": {"name": "Demo", "version": "1.0", "publisher": "Arvenor Test",
              "licence": "You may use Demo for testing.\nNo warranty.", "program": "bin/demo",
              "components": {"samples": {"description": "Sample projects to start from.", "size": 1572864}}},
  "velmira": {"repository": "%1", "retries": 0, "stallTimeout": 30},
  "downloadModuleInfo": {"module": "demo"},
  "tolmInstallerModuleInfo": {"modelCode": "DEMO-SETUP", "environment": "test", "os": "linux", "lang": "en"},
  "download": {"retryInterval": 1},
  "install": {
    "links": [{"src": "${installPath}/bin/demo", "dest": "%2/links/Demo.lnk"}],
    "settings": {"HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Demo": {"installPath": "${installPath}"}},
    "olderSoftwareInfo": {"getOlderInstallPath": {"settingPath": "HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Demo", "key": "installPath"}}
  },
  "update": {"coverFiles": [{"src": "${installPath}/data/sample.txt", "dest": "${installPath}/updated.txt"}]},
  "uninstall": {
    "removeFiles": ["${installPath}/bin", "${installPath}/data", "${installPath}/sample.txt", "%2/links/Demo.lnk"],
    "removeSettings": ["HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\Demo"]
  },
  "additions": {
    "samples": {"install": {"coverFiles": [{"src": "${installPath}/data/sample.txt", "dest": "${installPath}/sample.txt"}]}}
  }
})";

// Xvfb has no window manager to give the new window the focus.
bool activate(QWidget &window)
{
    if (!QTest::qWaitForWindowExposed(&window)) {
        qWarning() << "not exposed" << QGuiApplication::platformName();
        return false;
    }
    QApplication::setActiveWindow(&window);
    // Key events go to the widgets themselves, so an inactive window still works.
    return QTest::qWaitForWindowActive(&window, 1000) || window.isVisible();
}

QString currentPage(const SetupWindow &window)
{
    return window.findChild<QStackedWidget *>()->currentWidget()->objectName();
}

bool waitForPage(const SetupWindow &window, const QString &name, int timeoutMs = 60000)
{
    return QTest::qWaitFor([&] { return currentPage(window) == name; }, timeoutMs);
}

// What a user does most: Return on whatever has the focus (the default button
// takes it when the focus is not on a button).
void pressReturn(SetupWindow &window)
{
    QTest::keyClick(window.focusWidget() ? window.focusWidget() : &window, Qt::Key_Return);
}

// Answers the next confirmation with button as soon as it opens (it runs its own loop).
void answerNextQuestion(QMessageBox::StandardButton button)
{
    auto *timer = new QTimer;
    QObject::connect(timer, &QTimer::timeout, [timer, button] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        timer->deleteLater();
        QTest::mouseClick(box->button(button), Qt::LeftButton);
    });
    timer->start(50);
}

// A folder nobody may write to, root included (an immutable folder then).
struct ReadOnlyFolder
{
    QString path;
    bool immutable = false;
    explicit ReadOnlyFolder(const QString &where)
        : path(where)
    {
        QDir().mkpath(path);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup);
        if (runsAsRoot())
            immutable = QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("+i"), path}) == 0;
    }
    ~ReadOnlyFolder()
    {
        if (immutable)
            QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-i"), path});
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    bool holds() const { return !QFile(path + "/probe"_s).open(QIODevice::WriteOnly); }
};

} // namespace

class tst_SetupWindow : public QObject
{
    Q_OBJECT

    QTemporaryDir m_work;
    QString m_package;
    QString m_repository;
    QString m_publicKey;
    QString m_pictures = QStringLiteral(SETUP_PICTURES_DIR);

    QString path(const QString &relative) const { return m_work.filePath(relative); }

    QString configFile(const QString &repository, bool signedOnly = false)
    {
        const QString file = path("config-%1-%2.json"_s).arg(qHash(repository)).arg(signedOnly);
        QString text = QString::fromUtf8(kProduct).arg(repository, m_work.path());
        if (signedOnly)
            text.replace("\"retries\""_s, "\"publicKey\": \"%1\", \"retries\""_s.arg(m_publicKey));
        writeFile(file, text.toUtf8());
        return file;
    }

    void picture(SetupWindow &window, const QString &name)
    {
        QApplication::processEvents();
        QVERIFY(window.grab().save(m_pictures + QLatin1Char('/') + name + ".png"_s));
    }

    static QVariant storedInstallPath() { return storedUserSetting("SOFTWARE/Arvenor/Demo/installPath"_s); }

    // Welcome, licence, folder and components, leaving the wizard on the progress page.
    void walkToInstall(SetupWindow &window, const QString &folder, bool pictures)
    {
        QVERIFY(waitForPage(window, "welcomePage"_s));
        if (pictures)
            picture(window, "1-welcome"_s);
        pressReturn(window);

        QCOMPARE(currentPage(window), "licencePage"_s);
        auto *next = window.findChild<QPushButton *>("nextButton"_s);
        QVERIFY(!next->isEnabled());
        QCOMPARE(window.focusWidget()->objectName(), "licenceText"_s);
        QTest::keyClick(window.focusWidget(), Qt::Key_Tab);
        QTest::keyClick(window.focusWidget(), Qt::Key_Space);
        QVERIFY(window.findChild<QCheckBox *>("acceptLicence"_s)->isChecked());
        QVERIFY(next->isEnabled());
        if (pictures)
            picture(window, "2-licence"_s);
        pressReturn(window);

        QCOMPARE(currentPage(window), "folderPage"_s);
        auto *edit = window.findChild<QLineEdit *>("folderEdit"_s);
        QCOMPARE(window.focusWidget(), edit);
        // A read-only folder is refused where the user chose it.
        ReadOnlyFolder locked(path("locked"_s));
        if (locked.holds()) {
            edit->selectAll();
            QTest::keyClicks(edit, locked.path + "/Demo"_s);
            pressReturn(window);
            QCOMPARE(currentPage(window), "folderPage"_s);
            QVERIFY(window.findChild<QLabel *>("folderMessage"_s)->text().contains("cannot write"_s));
            if (pictures)
                picture(window, "3-folder-refused"_s);
        }
        edit->selectAll();
        QTest::keyClicks(edit, folder);
        QVERIFY(window.findChild<QLabel *>("folderMessage"_s)->text().isEmpty());
        if (pictures)
            picture(window, "3-folder"_s);
        pressReturn(window);

        QCOMPARE(currentPage(window), "componentsPage"_s);
        QVERIFY(window.findChild<QCheckBox *>("addition_samples"_s)->isChecked());
        QCOMPARE(window.findChild<QLabel *>("about_samples"_s)->text(), "Sample projects to start from. (1.50 MiB)"_s);
        QCOMPARE(next->text(), "&Install"_s);
        if (pictures)
            picture(window, "4-components"_s);
        pressReturn(window);
        QCOMPARE(currentPage(window), "progressPage"_s);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        QVERIFY(QDir().mkpath(m_pictures));
        m_package = path("demo.tolmpkg"_s);
        QVERIFY(PackTool::makeDemoPackage(path("source"_s), m_package, 8 << 20));
        QVERIFY(PackTool::ok({"publish"_s, m_package, "--repo"_s, path("repo"_s), "--module"_s, "demo"_s,
                              "--version"_s, "1.0.0"_s}));
        m_repository = QUrl::fromLocalFile(path("repo"_s)).toString() + QLatin1Char('/');
        QVERIFY(PackTool::ok({"keygen"_s, path("key"_s)}));
        m_publicKey = QString::fromLatin1(readFile(path("key.pub"_s)).trimmed());
        // As corbeth-setup does; here after the test's own log handler.
        FailureCause::listen(true);
    }

    // A repository that can never be trusted: the retries end, and the error
    // page says why.
    void untrustedRepositoryShowsItsCause()
    {
        SettingsSandbox store;
        Manager manager;
        QCOMPARE(manager.setConfigPath(configFile(m_repository, true)), CBEnum::EC_NoError);
        SetupTask::boundRetries(manager, 1);
        QCOMPARE(manager.initRemote(), CBEnum::EC_NoError);
        SetupWindow window(&manager, ProductInfo::fromConfig(manager.configData()), SetupOptions(), QString());
        window.show();
        QVERIFY(activate(window));
        walkToInstall(window, path("untrusted/Demo"_s), false);
        QVERIFY(waitForPage(window, "errorPage"_s));
        QVERIFY2(window.findChild<QLabel *>("errorText"_s)->text().contains("is not signed"_s),
                 qPrintable(window.findChild<QLabel *>("errorText"_s)->text()));
        picture(window, "10-untrusted"_s);
    }

    // Every page of an install from the repository, then the uninstall, with
    // the keyboard wherever a user would use it.
    void installAndUninstall()
    {
        SettingsSandbox store;
        const QString config = configFile(m_repository);
        const QString folder = path("Program Files/Demo"_s);
        {
            Manager manager;
            QCOMPARE(manager.setConfigPath(config), CBEnum::EC_NoError);
            QCOMPARE(manager.initRemote(), CBEnum::EC_NoError);
            SetupWindow window(&manager, ProductInfo::fromConfig(manager.configData()), SetupOptions(), QString());
            window.show();
            QVERIFY(activate(window));
            QList<int> values;
            bool grabbed = false;
            connect(window.findChild<QProgressBar *>("progressBar"_s), &QProgressBar::valueChanged, [&](int v) {
                values << v;
                if (!grabbed && v > 50 && v < 900) {
                    grabbed = true;
                    picture(window, "5-progress"_s);
                }
            });
            walkToInstall(window, folder, true);
            QVERIFY2(waitForPage(window, "finishPage"_s), qPrintable(window.findChild<QLabel *>("errorText"_s)->text()));
            picture(window, "6-finish"_s);
            // The bar moved forward only, through the middle, to the end.
            QVERIFY(values.size() > 3);
            QVERIFY(std::is_sorted(values.cbegin() + 1, values.cend()));
            QCOMPARE(values.last(), 1000);
            QVERIFY(grabbed);

            QVERIFY(!window.findChild<QCheckBox *>("launchProgram"_s)->isChecked());
            pressReturn(window);
            QVERIFY(!window.isVisible());
            QCOMPARE(window.result(), int(QDialog::Accepted));
        }
        QCOMPARE(readFile(folder + "/bin/demo"_s), QByteArray("demo 1.0"));
        QCOMPARE(readFile(folder + "/sample.txt"_s), QByteArray("sample"));
        QCOMPARE(shortcutTarget(path("links/Demo.lnk"_s)), folder + "/bin/demo"_s);
        QCOMPARE(storedInstallPath().toString(), QDir::toNativeSeparators(folder));
        QVERIFY(!QFileInfo::exists(folder + "/arvenorDownloadCache"_s));

        // The uninstall finds the folder through the settings store.
        Manager manager;
        QCOMPARE(manager.setConfigPath(config), CBEnum::EC_NoError);
        SetupOptions options;
        options.mode = SetupOptions::Uninstall;
        SetupWindow window(&manager, ProductInfo::fromConfig(manager.configData()), options, QString());
        window.show();
        QVERIFY(activate(window));
        QCOMPARE(currentPage(window), "confirmPage"_s);
        QCOMPARE(window.installFolder(), folder);
        picture(window, "7-uninstall"_s);
        QCOMPARE(window.findChild<QPushButton *>("nextButton"_s)->text(), "&Uninstall"_s);
        const QString confirmation = window.findChild<QWidget *>("confirmPage"_s)->findChild<QLabel *>()->text();
        QVERIFY(confirmation.contains("Click Uninstall"_s));
        pressReturn(window);
        QVERIFY(waitForPage(window, "finishPage"_s));
        picture(window, "8-uninstalled"_s);
        pressReturn(window);
        QVERIFY(!window.isVisible());
        QVERIFY(!QFileInfo::exists(folder + "/bin/demo"_s));
        QVERIFY(!QFileInfo::exists(folder + "/sample.txt"_s));
        QVERIFY(!nameTaken(shortcutFile(path("links/Demo.lnk"_s))));
        QVERIFY(!storedInstallPath().isValid());
    }

    // Cancel during a download that hangs: the task is revoked, the wizard
    // offers Retry, and Retry installs once the repository answers again.
    void cancelThenRetry()
    {
        SettingsSandbox store;
        FaultServer faults;
        QVERIFY(faults.start(path("repo"_s)));
        Manager manager;
        QCOMPARE(manager.setConfigPath(configFile(faults.url("stall"_s))), CBEnum::EC_NoError);
        QCOMPARE(manager.initRemote(), CBEnum::EC_NoError);
        SetupWindow window(&manager, ProductInfo::fromConfig(manager.configData()), SetupOptions(), QString());
        window.show();
        QVERIFY(activate(window));
        const QString folder = path("retry/Demo"_s);
        // As if the unpacking had begun: files of the product, with its cleanup tool.
        QVERIFY(writeFile(folder + "/bin/demo"_s, "half"));
        QVERIFY(QFile::copy(QStringLiteral(CORBETH_CLEANUP_TOOL), folder + "/corbeth-cleanup"_s));
        walkToInstall(window, folder, false);
        auto *stage = window.findChild<QLabel *>("stageLabel"_s);
        QVERIFY(QTest::qWaitFor([&] { return stage->text().startsWith("Downloading"_s); }, 30000));
        // The first KiB arrived: the page counts it against the package size.
        auto *transfer = window.findChild<QLabel *>("transferLabel"_s);
        QVERIFY2(QTest::qWaitFor([&] { return transfer->text().contains(" of "_s); }, 30000), qPrintable(transfer->text()));
        picture(window, "5-downloading"_s);

        // No changes its mind first; then Escape asks again and Yes cancels.
        answerNextQuestion(QMessageBox::No);
        QTest::mouseClick(window.findChild<QPushButton *>("cancelButton"_s), Qt::LeftButton);
        QCOMPARE(currentPage(window), "progressPage"_s);
        answerNextQuestion(QMessageBox::Yes);
        QTest::keyClick(&window, Qt::Key_Escape);
        QVERIFY(waitForPage(window, "errorPage"_s, 30000));
        QVERIFY(window.findChild<QLabel *>("errorText"_s)->text().contains("2 files it had already placed"_s));
        picture(window, "9-cancelled"_s);
        // Remove them runs the product's uninstall steps on what is there,
        // under a page that says so (shown before the removal starts).
        QTest::mouseClick(window.findChild<QPushButton *>("removePlacedButton"_s), Qt::LeftButton);
        QCOMPARE(window.findChild<QLabel *>("pageTitle"_s)->text() + ": "_s + stage->text(),
                 "Removing: Removing what setup placed\u2026"_s);
        QVERIFY(window.grab().save(m_pictures + "/9-removing.png"_s));
        QVERIFY(QTest::qWaitFor([&] { return window.findChild<QLabel *>("errorText"_s)->text().contains("removed"_s); },
                                60000));
        QVERIFY(!QFileInfo::exists(folder + "/bin/demo"_s));

        // The network is back: the same window, the same manager, Retry.
        QCOMPARE(manager.setConfigPath(configFile(m_repository)), CBEnum::EC_NoError);
        QCOMPARE(manager.initRemote(), CBEnum::EC_NoError);
        QCOMPARE(window.focusWidget(), window.findChild<QPushButton *>("retryButton"_s));
        QTest::keyClick(window.focusWidget(), Qt::Key_Space);
        QVERIFY2(waitForPage(window, "finishPage"_s), qPrintable(window.findChild<QLabel *>("errorText"_s)->text()));
        QCOMPARE(readFile(folder + "/bin/demo"_s), QByteArray("demo 1.0"));
    }

    // A second start for the same product only brings the first to the front.
    void secondStartActivatesFirst()
    {
        const QString config = configFile(m_repository);
        SingleInstance first(config);
        QVERIFY(first.claim());
        QSignalSpy activated(&first, &SingleInstance::activationRequested);
        QProcess second;
        second.start(QStringLiteral(CORBETH_SETUP_PROGRAM), {"--config"_s, config});
        // The first serves its event loop meanwhile, as a real one does: under
        // Wine the second's request is written only once the first reads it.
        QVERIFY(QTest::qWaitFor([&] { return second.state() == QProcess::NotRunning; }, 30000));
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(activated.count() == 1 || activated.wait(30000));
        // Another product's installer is not held back.
        SingleInstance other(path("other.json"_s));
        QVERIFY(other.claim());
    }

    void silent_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        // A file the run leaves when it succeeds; what its one line says when it fails.
        QTest::addColumn<QString>("expected");
        QTest::newRow("install") << QStringList{"--addition"_s, "samples"_s} << 0 << "sample.txt"_s;
        QTest::newRow("offline from a folder") << QStringList{"--from"_s, "%media"_s} << 0 << "bin/demo"_s;
        QTest::newRow("unknown addition") << QStringList{"--addition"_s, "nothing"_s} << 2 << "(known: samples)"_s;
        QTest::newRow("bad option") << QStringList{"--colour"_s} << 2 << "colour"_s;
        QTest::newRow("tampered package") << QStringList{"--from"_s, "%tampered"_s} << 19 << "EC_VerifyFailed"_s;
        QTest::newRow("missing configuration") << QStringList{"--config"_s, "%work/none.json"_s} << 15 << "no config"_s;
        QTest::newRow("malformed configuration") << QStringList{"--config"_s, "%work/bad.json"_s} << 20 << "column 4"_s;
        QTest::newRow("index not signed") << QStringList{"--config"_s, "%signed"_s} << 23 << "is not signed"_s;
        QTest::newRow("install folder cannot be made")
            << QStringList{"--from"_s, "%media"_s, "--path"_s, "%work/bad.json/inst"_s} << 25 << "cannot be created"_s;
        QTest::newRow("help") << QStringList{"--help"_s} << 0 << QString();
        QTest::newRow("version") << QStringList{"--version"_s} << 0 << QString();
    }

    void silent()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, expected);
        SettingsSandbox store;
        QTemporaryDir run;
        QVERIFY(QDir().mkpath(run.filePath("media"_s)) && QDir().mkpath(run.filePath("tampered"_s)));
        QVERIFY(QFile::copy(m_package, run.filePath("media/demo.tolmpkg"_s)));
        QVERIFY(QFile::copy(m_package, run.filePath("tampered/demo.tolmpkg"_s)));
        QVERIFY(writeFile(run.filePath("tampered/demo.tolmpkg.verify"_s), QByteArray(32, '0')));
        QVERIFY(writeFile(run.filePath("bad.json"_s), "{ ,}"));
        arguments.replaceInStrings("%signed"_s, configFile(m_repository, true));
        arguments.replaceInStrings("%media"_s, run.filePath("media"_s));
        arguments.replaceInStrings("%tampered"_s, run.filePath("tampered"_s));
        arguments.replaceInStrings("%work"_s, run.path());
        // None of it needs a display: X is asked for, and there is none.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("DISPLAY"_s);
        environment.insert("QT_QPA_PLATFORM"_s, "xcb"_s);
        QProcess setup;
        setup.setProcessEnvironment(environment);
        setup.start(QStringLiteral(CORBETH_SETUP_PROGRAM),
                    QStringList{"--silent"_s, "--config"_s, configFile(m_repository), "--from"_s, run.filePath("empty"_s),
                                "--path"_s, run.filePath("inst"_s)}
                        + arguments);
        QVERIFY(setup.waitForFinished(120000));
        const QString err = QString::fromLocal8Bit(setup.readAllStandardError());
        QVERIFY2(setup.exitCode() == exitCode, qPrintable("%1: %2"_s.arg(setup.exitCode()).arg(err)));
        if (exitCode != 0)
            QVERIFY2(err.count(QLatin1Char('\n')) == 1 && err.contains(expected), qPrintable(err));
        if (exitCode == 0 && !expected.isEmpty())
            QVERIFY(QFileInfo::exists(run.filePath("inst/"_s + expected)));
        else
            QVERIFY(!QFileInfo::exists(run.filePath("inst/bin/demo"_s)));
    }
};

int main(int argc, char *argv[])
{
    TestSandbox sandbox;
    QApplication app(argc, argv);
    SetupWindow::captureLog();
    tst_SetupWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_setupwindow.moc"
