#ifndef CORBETH_TEST_PACKTOOL_H
#define CORBETH_TEST_PACKTOOL_H

#include <QtCore/QString>
#include <QtCore/QStringList>

// Runs corbeth-pack as a real process and makes and compares file trees, for
// the tests of the tool and of the module service adapter.
class PackTool
{
public:
    struct Run
    {
        int exitCode = -1;
        QString out;
        QString err;
    };

    static QString program();
    static Run run(const QStringList &arguments);

    // A small tree of real files: nested folders, an empty folder, an empty
    // file, binary content and a file of several MiB.
    static bool makeTree(const QString &folder);
    // Empty when both trees hold the same folders and byte-identical files;
    // otherwise the first difference.
    static QString compareTrees(const QString &expected, const QString &actual);
    static QString md5Of(const QString &file);

    // A folder served over http by the nginx of the library's test fixture:
    // false when the fixture is not running.
    static bool servedFolder(const QString &name, QString *folder, QString *url);
};

#endif // CORBETH_TEST_PACKTOOL_H
