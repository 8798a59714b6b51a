#include "manager/ptrmanager.h"

#include "config/configer.h"
#include "installer/installer.h"
#include "modules/vindaler.h"
#include "plugins/pluginhelper.h"

#include <QtCore/QAtomicPointer>
#include <QtCore/QMutex>

namespace Corbeth {

namespace {
QAtomicPointer<PtrManager> s_instance;
QMutex s_instanceMutex;
} // namespace

PtrManager *PtrManager::instance()
{
    PtrManager *workers = s_instance.loadAcquire();
    if (!workers) {
        QMutexLocker lock(&s_instanceMutex);
        workers = s_instance.loadAcquire();
        if (!workers) {
            workers = new PtrManager;
            s_instance.storeRelease(workers);
        }
    }
    return workers;
}

void PtrManager::destroyInstance()
{
    QMutexLocker lock(&s_instanceMutex);
    delete s_instance.fetchAndStoreOrdered(nullptr);
}

PtrManager::PtrManager()
    : QObject(nullptr)
{
    // The module service adapter first: it starts its own thread.
    m_vindaler.reset(new Vindaler);
    m_configer.reset(new Configer);
    m_installer.reset(new Installer);
    m_pluginHelper.reset(new PluginHelper);
    connect(m_configer.data(), &Configer::configDataChanged, m_installer.data(), &Installer::onConfigDataChanged);
}

PtrManager::~PtrManager()
{
    m_pluginHelper.reset();
    m_installer.reset();
    m_vindaler.reset();
    m_configer.reset();
}

} // namespace Corbeth
