// corbeth-pack: makes, publishes, checks, unpacks and fetches packages through
// the module service library's own code, so that what a product owner tests by
// hand is exactly what the engine does.
//
// Exit codes: 0 success, 1 the operation failed, 2 the command line is wrong
// (commandline.h).
#include "formatbytes.h"
#include "progressprinter.h"
#include "releasecommands.h"
#include "rotatekey.h"

#include <vindal/manager.h>
#include <vindal/package.h>
#include <vindal/repository.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QLoggingCategory>
#include <QtCore/QUrl>

#include <cstdio>

namespace {

const char *const kUsage =
    "Usage: corbeth-pack <command> [options]\n"
    "\n"
    "Commands:\n"
    "  create <folder> -o <package> [--format zstd|zip|gzip|tar]\n"
    "  publish <package> --repo <folder> --module <name> --version <v> [--channel <name>] [--rollout <percent>]\n"
    "          [--key <secret-key-file>] [--expires <days>] [--deltas <count>]\n"
    "  publish <package> --repo <folder> --model-code <code> --version <v> [--key <secret-key-file>] [--expires <days>]\n"
    "  promote --repo <folder> --module <name> --version <v> --to <channel> [--rollout <percent>] [--key <file>] [--expires <days>]\n"
    "  rollout --repo <folder> --module <name> (--percent <p> | --halt) [--channel <name>] [--version <v>] [--key <file>]\n"
    "          [--expires <days>]\n"
    "  deltas list --repo <folder> --module <name>\n"
    "  deltas prune --repo <folder> --module <name> [--keep <versions>] [--key <secret-key-file>]\n"
    "  keygen <name>\n"
    "  rotate-key --repo <folder> --key <secret-key-file>... [--add <public-key>]... [--retire <public-key>]...\n"
    "        [--threshold <n>] [--expires <days>] [--sign-indexes <secret-key-file>]\n"
    "  verify <package> [--repo <folder> --module <name> [--version <v>] [--public-key <key>]]\n"
    "  extract <package> -C <folder>\n"
    "  fetch --server <url> --module <name> [--version <v>] -o <folder> [--mirror <url>]... [--public-key <key>]\n"
    "        [--stall-timeout <s>] [--deadline <s>] [--ca-file <pem>] [--proxy system|none|<url>]\n"
    "\n"
    "Run 'corbeth-pack <command> --help' for the options of one command.\n";

// The key of --public-key: the base64 text itself or the path of a ".pub"
// file; null when the option is not given. An empty value or an empty file is
// an error, never "no key", which would turn the signature check off.
Vindal::Outcome readPublicKey(const CommandLine &cl, QString *key)
{
    *key = QString();
    if (!cl.isSet(QStringLiteral("public-key")))
        return Vindal::Outcome::success();
    const QString value = cl.value(QStringLiteral("public-key"));
    QFile file(value);
    if (!value.isEmpty() && file.open(QIODevice::ReadOnly)) {
        *key = QString::fromLatin1(file.read(4096)).trimmed();
        if (key->isEmpty())
            return Vindal::Outcome::failure(Vindal::Error::ConfigError,
                                            QStringLiteral("the public key file \"%1\" is empty").arg(value), value);
        return Vindal::Outcome::success();
    }
    if (value.trimmed().isEmpty())
        return Vindal::Outcome::failure(Vindal::Error::ConfigError, QStringLiteral("--public-key is empty"));
    *key = value;
    return Vindal::Outcome::success();
}

int create(const QStringList &arguments)
{
    const QString command = QStringLiteral("create");
    CommandLine cl(command,
                   QStringLiteral("<folder> -o <package>: packs a folder and writes its \".verify\" companion"),
                   "corbeth-pack create stage -o myapp-2.1.0.tolmpkg");
    cl.addValue({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The package file to write."),
                QStringLiteral("package"));
    cl.addValue({QStringLiteral("format")}, QStringLiteral("zstd (tar+zstd, the default), zip, gzip or tar."),
                QStringLiteral("format"));
    int code = ExitSuccess;
    if (!cl.parse(arguments, 1, &code) || !cl.require({QStringLiteral("o")}, &code))
        return code;

    Vindal::Package::Format format = Vindal::Package::TarZstd;
    if (cl.isSet(QStringLiteral("format")) && !Vindal::Package::formatFromName(cl.value(QStringLiteral("format")), &format))
        return cl.usage(QStringLiteral("unknown format \"%1\"").arg(cl.value(QStringLiteral("format"))));
    const QString folder = cl.positional(0);
    if (!QFileInfo(folder).isDir())
        return fail(command, QStringLiteral("not a folder: %1").arg(folder));

    const QString package = cl.value(QStringLiteral("o"));
    ProgressPrinter progress(QFileInfo(package).fileName());
    Vindal::Outcome outcome = Vindal::Package::create(folder, package, format, progress.callback());
    progress.finish();
    if (outcome)
        outcome = Vindal::Package::writeVerifyFile(package);
    if (!outcome)
        return fail(command, outcome);
    printLine(stdout, QStringLiteral("created %1 (%2)").arg(package, formatBytes(QFileInfo(package).size())));
    return ExitSuccess;
}

int report(const QString &command, const Vindal::Outcome &outcome)
{
    if (!outcome)
        return fail(command, outcome);
    if (!outcome.message.isEmpty())
        printLine(stdout, outcome.message);
    return ExitSuccess;
}

int publish(const QStringList &arguments)
{
    const QString command = QStringLiteral("publish");
    CommandLine cl(command, QStringLiteral("<package>: adds a package to a repository folder and updates its index"),
                   "corbeth-pack publish myapp-2.1.0.tolmpkg --repo /srv/repo --module myapp --version 2.1.0 "
                   "--key product.key");
    cl.addValue({QStringLiteral("repo")}, QStringLiteral("The repository folder."), QStringLiteral("folder"));
    cl.addValue({QStringLiteral("module")}, QStringLiteral("The module the package belongs to."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("model-code")},
                QStringLiteral("Publish an installer upgrade for this model code instead of a module."),
                QStringLiteral("code"));
    cl.addValue({QStringLiteral("version")}, QStringLiteral("The package's version."), QStringLiteral("v"));
    ReleaseCommands::addSigningOptions(cl);
    ReleaseCommands::addReleaseOptions(cl, QStringLiteral("channel"));
    cl.addValue({QStringLiteral("deltas")},
                QStringLiteral("Make deltas to this version from this many older ones (default 3, 0: none)."),
                QStringLiteral("count"));
    int code = ExitSuccess;
    ReleaseCommands::Signing signing;
    Vindal::Rollout release;
    if (!cl.parse(arguments, 1, &code) || !cl.require({QStringLiteral("repo"), QStringLiteral("version")}, &code)
        || !ReleaseCommands::readSigning(cl, &signing, &code)
        || !ReleaseCommands::readRelease(cl, QStringLiteral("channel"), &release, &code))
        return code;
    bool deltasOk = true;
    const int deltas = cl.isSet(QStringLiteral("deltas")) ? cl.value(QStringLiteral("deltas")).toInt(&deltasOk) : 3;
    if (!deltasOk || deltas < 0 || deltas > 100)
        return cl.usage(QStringLiteral("--deltas takes a number from 0 to 100"));
    const bool upgrade = cl.isSet(QStringLiteral("model-code"));
    if (upgrade == cl.isSet(QStringLiteral("module")))
        return cl.usage(QStringLiteral("give exactly one of --module and --model-code"));
    if (upgrade && (cl.isSet(QStringLiteral("channel")) || cl.isSet(QStringLiteral("rollout"))))
        return cl.usage(QStringLiteral("installer upgrades have no channels or rollouts"));

    const QString package = cl.positional(0);
    const QString repo = cl.value(QStringLiteral("repo"));
    const QString version = cl.value(QStringLiteral("version"));
    const QString key = signing.key;
    const QString name = upgrade ? cl.value(QStringLiteral("model-code")) : cl.value(QStringLiteral("module"));
    const int expires = signing.expiresInDays;
    const Vindal::Outcome outcome = upgrade ? Vindal::Repository::publishUpgrade(package, repo, name, version, key, expires)
                                            : Vindal::Repository::publish(package, repo, name, version, release, key, expires);
    if (!outcome)
        return fail(command, outcome);
    printLine(stdout, QStringLiteral("published %1 as %2 %3%4%5")
                          .arg(QFileInfo(package).fileName(), name, version,
                               upgrade ? QString() : QStringLiteral(" on %1 for %2% of its clients").arg(release.channel).arg(release.percent),
                               key.isEmpty() ? QString() : QStringLiteral(" (signed)")));
    return upgrade || deltas == 0 ? ExitSuccess : report(command, Vindal::Repository::publishDeltas(repo, name, version, deltas, key));
}

int deltas(const QStringList &arguments)
{
    const QString command = QStringLiteral("deltas");
    CommandLine cl(command, QStringLiteral("list|prune: lists a module's delta packages, or removes those of older versions"),
                   "corbeth-pack deltas prune --repo /srv/repo --module myapp --keep 2 --key product.key");
    cl.addValue({QStringLiteral("repo")}, QStringLiteral("The repository folder."), QStringLiteral("folder"));
    cl.addValue({QStringLiteral("module")}, QStringLiteral("The module in the repository."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("keep")}, QStringLiteral("prune: keep the deltas of this many newest versions (default 1)."),
                QStringLiteral("versions"));
    cl.addValue({QStringLiteral("key")}, QStringLiteral("prune: sign the index with this secret key file."),
                QStringLiteral("secret-key-file"));
    int code = ExitSuccess;
    if (!cl.parse(arguments, 1, &code) || !cl.require({QStringLiteral("repo"), QStringLiteral("module")}, &code))
        return code;
    const QString repo = cl.value(QStringLiteral("repo"));
    const QString module = cl.value(QStringLiteral("module"));
    if (cl.positional(0) == QLatin1String("list"))
        return report(command, Vindal::Repository::listDeltas(repo, module));
    bool ok = true;
    const int keep = cl.isSet(QStringLiteral("keep")) ? cl.value(QStringLiteral("keep")).toInt(&ok) : 1;
    if (cl.positional(0) != QLatin1String("prune") || !ok || keep < 0)
        return cl.usage(QStringLiteral("expects list, or prune with --keep 0 or more"));
    return report(command, Vindal::Repository::pruneDeltas(repo, module, keep, cl.value(QStringLiteral("key"))));
}

int keygen(const QStringList &arguments)
{
    const QString command = QStringLiteral("keygen");
    CommandLine cl(command, QStringLiteral("<name>: writes <name>.key (secret) and <name>.pub (public)"),
                   "corbeth-pack keygen product");
    int code = ExitSuccess;
    if (!cl.parse(arguments, 1, &code))
        return code;
    const QString name = cl.positional(0);
    const Vindal::Outcome outcome = Vindal::Repository::keygen(name);
    if (!outcome)
        return fail(command, outcome);
    printLine(stdout, QStringLiteral("wrote %1.key and %1.pub; public key: %2").arg(name, outcome.subject));
    return ExitSuccess;
}

int verify(const QStringList &arguments)
{
    const QString command = QStringLiteral("verify");
    CommandLine cl(command,
                   QStringLiteral("<package>: checks a package against its \".verify\" companion and, with --repo and "
                                  "--module, against the module's index"),
                   "corbeth-pack verify myapp-2.1.0.tolmpkg --repo /srv/repo --module myapp --public-key product.pub");
    cl.addValue({QStringLiteral("repo")}, QStringLiteral("The repository folder."), QStringLiteral("folder"));
    cl.addValue({QStringLiteral("module")}, QStringLiteral("The module in the repository."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("version")}, QStringLiteral("The version to check against (default: the newest)."),
                QStringLiteral("v"));
    cl.addValue({QStringLiteral("public-key")},
                QStringLiteral("Check the index signature with this key (base64 text or a .pub file)."),
                QStringLiteral("key"));
    int code = ExitSuccess;
    if (!cl.parse(arguments, 1, &code))
        return code;
    const QString package = cl.positional(0);
    const bool againstRepo = cl.isSet(QStringLiteral("repo")) || cl.isSet(QStringLiteral("module"));
    if (againstRepo && !cl.require({QStringLiteral("repo"), QStringLiteral("module")}, &code))
        return code;
    QString publicKey;
    const Vindal::Outcome keyRead = readPublicKey(cl, &publicKey);
    if (!keyRead)
        return fail(command, keyRead);
    if (!QFileInfo(package).isFile())
        return fail(command, QStringLiteral("no such package: %1").arg(package));

    // A package fetched from a repository has no companion; the index is its check.
    const bool companion = QFileInfo::exists(package + QLatin1String(".verify"));
    if (companion || !againstRepo) {
        const Vindal::Outcome outcome = Vindal::Package::verify(package);
        if (!outcome)
            return fail(command, outcome);
    }
    if (againstRepo) {
        const Vindal::Outcome outcome = Vindal::Repository::verifyPackage(
            package, cl.value(QStringLiteral("repo")), cl.value(QStringLiteral("module")),
            cl.value(QStringLiteral("version")), publicKey);
        if (!outcome)
            return fail(command, outcome);
    }
    printLine(stdout, QStringLiteral("%1: OK").arg(package));
    return ExitSuccess;
}

int extract(const QStringList &arguments)
{
    const QString command = QStringLiteral("extract");
    CommandLine cl(command, QStringLiteral("<package> -C <folder>: unpacks a package safely into a folder"),
                   "corbeth-pack extract myapp-2.1.0.tolmpkg -C /tmp/check");
    cl.addValue({QStringLiteral("C"), QStringLiteral("directory")}, QStringLiteral("The folder to unpack into."),
                QStringLiteral("folder"));
    int code = ExitSuccess;
    if (!cl.parse(arguments, 1, &code) || !cl.require({QStringLiteral("C")}, &code))
        return code;
    const QString package = cl.positional(0);
    const QString target = cl.value(QStringLiteral("C"));
    ProgressPrinter progress(QFileInfo(package).fileName());
    const Vindal::Outcome outcome = Vindal::Package::extract(package, target, progress.callback());
    progress.finish();
    if (!outcome)
        return fail(command, outcome);
    printLine(stdout, QStringLiteral("extracted %1 into %2").arg(package, target));
    return ExitSuccess;
}

// Waits for a reply on this thread; the map it finished with.
QVariantMap waitFor(Vindal::Reply *reply)
{
    QVariantMap answer;
    QEventLoop loop;
    QObject::connect(reply, &Vindal::Reply::finished, &loop, [&](const QVariantMap &map) {
        answer = map;
        loop.quit();
    });
    if (reply->isFinished())
        answer = reply->result();
    else
        loop.exec();
    reply->deleteLater();
    return answer;
}

int replyFailure(const QString &command, const QVariantMap &answer)
{
    const int error = answer.value(QStringLiteral("errorCode")).toInt();
    return fail(command,
                QStringLiteral("%1 [%2]").arg(answer.value(QStringLiteral("errorMessage")).toString(), codeName(error)));
}

int fetch(const QStringList &arguments)
{
    const QString command = QStringLiteral("fetch");
    CommandLine cl(command,
                   QStringLiteral("--server <url> --module <name> -o <folder>: downloads a module's package as the "
                                  "engine does (resumed, checked)"),
                   "corbeth-pack fetch --server https://downloads.example.com/repo/ --module myapp -o /tmp/check "
                   "--public-key product.pub");
    cl.addValue({QStringLiteral("server")}, QStringLiteral("The repository's base URL (http, https or file)."),
                QStringLiteral("url"));
    cl.addValue({QStringLiteral("mirror")}, QStringLiteral("A mirror tried when the server fails (repeatable)."),
                QStringLiteral("url"));
    cl.addValue({QStringLiteral("module")}, QStringLiteral("The module to fetch."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("version")}, QStringLiteral("Pin this version (default: the newest)."),
                QStringLiteral("v"));
    cl.addValue({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The folder to download into."),
                QStringLiteral("folder"));
    cl.addValue({QStringLiteral("public-key")},
                QStringLiteral("Refuse indexes not signed with this key (base64 text or a .pub file)."),
                QStringLiteral("key"));
    cl.addValue({QStringLiteral("stall-timeout")}, QStringLiteral("Give up a transfer that receives nothing for this long (default 30)."),
                QStringLiteral("seconds"));
    cl.addValue({QStringLiteral("deadline")}, QStringLiteral("Give up a download not done in this time, retries included (default: none)."),
                QStringLiteral("seconds"));
    cl.addValue({QStringLiteral("ca-file")}, QStringLiteral("Trust the certificate authorities of this PEM file too."),
                QStringLiteral("pem"));
    cl.addValue({QStringLiteral("proxy")}, QStringLiteral("system (the default), none, or http://host:port or socks5://host:port."),
                QStringLiteral("proxy"));
    int code = ExitSuccess;
    if (!cl.parse(arguments, 0, &code)
        || !cl.require({QStringLiteral("server"), QStringLiteral("module"), QStringLiteral("o")}, &code))
        return code;
    // The library checks the values and names its own key when one is wrong.
    QVariantMap network;
    for (const auto &option : {qMakePair(QStringLiteral("stall-timeout"), QStringLiteral("stallTimeout")),
                               qMakePair(QStringLiteral("deadline"), QStringLiteral("deadline"))}) {
        bool ok = true;
        if (cl.isSet(option.first))
            network.insert(option.second, cl.value(option.first).toDouble(&ok));
        if (!ok)
            return cl.usage(QStringLiteral("--%1 takes a number of seconds").arg(option.first));
    }
    if (cl.isSet(QStringLiteral("ca-file")))
        network.insert(QStringLiteral("caFile"), cl.value(QStringLiteral("ca-file")));
    if (cl.isSet(QStringLiteral("proxy")))
        network.insert(QStringLiteral("proxy"), cl.value(QStringLiteral("proxy")));
    QString publicKey;
    const Vindal::Outcome keyRead = readPublicKey(cl, &publicKey);
    if (!keyRead)
        return fail(command, keyRead);

    const QString folder = QDir(cl.value(QStringLiteral("o"))).absolutePath();
    if (!QDir().mkpath(folder))
        return fail(command, QStringLiteral("cannot create the folder %1").arg(folder));
    const QString module = cl.value(QStringLiteral("module"));
    const QString version = cl.value(QStringLiteral("version"));

    // The same configuration the engine hands over: the remote section with
    // the module to fetch and the download folder.
    QVariantMap moduleInfo{{QStringLiteral("module"), module}};
    if (!version.isEmpty())
        moduleInfo.insert(QStringLiteral("version"), version);
    QVariantMap config{
        {QStringLiteral("repository"), cl.value(QStringLiteral("server"))},
        {QStringLiteral("moduleInfo"), moduleInfo},
        {QStringLiteral("startDownload"), QVariantMap{{QStringLiteral("temporaryStoragePath"), folder}}},
    };
    config.insert(network);
    if (cl.isSet(QStringLiteral("mirror")))
        config.insert(QStringLiteral("mirrors"), cl.values(QStringLiteral("mirror")));
    if (!publicKey.isNull())
        config.insert(QStringLiteral("publicKey"), publicKey);

    Vindal::Manager manager;
    QVariantMap answer = waitFor(manager.setConfigData(config));
    if (answer.value(QStringLiteral("errorCode")).toInt() != 0)
        return replyFailure(command, answer);

    Vindal::VDBasicInfo info;
    info.version = version;
    Vindal::Reply *reply = manager.downloadOfflineModule(module, info);
    ProgressPrinter progress(module);
    QObject::connect(reply, &Vindal::Reply::downloadProgress, reply,
                     [&progress](qint64 received, qint64 total) { progress.update(received, total); });
    answer = waitFor(reply);
    progress.finish();
    if (answer.value(QStringLiteral("errorCode")).toInt() != 0)
        return replyFailure(command, answer);

    const QVariantMap result = answer.value(QStringLiteral("result")).toMap();
    printLine(stdout, QStringLiteral("fetched %1 %2 to %3 (md5 %4)")
                          .arg(module, result.value(QStringLiteral("version")).toString(),
                               result.value(QStringLiteral("path")).toString(),
                               result.value(QStringLiteral("md5Value")).toString()));
    return ExitSuccess;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corbeth-pack"));
    QCoreApplication::setApplicationVersion(QStringLiteral(CORBETH_PACK_VERSION));

    // The library's log would break the one-line results; QT_LOGGING_RULES
    // ("corbeth.lib*=true") still turns it on, as it overrides these rules.
    QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib*=false"));

    QStringList arguments = QCoreApplication::arguments();
    const QString command = arguments.value(1);
    if (command.isEmpty() || command == QLatin1String("--help") || command == QLatin1String("-h")
        || command == QLatin1String("help")) {
        std::fputs(kUsage, command.isEmpty() ? stderr : stdout);
        return command.isEmpty() ? ExitUsage : ExitSuccess;
    }
    if (command == QLatin1String("--version")) {
        printLine(stdout, QStringLiteral("corbeth-pack %1").arg(QCoreApplication::applicationVersion()));
        return ExitSuccess;
    }
    // Each command parses the rest of the line as if it were the program.
    arguments.removeAt(1);

    using Command = int (*)(const QStringList &);
    const QList<QPair<QLatin1String, Command>> commands{
        {QLatin1String("create"), create},   {QLatin1String("publish"), publish}, {QLatin1String("keygen"), keygen},
        {QLatin1String("verify"), verify},   {QLatin1String("extract"), extract}, {QLatin1String("fetch"), fetch},
        {QLatin1String("deltas"), deltas},   {QLatin1String("rotate-key"), rotateKey},
        {QLatin1String("promote"), ReleaseCommands::promote}, {QLatin1String("rollout"), ReleaseCommands::rollout},
    };
    for (const auto &entry : commands) {
        if (command == entry.first)
            return entry.second(arguments);
    }
    printLine(stderr, QStringLiteral("corbeth-pack: unknown command \"%1\"").arg(command));
    std::fputs(kUsage, stderr);
    return ExitUsage;
}
