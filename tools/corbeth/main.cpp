// corbeth: installs, updates, patches and uninstalls a product from a shell or
// a CI pipeline. It uses the engine only through the public Manager, as a
// product maker's own client would. docs/cli.md describes every command.
#include "command.h"
#include "exitcodes.h"
#include "failurecause.h"
#include "reporter.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

// The first Ctrl-C asks the running task to end; a second one ends at once.
extern "C" void onInterrupt(int)
{
    if (g_interrupted)
        std::_Exit(CorbethExit::Cancelled);
    g_interrupted = 1;
}

struct Subcommand
{
    const char *name;
    const char *synopsis;
    const char *examples;
};

const Subcommand kCommands[] = {
    {"install", "--config <file> --path <dir> [--addition <name>]... [--force] [--remove-older] [--package <file> | --from <dir>]",
     "corbeth install --config product.json --path /opt/product\n"
     "  corbeth install --config product.json --path /opt/product --addition samples --from /media/usb"},
    {"update", "--config <file> [--path <dir>] [--package <file> | --from <dir>]",
     "corbeth update --config product.json --path /opt/product"},
    {"patch", "--config <file> [--path <dir>]", "corbeth patch --config product.json --path /opt/product"},
    {"uninstall", "--config <file> [--path <dir>] [--flow <name>]",
     "corbeth uninstall --config product.json --path /opt/product"},
    {"check", "--config <file>", "corbeth check --config product.json && echo up to date"},
    {"download", "--config <file> --path <dir>", "corbeth download --config product.json --path /media/usb"},
    {"verify", "<package>", "corbeth verify product-2.0.tolmpkg"},
    {"search", "<dir>", "corbeth search /media/usb"},
    {"self-update", "--config <file>", "corbeth self-update --config product.json"},
    {"hardware", "", "corbeth hardware --json"},
    {"plugin", "<name> --config <file> [--param key=value]...",
     "corbeth plugin diskinfo --config product.json --param path=/opt"},
};

QString usage()
{
    QString text = QStringLiteral("Usage: corbeth <command> [options] [--json] [--verbose]\n\nCommands:\n");
    for (const Subcommand &subcommand : kCommands)
        text += QStringLiteral("  %1 %2\n").arg(QLatin1String(subcommand.name), -11).arg(QLatin1String(subcommand.synopsis));
    text += QStringLiteral("\nRun 'corbeth <command> --help' for the options of one command and examples.\n"
                           "Exit codes: 0 done, 2 wrong usage, 10-28 one per failure, 100 an update is available (check),\n"
                           "130 interrupted (docs/cli.md).\n");
    return text;
}

int usageError(const QString &message)
{
    std::fprintf(stderr, "corbeth: %s (see corbeth --help)\n", qPrintable(message));
    return CorbethExit::Usage;
}

bool takes(const Subcommand &subcommand, const QByteArray &option)
{
    return QByteArray(subcommand.synopsis).contains(option);
}

// Fills the options of one command; false with a message on a wrong command line.
bool parse(const Subcommand &subcommand, const QStringList &arguments, Command::Options &options, bool &json, bool &verbose,
           QString &error, bool &help)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("corbeth %1 %2\n\nExample:\n  %3")
                                         .arg(QLatin1String(subcommand.name), QLatin1String(subcommand.synopsis),
                                              QLatin1String(subcommand.examples)));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Shows this help."));
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("One JSON event per line on standard output."));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"), QStringLiteral("Shows the engine's log lines."));
    const QCommandLineOption config(QStringLiteral("config"), QStringLiteral("The product's configuration file."), QStringLiteral("file"));
    const QCommandLineOption path(QStringLiteral("path"), QStringLiteral("The install folder (download: the target folder)."), QStringLiteral("dir"));
    const QCommandLineOption addition(QStringLiteral("addition"), QStringLiteral("An addition to install as well; repeatable."), QStringLiteral("name"));
    const QCommandLineOption force(QStringLiteral("force"), QStringLiteral("Installs over what is there."));
    const QCommandLineOption removeOlder(QStringLiteral("remove-older"), QStringLiteral("Removes an older installed version first."));
    const QCommandLineOption package(QStringLiteral("package"), QStringLiteral("An offline package (with its .verify beside it)."), QStringLiteral("file"));
    const QCommandLineOption from(QStringLiteral("from"), QStringLiteral("Takes the newest valid package in this folder."), QStringLiteral("dir"));
    const QCommandLineOption flow(QStringLiteral("flow"), QStringLiteral("The configuration's operation to run (default uninstall)."), QStringLiteral("name"));
    const QCommandLineOption param(QStringLiteral("param"), QStringLiteral("A parameter of the plug-in; repeatable."), QStringLiteral("key=value"));
    const QCommandLineOption retries(QStringLiteral("retry-rounds"),
                                     QStringLiteral("Rounds of download retries before giving up (default 3, 0: the configuration's)."),
                                     QStringLiteral("n"));
    parser.addOptions({helpOption, jsonOption, verboseOption});
    const bool downloads = QByteArrayList{"install", "update", "check", "download", "self-update"}.contains(subcommand.name);
    for (const auto &option : {config, path, addition, force, removeOlder, package, from, flow, param}) {
        if (takes(subcommand, "--" + option.names().constFirst().toLatin1()))
            parser.addOption(option);
    }
    if (downloads)
        parser.addOption(retries);
    if (!parser.parse(arguments)) {
        error = parser.errorText();
        return false;
    }
    if (parser.isSet(helpOption)) {
        help = true;
        QString text = parser.helpText();
        text.replace(0, text.indexOf(QLatin1Char('\n')), QStringLiteral("Usage: corbeth %1 [options]").arg(QLatin1String(subcommand.name)));
        std::fprintf(stdout, "%s", qPrintable(text));
        return true;
    }
    json = parser.isSet(jsonOption);
    verbose = parser.isSet(verboseOption);
    options.name = QLatin1String(subcommand.name);
    const auto value = [&parser](const QCommandLineOption &option) {
        return parser.optionNames().contains(option.names().constFirst()) ? parser.value(option) : QString();
    };
    options.config = value(config);
    options.path = value(path);
    options.package = value(package);
    options.from = value(from);
    if (!value(flow).isEmpty())
        options.flow = value(flow);
    options.force = parser.optionNames().contains(force.names().constFirst());
    options.removeOlder = parser.optionNames().contains(removeOlder.names().constFirst());
    if (parser.optionNames().contains(addition.names().constFirst()))
        options.additions = parser.values(addition);
    if (parser.optionNames().contains(param.names().constFirst())) {
        for (const QString &pair : parser.values(param)) {
            const int equals = pair.indexOf(QLatin1Char('='));
            if (equals <= 0) {
                error = QStringLiteral("--param wants key=value, not \"%1\"").arg(pair);
                return false;
            }
            options.params.insert(pair.left(equals), pair.mid(equals + 1));
        }
    }
    if (!value(retries).isEmpty()) {
        bool ok = false;
        options.retryRounds = value(retries).toInt(&ok);
        if (!ok || options.retryRounds < 0) {
            error = QStringLiteral("--retry-rounds wants a number from 0 up");
            return false;
        }
    }
    if (!options.package.isEmpty() && !options.from.isEmpty()) {
        error = QStringLiteral("--package and --from exclude each other");
        return false;
    }
    const bool wantsArgument = QByteArray(subcommand.synopsis).startsWith('<');
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != (wantsArgument ? 1 : 0)) {
        error = wantsArgument ? QStringLiteral("%1 wants one %2").arg(QLatin1String(subcommand.name), QString::fromLatin1(subcommand.synopsis).section(QLatin1Char(' '), 0, 0))
                              : QStringLiteral("unexpected argument \"%1\"").arg(positional.value(0));
        return false;
    }
    options.argument = positional.value(0);
    if (takes(subcommand, "--config") && options.config.isEmpty()) {
        error = QStringLiteral("%1 wants --config <file>").arg(QLatin1String(subcommand.name));
        return false;
    }
    if ((options.name == QLatin1String("install") || options.name == QLatin1String("download")) && options.path.isEmpty()) {
        error = QStringLiteral("%1 wants --path <dir>").arg(QLatin1String(subcommand.name));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corbeth"));
    QCoreApplication::setApplicationVersion(QStringLiteral(CORBETH_CLI_VERSION));

    QStringList arguments = QCoreApplication::arguments();
    const QString name = arguments.value(1);
    if (name.isEmpty() || name == QLatin1String("--help") || name == QLatin1String("-h")) {
        std::fprintf(name.isEmpty() ? stderr : stdout, "%s", qPrintable(usage()));
        return name.isEmpty() ? CorbethExit::Usage : CorbethExit::Success;
    }
    if (name == QLatin1String("--version")) {
        std::fprintf(stdout, "corbeth %s\n", CORBETH_CLI_VERSION);
        return CorbethExit::Success;
    }
    const Subcommand *subcommand = nullptr;
    for (const Subcommand &candidate : kCommands) {
        if (name == QLatin1String(candidate.name))
            subcommand = &candidate;
    }
    if (!subcommand)
        return usageError(QStringLiteral("unknown command \"%1\"").arg(name));
    arguments.removeAt(1);

    Command::Options options;
    bool json = false;
    bool verbose = false;
    bool help = false;
    QString error;
    if (!parse(*subcommand, arguments, options, json, verbose, error, help))
        return usageError(error);
    if (help)
        return CorbethExit::Success;

    // The engine's log lines go to standard error, and only when asked for.
    // The warnings and critical lines are always heard: they name the cause of a failure.
    QLoggingCategory::setFilterRules(verbose ? QStringLiteral("corbeth.lib.debug=true")
                                             : QStringLiteral("corbeth.lib.debug=false\ncorbeth.lib.info=false"));
    Corbeth::FailureCause::listen(verbose);

    Reporter reporter(Reporter::pick(json));
    Command command(options, &reporter);
    int exitCode = CorbethExit::Failure;
    QObject::connect(&command, &Command::done, &app, [&exitCode](int code) {
        exitCode = code;
        QCoreApplication::exit(0);
    });
    std::signal(SIGINT, onInterrupt);
    QTimer interrupts;
    QObject::connect(&interrupts, &QTimer::timeout, &command, [&command] {
        if (g_interrupted)
            command.cancel();
    });
    interrupts.start(50);
    command.start();
    QCoreApplication::exec();
    return exitCode;
}
