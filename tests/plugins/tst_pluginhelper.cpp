#include "logcapture.h"
#include "testmain.h"
#include "testplatform.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"
#include "plugins/pluginhelper.h"

#include <QtCore/QDir>
#include <QtCore/QPluginLoader>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtCore/QScopedPointer>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

#include <filesystem>

using namespace Corbeth;

static const QString pluginDir = QStringLiteral(CORBETH_TEST_PLUGIN_DIR);

class tst_PluginHelper : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { PtrManager::destroyInstance(); }

    void loadsOnlyPluginsThatMeetTheContract()
    {
        LogCapture log;
        QScopedPointer<PluginHelper> helper(new PluginHelper);
        QCOMPARE(helper->initPluginLoader(pluginDir + QStringLiteral("/missing")), CBEnum::EC_FileNotOpen);
        // An empty path must not fall back to the working directory.
        QCOMPARE(helper->initPluginLoader(QString()), CBEnum::EC_FileNotOpen);
        QCOMPARE(log.count(QStringLiteral("plugin dir not exist"), QtWarningMsg), 2);

        const CBEnum::ErrorCode loaded = helper->initPluginLoader(pluginDir);
        CORBETH_SKIP_IF_PLUGINS_REFUSED(loaded, log);
        QCOMPARE(loaded, CBEnum::EC_NoError);
        QCOMPARE(helper->pluginNames(), QStringList{QStringLiteral("diskinfo")});
        // noversion, and whichever of the two diskinfo builds came second.
        QCOMPARE(log.count(QStringLiteral("name repetition or version error"), QtCriticalMsg), 2);
        // noapply and nofinished.
        QCOMPARE(log.count(QStringLiteral("plugin error,func apply"), QtCriticalMsg), 2);
        QString id;
        QCOMPARE(helper->requestPlugin(QStringLiteral("noapply"), {}, id), CBEnum::EC_RequestNameNotExist);
        QVERIFY(id.isEmpty());
        QVERIFY(log.contains(QStringLiteral("name is not exist"), QtCriticalMsg));
        QCOMPARE(helper->initPluginLoader(pluginDir), CBEnum::EC_NoError);
        QVERIFY(log.contains(QStringLiteral("already initPluginLoader")));

        // A library has one root object; only the registered build's was moved,
        // and it dies with the helper.
        QPointer<QObject> plugin;
        const QDir dir(pluginDir);
        for (const QString &file : dir.entryList({QStringLiteral("tst_diskinfo*")}, QDir::Files)) {
            QObject *root = QPluginLoader(dir.absoluteFilePath(file)).instance();
            if (root && root->thread() != QThread::currentThread())
                plugin = root;
        }
        QVERIFY(plugin);
        helper.reset();
        QVERIFY(plugin.isNull());
    }

    // A library that another user could change or put there is never loaded.
    void refusesWhatOthersCanChange_data()
    {
        QTest::addColumn<bool>("folder"); // the folder is made unsafe, else the library
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("otherOwner");
        QTest::newRow("folder writable by all") << true << 0777 << false;
        QTest::newRow("folder writable by its group") << true << 0775 << false;
        QTest::newRow("library writable by all") << false << 0666 << false;
        QTest::newRow("library of another user") << false << 0644 << true;
    }

    void refusesWhatOthersCanChange()
    {
#ifdef Q_OS_WIN
        QSKIP("the modes are Unix permissions; Windows trusts by owner and access list");
#endif
        QFETCH(bool, folder);
        QFETCH(int, mode);
        QFETCH(bool, otherOwner);
        QTemporaryDir dir;
        const QString plugins = dir.filePath(QStringLiteral("plugins"));
        const QString library = plugins + QStringLiteral("/diskinfo.so");
        const QFileInfoList built = QDir(pluginDir).entryInfoList({QStringLiteral("*tst_diskinfo.*")}, QDir::Files);
        QVERIFY(QDir().mkpath(plugins) && !built.isEmpty() && QFile::copy(built.first().absoluteFilePath(), library));
        const QString unsafe = folder ? plugins : library;
        std::filesystem::permissions(unsafe.toStdString(), std::filesystem::perms(mode));
        if (otherOwner && QProcess::execute(QStringLiteral("chown"), {QStringLiteral("nobody"), unsafe}) != 0)
            QSKIP("only the administrator can give a file to another user");
        LogCapture log;
        PluginHelper helper;
        QCOMPARE(helper.initPluginLoader(plugins), folder ? CBEnum::EC_FileNotOpen : CBEnum::EC_NoError);
        QVERIFY(helper.pluginNames().isEmpty());
        QVERIFY2(log.contains(QLatin1Char('"') + unsafe + QLatin1Char('"'), QtCriticalMsg), qPrintable(log.dump()));
    }

    // Loaded from the folder the configuration names with a path variable.
    void requestsGetFreshIdsAndOneRelayEach()
    {
        const QVariantMap plugin{{QStringLiteral("loadPath"), QStringLiteral("${TolmInstallerPath}/plugins")}};
        LogCapture log;
        const CBEnum::ErrorCode loaded = PtrManager::instance()->configer()->setConfigData({{QStringLiteral("plugin"), plugin}});
        CORBETH_SKIP_IF_PLUGINS_REFUSED(loaded, log);
        QCOMPARE(loaded, CBEnum::EC_NoError);
        PluginHelper *helper = PtrManager::instance()->pluginHelper().data();
        QSignalSpy answers(helper, &PluginHelper::pluginFinished);
        QString first, second;
        QCOMPARE(helper->requestPlugin(QStringLiteral("diskinfo"), {{QStringLiteral("path"), QDir::tempPath()}}, first),
                 CBEnum::EC_NoError);
        QCOMPARE(helper->requestPlugin(QStringLiteral("diskinfo"), {}, second), CBEnum::EC_NoError);
        QVERIFY(!first.isEmpty() && first != second);

        QTRY_COMPARE_WITH_TIMEOUT(answers.count(), 2, 30000);
        QTest::qWait(50);
        QCOMPARE(answers.count(), 2); // a doubled relay would have answered four times
        QCOMPARE(answers.at(0).at(0).toString(), QStringLiteral("diskinfo"));
        QCOMPARE(answers.at(0).at(2).toString(), first);
        QVERIFY(answers.at(0).at(1).toMap().value(QStringLiteral("freeBytes")).toLongLong() > 0);
        QCOMPARE(answers.at(1).at(2).toString(), second);
        QCOMPARE(answers.at(1).at(1).toMap().value(QStringLiteral("error")).toString(),
                 QStringLiteral("no volume for path"));
    }

    void unusableFolderIsReportedAfterTheConfigurationIsStored()
    {
        const QVariantMap plugin{{QStringLiteral("loadPath"), QStringLiteral("${installPath}/none")}};
        Configer *configer = PtrManager::instance()->configer().data();
        QSignalSpy changed(configer, &Configer::configDataChanged);
        QCOMPARE(configer->setConfigData({{QStringLiteral("plugin"), plugin}}), CBEnum::EC_FileNotOpen);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(configer->configData().value(QStringLiteral("plugin")).toMap(), plugin);
    }
};

CORBETH_TEST_MAIN(tst_PluginHelper)
#include "tst_pluginhelper.moc"
