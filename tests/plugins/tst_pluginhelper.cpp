#include "logcapture.h"
#include "testmain.h"

#include "config/configer.h"
#include "manager/ptrmanager.h"
#include "plugins/pluginhelper.h"

#include <QtCore/QDir>
#include <QtCore/QPluginLoader>
#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtTest/QSignalSpy>

using namespace Corbeth;

namespace {

const QString pluginDir = QStringLiteral(CORBETH_TEST_PLUGIN_DIR);

} // namespace

class tst_PluginHelper : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { PtrManager::destroyInstance(); }

    void loadsOnlyPluginsThatMeetTheContract()
    {
        LogCapture log;
        PluginHelper helper;
        QCOMPARE(helper.initPluginLoader(pluginDir + QStringLiteral("/missing")), CBEnum::EC_FileNotOpen);
        // An empty path must not fall back to the working directory.
        QCOMPARE(helper.initPluginLoader(QString()), CBEnum::EC_FileNotOpen);
        QCOMPARE(log.count(QStringLiteral("plugin dir not exist"), QtWarningMsg), 2);

        QCOMPARE(helper.initPluginLoader(pluginDir), CBEnum::EC_NoError);
        QCOMPARE(helper.pluginNames(), QStringList{QStringLiteral("diskinfo")});
        // noversion, and whichever of the two diskinfo builds came second.
        QCOMPARE(log.count(QStringLiteral("name repetition or version error"), QtCriticalMsg), 2);
        // noapply and nofinished.
        QCOMPARE(log.count(QStringLiteral("plugin error,func apply"), QtCriticalMsg), 2);
        QString id;
        QCOMPARE(helper.requestPlugin(QStringLiteral("noapply"), {}, id), CBEnum::EC_RequestNameNotExist);
        QVERIFY(id.isEmpty());
        QVERIFY(log.contains(QStringLiteral("name is not exist"), QtCriticalMsg));

        QCOMPARE(helper.initPluginLoader(pluginDir), CBEnum::EC_NoError);
        QVERIFY(log.contains(QStringLiteral("already initPluginLoader")));
    }

    void requestsGetFreshIdsAndOneRelayEach()
    {
        PluginHelper helper;
        QCOMPARE(helper.initPluginLoader(pluginDir), CBEnum::EC_NoError);
        QSignalSpy answers(&helper, &PluginHelper::pluginFinished);
        QTemporaryDir target;
        QVERIFY(target.isValid());
        const QVariantMap request{{QStringLiteral("path"), target.path() + QStringLiteral("/not/created/yet")}};

        QString first;
        QString second;
        QCOMPARE(helper.requestPlugin(QStringLiteral("diskinfo"), request, first), CBEnum::EC_NoError);
        QCOMPARE(helper.requestPlugin(QStringLiteral("diskinfo"), {}, second), CBEnum::EC_NoError);
        QVERIFY(!first.isEmpty());
        QVERIFY(first != second);

        QTRY_COMPARE(answers.count(), 2);
        QTest::qWait(50);
        QCOMPARE(answers.count(), 2); // a doubled relay would have answered four times
        QCOMPARE(answers.at(0).at(0).toString(), QStringLiteral("diskinfo"));
        QCOMPARE(answers.at(0).at(2).toString(), first);
        QCOMPARE(answers.at(1).at(2).toString(), second);

        const QVariantMap disk = answers.at(0).at(1).toMap();
        QVERIFY2(!disk.contains(QStringLiteral("error")), qPrintable(disk.value(QStringLiteral("error")).toString()));
        QVERIFY(disk.value(QStringLiteral("totalBytes")).toLongLong() > 0);
        QVERIFY(!disk.value(QStringLiteral("os")).toString().isEmpty());
        QCOMPARE(answers.at(1).at(1).toMap().value(QStringLiteral("error")).toString(),
                 QStringLiteral("no volume for path"));
    }

    void pluginObjectsDieWithTheHelper()
    {
        auto *helper = new PluginHelper;
        helper->initPluginLoader(pluginDir);
        // A library has one root object, so a loader hands out the helper's;
        // of the two diskinfo builds, only the registered one was moved.
        QPointer<QObject> plugin;
        const QStringList builds = QDir(pluginDir).entryList({QStringLiteral("tst_diskinfo*")}, QDir::Files);
        QCOMPARE(builds.size(), 2);
        for (const QString &file : builds) {
            QObject *root = QPluginLoader(QDir(pluginDir).absoluteFilePath(file)).instance();
            QVERIFY(root);
            if (root->thread() != QThread::currentThread())
                plugin = root;
        }
        QVERIFY(plugin);
        delete helper;
        QVERIFY(plugin.isNull());
    }

    void folderFromTheConfigurationWithAPathVariable()
    {
        const QVariantMap config{
            {QStringLiteral("plugin"), QVariantMap{{QStringLiteral("loadPath"), QStringLiteral("${TolmInstallerPath}/plugins")}}}};
        PtrManager *workers = PtrManager::instance();
        QCOMPARE(workers->configer()->setConfigData(config), CBEnum::EC_NoError);
        QSignalSpy answers(workers->pluginHelper().data(), &PluginHelper::pluginFinished);
        QString id;
        QCOMPARE(workers->pluginHelper()->requestPlugin(QStringLiteral("diskinfo"),
                                                        {{QStringLiteral("path"), QDir::tempPath()}}, id),
                 CBEnum::EC_NoError);
        QTRY_COMPARE(answers.count(), 1);
        QCOMPARE(answers.first().at(2).toString(), id);
    }

    void unusableFolderIsReportedAfterTheConfigurationIsStored()
    {
        const QVariantMap config{
            {QStringLiteral("plugin"), QVariantMap{{QStringLiteral("loadPath"), QStringLiteral("${installPath}/none")}}}};
        Configer *configer = PtrManager::instance()->configer().data();
        QSignalSpy changed(configer, &Configer::configDataChanged);
        QCOMPARE(configer->setConfigData(config), CBEnum::EC_FileNotOpen);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(configer->configData().value(QStringLiteral("plugin")), config.value(QStringLiteral("plugin")));
    }
};

CORBETH_TEST_MAIN(tst_PluginHelper)
#include "tst_pluginhelper.moc"
