#ifndef VINDAL_STATESTORE_P_H
#define VINDAL_STATESTORE_P_H

#include <vindal/outcome.h>

#include <QtCore/QString>

#include <functional>

namespace Vindal {

// The client's own small persistent state: per repository and module the
// highest version it has delivered (the downgrade protection's high-water
// mark). One JSON file, by default "vindal/state.json" under the user's data
// folder; the environment variable VINDAL_STATE_FILE names another file.
//
// The protection fails closed: a file that exists but cannot be read or is
// damaged is an error (StateFileError naming the file), never an empty
// state, and it is never overwritten, so no mark is lost.
class StateStore
{
public:
    static QString path();
    // The mark of module in the repository of that identity; empty when
    // there is none.
    static Outcome highWater(const QString &repository, const QString &module, QString *version);
    // Raises the mark to version when that is higher, holding the lock file
    // "<state file>.lock" that every process using the file respects.
    static Outcome raise(const QString &repository, const QString &module, const QString &version);
    // The version of module last unpacked from that repository (a delta
    // update starts from it); empty when unknown or unreadable.
    static QString installed(const QString &repository, const QString &module);
    static Outcome setInstalled(const QString &repository, const QString &module, const QString &version);

private:
    // Sets the value under key/repository/module to what newValue makes of
    // the current one, under the lock.
    static Outcome change(const QString &key, const QString &repository, const QString &module, const QString &what,
                          const std::function<QString(const QString &)> &newValue);
};

} // namespace Vindal

#endif // VINDAL_STATESTORE_P_H
