#ifndef DISKINFOPLUGIN_H
#define DISKINFOPLUGIN_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

// A plug-in a product can ship beside its installer: for a requested path it
// reports the free and total space of the volume that holds (or would hold) it
// and the operating system, so a client can check the install target before
// it starts.
//
// Request:  {"path": "<folder, need not exist yet>"}
// Answer:   {"path", "rootPath", "fileSystem", "freeBytes", "totalBytes",
//            "readOnly", "os", "kernel", "kernelVersion", "architecture"}
//           or {"path", "error": "<reason>"}
class DiskInfoPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Corbeth.Plugin/1.0" FILE "diskinfo.json")
public:
    Q_INVOKABLE void CB_apply(const QVariantMap &params, const QString &id);

signals:
    void finished(const QVariantMap &result, const QString &id);
};

#endif // DISKINFOPLUGIN_H
