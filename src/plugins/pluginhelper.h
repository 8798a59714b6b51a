#ifndef CORBETH_PLUGINHELPER_H
#define CORBETH_PLUGINHELPER_H

#include <corbeth/cbenum.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QThread>
#include <QtCore/QVariantMap>

namespace Corbeth {

// Loads the Qt plug-ins of a folder, runs every plug-in object on one worker
// thread, passes requests to a plug-in by name and relays its answers.
//
// A plug-in's metadata holds "MetaData" with the strings "name" and "version";
// its root object has the signal finished(QVariantMap,QString) and the
// invokable CB_apply(QVariantMap,QString). Both carry the request's id.
class PluginHelper : public QObject
{
    Q_OBJECT
public:
    explicit PluginHelper(QObject *parent = nullptr);
    // Ends the worker thread; the plug-in objects are deleted on it as it ends.
    ~PluginHelper() override;

    // Loads once: after a pass that registered a plug-in, later calls do
    // nothing. Returns EC_FileNotOpen when the folder does not exist or
    // others could change it (see FileTrust); a library others could change
    // is skipped.
    CBEnum::ErrorCode initPluginLoader(const QString &folder);
    CBEnum::ErrorCode requestPlugin(const QString &name, const QVariantMap &params, QString &ID);

    QStringList pluginNames() const { return m_plugins.keys(); }

signals:
    void pluginFinished(const QString &name, const QVariantMap &prarams, const QString &ID);

public slots:
    void onPluginFinished(const QVariantMap &prarams, const QString &ID);

private:
    QMap<QString, QObject *> m_plugins;
    QThread m_thread;
};

} // namespace Corbeth

#endif // CORBETH_PLUGINHELPER_H
