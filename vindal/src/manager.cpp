#include "manager_p.h"
#include "reply_p.h"

#include <QtCore/QMutexLocker>

namespace Vindal {

namespace {
Reply *notYet(Manager *manager)
{
    auto *reply = new Reply;
    ReplyPrivate::channel(reply)->finishLater(manager, Error::ConfigError, QStringLiteral("not implemented yet"));
    return reply;
}
} // namespace

Manager::Manager(QObject *parent)
    : QObject(parent)
    , d(new ManagerPrivate(this))
{
}

Manager::~Manager()
{
    delete d;
}

Reply *Manager::setConfigPath(const QString &)
{
    return notYet(this);
}

Reply *Manager::setConfigData(const QVariantMap &)
{
    return notYet(this);
}

Reply *Manager::downloadModule(const QString &, const VDBasicInfo &)
{
    return notYet(this);
}

Reply *Manager::downloadOfflineModule(const QString &, const VDBasicInfo &)
{
    return notYet(this);
}

void Manager::loadOfflinePackage(Reply *reply, const QString &, const QString &)
{
    if (reply)
        ReplyPrivate::channel(reply)->finishLater(this, Error::ConfigError, QStringLiteral("not implemented yet"));
}

Reply *Manager::checkUpgrade(const QString &, const QString &, const QString &, const QString &, const QString &,
                             const QString &, int, const QStringList &, const QStringList &)
{
    return notYet(this);
}

Reply *Manager::startUpgrade(const QString &, const QString &, PackageType)
{
    return notYet(this);
}

QVariantMap Manager::packageInfo() const
{
    QMutexLocker lock(&d->packageInfoMutex);
    return d->packageInfo;
}

} // namespace Vindal
