#ifndef VINDAL_MANAGER_P_H
#define VINDAL_MANAGER_P_H

#include <vindal/manager.h>

#include <QtCore/QMutex>

namespace Vindal {

class ManagerPrivate
{
public:
    explicit ManagerPrivate(Manager *q) : q(q) {}

    Manager *q;
    mutable QMutex packageInfoMutex;
    QVariantMap packageInfo;
};

} // namespace Vindal

#endif // VINDAL_MANAGER_P_H
