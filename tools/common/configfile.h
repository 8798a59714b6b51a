#ifndef CORBETH_TOOLS_CONFIGFILE_H
#define CORBETH_TOOLS_CONFIGFILE_H

#include <QtCore/QString>

namespace Corbeth {

// The checks the tools make on a configuration file before the engine reads
// it: the engine tells only that it could not, the user needs to know what to
// fix.
class ConfigFile
{
public:
    // Empty when path holds a JSON object with settings; otherwise what is
    // wrong ("is not valid JSON at line 3, column 7: ..."), and exitCode
    // tells a missing file (15), an unreadable one (27) and a bad document (20).
    static QString problem(const QString &path, int &exitCode);
};

} // namespace Corbeth

#endif // CORBETH_TOOLS_CONFIGFILE_H
