#include "plugins/pluginhelper.h"

#include "logging_p.h"
#include "platform/filetrust.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonObject>
#include <QtCore/QMetaMethod>
#include <QtCore/QPluginLoader>
#include <QtCore/QUuid>

namespace Corbeth {

namespace {
const char applySignature[] = "CB_apply(QVariantMap,QString)";
const char finishedSignature[] = "finished(QVariantMap,QString)";
} // namespace

PluginHelper::PluginHelper(QObject *parent)
    : QObject(parent)
{
    m_thread.setObjectName(QStringLiteral("corbeth-plugins"));
}

PluginHelper::~PluginHelper()
{
    // The thread's finished signal deletes the plug-in objects on that thread
    // before wait() returns, so none of them outlives the helper.
    m_thread.quit();
    m_thread.wait();
}

CBEnum::ErrorCode PluginHelper::initPluginLoader(const QString &folder)
{
    qCInfo(lcCorbeth) << "begin plugin " << folder;
    if (!m_plugins.isEmpty()) {
        qCDebug(lcCorbeth) << "already initPluginLoader";
        return CBEnum::EC_NoError;
    }
    // An empty path would name the working directory.
    const QDir dir(folder);
    if (folder.isEmpty() || !dir.exists()) {
        qCWarning(lcCorbeth) << "plugin dir not exist" << folder;
        return CBEnum::EC_FileNotOpen;
    }
    // A library others can change or replace would run their code with the
    // engine's rights.
    if (const QString why = FileTrust::whyUntrusted(folder); !why.isEmpty()) {
        qCCritical(lcCorbeth).noquote() << "plugin dir refused:" << why;
        return CBEnum::EC_FileNotOpen;
    }

    const QFileInfoList entries =
        dir.entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo &entry : entries) {
        if (const QString why = FileTrust::whyUntrusted(entry.absoluteFilePath()); !why.isEmpty()) {
            qCCritical(lcCorbeth).noquote() << "plugin refused:" << why;
            continue;
        }
        QPluginLoader loader(entry.absoluteFilePath());
        qCDebug(lcCorbeth) << "vl dll" << entry.absoluteFilePath();
        const QJsonObject metaData = loader.metaData().value(QStringLiteral("MetaData")).toObject();
        const QString name = metaData.value(QStringLiteral("name")).toString();
        const QString version = metaData.value(QStringLiteral("version")).toString();
        // A second plug-in of the same name would make requests ambiguous.
        if (name.isEmpty() || version.isEmpty() || m_plugins.contains(name)) {
            qCCritical(lcCorbeth) << "name repetition or version error" << name << version;
            continue;
        }
        QObject *plugin = loader.instance();
        if (!plugin) {
            qCCritical(lcCorbeth) << "loader fail" << entry.fileName() << loader.errorString();
            continue;
        }
        const QMetaObject *meta = plugin->metaObject();
        if (meta->indexOfSignal(finishedSignature) < 0 || meta->indexOfMethod(applySignature) < 0) {
            qCCritical(lcCorbeth) << "plugin error,func apply" << entry.fileName();
            continue;
        }
        qCInfo(lcCorbeth) << "success plugin" << entry.fileName();
        if (plugin->thread() == QThread::currentThread()) {
            qCDebug(lcCorbeth) << " moveeeee thread";
            connect(&m_thread, &QThread::finished, plugin, &QObject::deleteLater);
            plugin->moveToThread(&m_thread);
        }
        m_plugins.insert(name, plugin);
    }
    m_thread.start(QThread::InheritPriority);
    return CBEnum::EC_NoError;
}

CBEnum::ErrorCode PluginHelper::requestPlugin(const QString &name, const QVariantMap &params, QString &ID)
{
    QObject *plugin = m_plugins.value(name);
    if (!plugin) {
        qCCritical(lcCorbeth) << "name is not exist" << name;
        return CBEnum::EC_RequestNameNotExist;
    }
    qCDebug(lcCorbeth) << "request plg" << name;
    const QMetaObject *meta = plugin->metaObject();
    const QMetaMethod apply = meta->method(meta->indexOfMethod(applySignature));
    const QMetaMethod finished = meta->method(meta->indexOfSignal(finishedSignature));
    const QMetaMethod relay =
        metaObject()->method(metaObject()->indexOfSlot("onPluginFinished(QVariantMap,QString)"));
    if (!apply.isValid() || !finished.isValid() || !relay.isValid())
        qCCritical(lcCorbeth) << "plugin func error" << name;

    connect(plugin, finished, this, relay, Qt::UniqueConnection);
    ID = QUuid::createUuid().toString();
    if (!apply.invoke(plugin, Qt::QueuedConnection, Q_ARG(QVariantMap, params), Q_ARG(QString, ID)))
        qCCritical(lcCorbeth) << "request plugin  method fail" << name;
    return CBEnum::EC_NoError;
}

void PluginHelper::onPluginFinished(const QVariantMap &prarams, const QString &ID)
{
    QObject *plugin = sender();
    if (!plugin) {
        qCCritical(lcCorbeth) << Q_FUNC_INFO << "sender is null";
        return;
    }
    for (auto it = m_plugins.cbegin(); it != m_plugins.cend(); ++it) {
        if (it.value() == plugin) {
            qCDebug(lcCorbeth) << "plugin finished" << it.key() << prarams << ID;
            emit pluginFinished(it.key(), prarams, ID);
            return;
        }
    }
    qCCritical(lcCorbeth) << "sender name not exist";
}

} // namespace Corbeth
