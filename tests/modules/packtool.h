#ifndef CORBETH_TEST_PACKTOOL_H
#define CORBETH_TEST_PACKTOOL_H

#include <QtCore/QString>
#include <QtCore/QStringList>

// Runs corbeth-pack as a real process, for the tests of the tool and of the
// module service adapter. Trees, nginx and the fault server come from the
// library's test support (vindaltest.h).
class PackTool
{
public:
    struct Run
    {
        int exitCode = -1;
        QString out;
        QString err;
    };

    static Run run(const QStringList &arguments);

    // A small tree of real files: nested folders, an empty folder, an empty
    // file, a non-ASCII name and a file of several MiB.
    static bool makeTree(const QString &folder);
    static QString md5Of(const QString &file);
};

#endif // CORBETH_TEST_PACKTOOL_H
