#ifndef CORBETH_ROLLOUTBUCKET_H
#define CORBETH_ROLLOUTBUCKET_H

#include <QtCore/QString>

namespace Corbeth {

// This machine's place in every staged rollout of the module service: a
// random number drawn once and kept in the settings store, value
// "rolloutBucket" under HKEY_LOCAL_MACHINE\SOFTWARE\Arvenor\TolmInstaller (or
// the same key of the user's hive where the machine's cannot be written).
// The adapter hands it to the service with the configuration; it is never
// sent anywhere, so a repository cannot tell which clients it reached.
class RolloutBucket
{
public:
    static quint32 value();

    static const QString &valueName();
};

} // namespace Corbeth

#endif // CORBETH_ROLLOUTBUCKET_H
