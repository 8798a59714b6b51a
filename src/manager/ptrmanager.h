#ifndef CORBETH_PTRMANAGER_H
#define CORBETH_PTRMANAGER_H

#include <QtCore/QObject>
#include <QtCore/QSharedPointer>

namespace Corbeth {

class Configer;
class Installer;
class PluginHelper;
class Vindaler;

// The process-wide owner of the engine's workers. The workers are shared with
// the manager's private implementation, which destroys this owner when it is
// destroyed so that the next manager starts with fresh workers.
class PtrManager : public QObject
{
    Q_OBJECT
public:
    // Made on first use; concurrent first calls make one instance.
    static PtrManager *instance();
    static void destroyInstance();

    QSharedPointer<Configer> configer() const { return m_configer; }
    QSharedPointer<Vindaler> vindaler() const { return m_vindaler; }
    QSharedPointer<Installer> installer() const { return m_installer; }
    QSharedPointer<PluginHelper> pluginHelper() const { return m_pluginHelper; }

private:
    PtrManager();
    ~PtrManager() override;

    QSharedPointer<Configer> m_configer;
    QSharedPointer<Vindaler> m_vindaler;
    QSharedPointer<Installer> m_installer;
    QSharedPointer<PluginHelper> m_pluginHelper;
};

} // namespace Corbeth

#endif // CORBETH_PTRMANAGER_H
