#include "updatecheck.h"

#include "formatbytes.h"

#include <QtCore/QCoreApplication>

namespace Corbeth {

UpdateCheck UpdateCheck::ask(Manager &manager)
{
    UpdateCheck check;
    QVariantMap info;
    check.error = manager.checkUpdate(info);
    check.current = info.value(QStringLiteral("current")).toString();
    check.channel = info.value(QStringLiteral("channel")).toString();
    // The newest offered comes first.
    const QVariantMap newest = info.value(QStringLiteral("upgrades")).toList().value(0).toMap();
    check.available = newest.value(QStringLiteral("version")).toString();
    check.size = newest.value(QStringLiteral("size"), -1).toLongLong();
    check.deltaSize = newest.value(QStringLiteral("deltaSize"), -1).toLongLong();
    return check;
}

QString UpdateCheck::text() const
{
    const QString installed = current.isEmpty() ? QCoreApplication::translate("UpdateCheck", "none delivered yet") : current;
    if (available.isEmpty())
        return QCoreApplication::translate("UpdateCheck", "already up to date: %1 (channel %2)").arg(installed, channel);
    const QString delta = deltaSize >= 0 ? QCoreApplication::translate("UpdateCheck", ", delta %1").arg(formatBytes(deltaSize)) : QString();
    return QCoreApplication::translate("UpdateCheck", "%1 is available (%2%3); installed: %4 (channel %5)")
        .arg(available, formatBytes(size), delta, installed, channel);
}

QJsonObject UpdateCheck::toJson() const
{
    QJsonObject object{{QStringLiteral("installed"), current},
                       {QStringLiteral("channel"), channel},
                       {QStringLiteral("updateAvailable"), !available.isEmpty()}};
    if (!available.isEmpty()) {
        object.insert(QStringLiteral("available"), available);
        object.insert(QStringLiteral("size"), double(size));
        object.insert(QStringLiteral("deltaSize"), double(deltaSize));
    }
    return object;
}

} // namespace Corbeth
