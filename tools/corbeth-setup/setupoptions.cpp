#include "setupoptions.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>

namespace Corbeth {

bool SetupOptions::parse(const QStringList &arguments, QString &error, bool &exitNow)
{
    exitNow = false;
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Installs, updates or uninstalls the product its configuration describes.\n"
        "Examples:\n"
        "  corbeth-setup                              the install wizard\n"
        "  corbeth-setup --silent --path /opt/app     install without a window\n"
        "  corbeth-setup --uninstall"));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const QCommandLineOption config(QStringLiteral("config"),
                                    QStringLiteral("The product's configuration (default: corbeth.json beside the program)."),
                                    QStringLiteral("file"));
    const QCommandLineOption from(QStringLiteral("from"),
                                  QStringLiteral("Folder searched for an offline package (default: the program's folder)."),
                                  QStringLiteral("dir"));
    const QCommandLineOption uninstall(QStringLiteral("uninstall"), QStringLiteral("Uninstall the product."));
    const QCommandLineOption update(QStringLiteral("update"), QStringLiteral("Update the installed product."));
    const QCommandLineOption silent(QStringLiteral("silent"), QStringLiteral("Work without a window; the exit code tells the result."));
    const QCommandLineOption path(QStringLiteral("path"), QStringLiteral("The install folder."), QStringLiteral("dir"));
    const QCommandLineOption addition(QStringLiteral("addition"),
                                      QStringLiteral("Install this addition too (may be repeated)."), QStringLiteral("name"));
    parser.addOptions({config, from, uninstall, update, silent, path, addition});

    if (!parser.parse(arguments)) {
        error = parser.errorText();
        return false;
    }
    if (parser.isSet(help) || parser.isSet(version)) {
        exitNow = true;
        if (parser.isSet(help))
            parser.showHelp(0);
        parser.showVersion();
    }
    if (!parser.positionalArguments().isEmpty()) {
        error = QStringLiteral("unexpected argument: %1").arg(parser.positionalArguments().first());
        return false;
    }
    if (parser.isSet(uninstall) && parser.isSet(update)) {
        error = QStringLiteral("--uninstall and --update cannot be combined");
        return false;
    }
    mode = parser.isSet(uninstall) ? Uninstall : parser.isSet(update) ? Update : Install;
    const QString appDir = QCoreApplication::applicationDirPath();
    configFile = parser.isSet(config) ? parser.value(config) : QDir(appDir).filePath(QStringLiteral("corbeth.json"));
    packageDir = parser.isSet(from) ? parser.value(from) : appDir;
    this->silent = parser.isSet(silent);
    this->path = parser.isSet(path) ? QDir::cleanPath(QDir::current().absoluteFilePath(parser.value(path))) : QString();
    additions = parser.values(addition);
    additionsGiven = parser.isSet(addition);
    return true;
}

} // namespace Corbeth
