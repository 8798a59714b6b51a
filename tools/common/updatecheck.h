#ifndef CORBETH_TOOLS_UPDATECHECK_H
#define CORBETH_TOOLS_UPDATECHECK_H

#include <corbeth/manager.h>

#include <QtCore/QJsonObject>
#include <QtCore/QString>

namespace Corbeth {

// What the repository offers this client now, channel and rollout applied:
// the answer of `corbeth check`, and what `corbeth update` and the installer
// window's update ask before they download anything.
struct UpdateCheck
{
    CBEnum::ErrorCode error = CBEnum::EC_NoError;
    QString current;    // the version delivered here before; empty when none
    QString channel;
    QString available;  // the newest version offered, newer than current; empty when up to date
    qint64 size = -1;
    qint64 deltaSize = -1; // -1: the index lists no delta from current

    bool isUpToDate() const { return error == CBEnum::EC_NoError && available.isEmpty(); }

    // Asks through the manager, which initRemote() has configured.
    static UpdateCheck ask(Manager &manager);

    // One line for a person: "already up to date: 2.0 (channel stable)" or
    // "2.1 is available (12.0 MiB, delta 1.1 MiB) ...".
    QString text() const;
    QJsonObject toJson() const;
};

} // namespace Corbeth

#endif // CORBETH_TOOLS_UPDATECHECK_H
