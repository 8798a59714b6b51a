#include "rolloutbucket.h"

#include "logging_p.h"
#include "platform/skglobal.h"

#include <QtCore/QRandomGenerator>

namespace Corbeth {

namespace {

// The machine's store first: every user of the machine takes part in a
// rollout as one client. An unelevated engine that cannot write it keeps the
// number in its user's store, so it still draws only once.
const QString kStores[] = {QStringLiteral("HKEY_LOCAL_MACHINE\\SOFTWARE\\Arvenor\\TolmInstaller"),
                           QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller")};

bool read(const QString &store, quint32 *bucket)
{
    bool ok = false;
    // Kept as text: the registry and the INI files hold it alike.
    const qulonglong stored = SKGlobal::instance()->settingValue(store, RolloutBucket::valueName()).toString().toULongLong(&ok);
    if (!ok || stored > 0xffffffffULL)
        return false;
    *bucket = quint32(stored);
    return true;
}

} // namespace

const QString &RolloutBucket::valueName()
{
    static const QString name = QStringLiteral("rolloutBucket");
    return name;
}

quint32 RolloutBucket::value()
{
    quint32 bucket = 0;
    for (const QString &store : kStores) {
        if (read(store, &bucket))
            return bucket;
    }
    const quint32 drawn = QRandomGenerator::system()->generate();
    for (const QString &store : kStores) {
        SKGlobal::instance()->setSettingValue(store, valueName(), QString::number(drawn));
        // Read back: the store that kept it is the one later runs find first.
        if (read(store, &bucket))
            return bucket;
    }
    qCWarning(lcCorbeth) << "rollout bucket cannot be stored; this run takes a place of its own";
    return drawn;
}

} // namespace Corbeth
