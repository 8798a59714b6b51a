#ifndef CORBETH_SETUP_SINGLEINSTANCE_H
#define CORBETH_SETUP_SINGLEINSTANCE_H

#include <QtCore/QObject>
#include <QtCore/QString>

class QLocalServer;

namespace Corbeth {

// One installer per product and user: the first start listens on a local
// socket named after the configuration, a later start only asks it to come to
// the front and ends.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    explicit SingleInstance(const QString &configFile, QObject *parent = nullptr);

    // True when this process is the first; false after a running one was asked
    // to come to the front.
    bool claim();
    QString serverName() const { return m_name; }

signals:
    void activationRequested();

private:
    bool askRunning();

    QString m_name;
    QLocalServer *m_server = nullptr;
};

} // namespace Corbeth

#endif // CORBETH_SETUP_SINGLEINSTANCE_H
