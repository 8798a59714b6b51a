// Has CB_apply but answers through a signal of another name.
#include <QtCore/QObject>
#include <QtCore/QVariantMap>

class NoFinishedPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Corbeth.Plugin/1.0" FILE "nofinished.json")
public:
    Q_INVOKABLE void CB_apply(const QVariantMap &params, const QString &id) { emit done(params, id); }
signals:
    void done(const QVariantMap &result, const QString &id);
};

#include "nofinished.moc"
