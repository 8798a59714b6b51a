#ifndef VINDAL_STATESTORE_P_H
#define VINDAL_STATESTORE_P_H

#include <QtCore/QString>

namespace Vindal {

// The client's own small persistent state: per module the highest version it
// has delivered (the downgrade protection's high-water mark). One JSON file,
// by default "vindal/state.json" under the user's data folder; the
// environment variable VINDAL_STATE_FILE names another file.
class StateStore
{
public:
    static QString path();
    static QString highWater(const QString &module);
    // Raises the mark to version when that is higher; false when the file
    // cannot be written.
    static bool raise(const QString &module, const QString &version);
};

} // namespace Vindal

#endif // VINDAL_STATESTORE_P_H
