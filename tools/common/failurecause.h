#ifndef CORBETH_TOOLS_FAILURECAUSE_H
#define CORBETH_TOOLS_FAILURECAUSE_H

#include <corbeth/cbenum.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace Corbeth {

// Why a task failed, in words. The engine reports a failure as a code through
// errorOccurred; what went wrong (a folder that cannot be created, an index
// signed with another key, a missing cleanup tool) is in the line the engine
// or the repository client logs with it. This listens to those lines, whether
// or not they are shown, and keeps the last cause and every warning about the
// configuration's values.
class FailureCause
{
public:
    // Installs the listener once; the engine's lines reach the handler
    // installed before only when passOn is set.
    static void listen(bool passOn);
    // Forgets the causes heard so far (a new task starts).
    static void reset();
    // The cause of the latest failure, empty when none was logged.
    static QString text();
    // The documented exit code of a failure: the engine's own code's unless
    // the cause tells a more precise one (see docs/cli.md).
    static int exitCode(CBEnum::ErrorCode code);
    // The engine's warnings about values of the configuration it converted or
    // skipped since the last call.
    static QStringList takeConfigWarnings();
};

} // namespace Corbeth

#endif // CORBETH_TOOLS_FAILURECAUSE_H
