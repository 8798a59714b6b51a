// Has the finished signal but no invokable CB_apply.
#include <QtCore/QObject>
#include <QtCore/QVariantMap>

class NoApplyPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Corbeth.Plugin/1.0" FILE "noapply.json")
public:
    void CB_apply(const QVariantMap &params, const QString &id) { emit finished(params, id); }
signals:
    void finished(const QVariantMap &result, const QString &id);
};

#include "noapply.moc"
