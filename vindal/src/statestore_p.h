#ifndef VINDAL_STATESTORE_P_H
#define VINDAL_STATESTORE_P_H

#include "keystatement_p.h"

#include <vindal/outcome.h>

#include <QtCore/QString>

#include <functional>

class QJsonObject;

namespace Vindal {

// The client's own small persistent state: per repository and module the
// highest version it has delivered (the downgrade protection's high-water
// mark), and per repository the newest key statement it has accepted. One JSON file, by default "vindal/state.json" under the user's data
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

    // The newest key statement accepted for the repository; *statement is
    // left as it is when there is none.
    static Outcome keyStatement(const QString &repository, KeyStatement *statement);
    // Keeps statement when it is newer than the one kept: a repository or
    // mirror serving older statements again cannot bring back a retired key.
    static Outcome keepKeyStatement(const QString &repository, const KeyStatement &statement);

private:
    // Reads the file under its lock.
    static Outcome read(QJsonObject *root);
    // Reads, changes and writes the file under its lock; apply names what it
    // changed, or returns an empty text when nothing needs writing.
    static Outcome change(const std::function<QString(QJsonObject *root)> &apply);
};

} // namespace Vindal

#endif // VINDAL_STATESTORE_P_H
