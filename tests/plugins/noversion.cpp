// Meets the contract in code, but its metadata has no "version".
#include <QtCore/QObject>
#include <QtCore/QVariantMap>

class NoVersionPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Corbeth.Plugin/1.0" FILE "noversion.json")
public:
    Q_INVOKABLE void CB_apply(const QVariantMap &params, const QString &id) { emit finished(params, id); }
signals:
    void finished(const QVariantMap &result, const QString &id);
};

#include "noversion.moc"
