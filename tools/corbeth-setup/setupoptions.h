#ifndef CORBETH_SETUP_SETUPOPTIONS_H
#define CORBETH_SETUP_SETUPOPTIONS_H

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace Corbeth {

// The installer's command line.
struct SetupOptions
{
    enum Mode { Install, Uninstall, Update };

    Mode mode = Install;
    QString configFile;
    // Where a ".tolmpkg" is looked for; one found there means an offline install.
    QString packageDir;
    bool silent = false;
    QString path;
    QStringList additions;
    bool additionsGiven = false;

    // Parses arguments (with the program name first). On a usage error returns
    // false with the message in error; --help and --version print and set exitNow.
    bool parse(const QStringList &arguments, QString &error, bool &exitNow);
};

} // namespace Corbeth

#endif // CORBETH_SETUP_SETUPOPTIONS_H
