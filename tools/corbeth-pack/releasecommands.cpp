#include "releasecommands.h"

#include <vindal/repository.h>

namespace ReleaseCommands {

namespace {

const QString Channel = QStringLiteral("channel");
const QString Percent = QStringLiteral("rollout");

// The steps a product maker takes, in the order of a release.
const char *const kReleaseSteps =
    "corbeth-pack publish app-2.0.tolmpkg --repo /srv/repo --module app --version 2.0 --channel beta --key product.key\n"
    "  corbeth-pack promote --repo /srv/repo --module app --version 2.0 --to stable --rollout 5 --key product.key\n"
    "  corbeth-pack rollout --repo /srv/repo --module app --percent 100 --key product.key";

} // namespace

void addSigningOptions(CommandLine &cl)
{
    cl.addValue({QStringLiteral("key")}, QStringLiteral("Sign the index with this secret key file."), QStringLiteral("secret-key-file"));
    cl.addValue({QStringLiteral("expires")},
                QStringLiteral("Clients refuse the index this many days from now, unless it is published again."),
                QStringLiteral("days"));
}

bool readSigning(const CommandLine &cl, Signing *signing, int *exitCode)
{
    signing->key = cl.value(QStringLiteral("key"));
    if (cl.isSet(QStringLiteral("expires"))) {
        bool ok = false;
        signing->expiresInDays = cl.value(QStringLiteral("expires")).toInt(&ok);
        if (!ok || signing->expiresInDays < 1 || signing->expiresInDays > 3650) {
            *exitCode = cl.usage(QStringLiteral("--expires takes a number of days from 1 to 3650"));
            return false;
        }
    }
    if (cl.isSet(QStringLiteral("key")) && signing->key.trimmed().isEmpty()) {
        *exitCode = fail(cl.command(), Vindal::Outcome::failure(Vindal::Error::ConfigError, QStringLiteral("--key is empty")));
        return false;
    }
    return true;
}

void addReleaseOptions(CommandLine &cl, const QString &channelOption)
{
    cl.addValue({channelOption}, QStringLiteral("The channel the version goes to (default stable)."), QStringLiteral("name"));
    cl.addValue({Percent}, QStringLiteral("Offer it to this share of the channel's clients (default 100)."), QStringLiteral("percent"));
}

bool readRelease(const CommandLine &cl, const QString &channelOption, Vindal::Rollout *release, int *exitCode)
{
    if (cl.isSet(channelOption))
        release->channel = cl.value(channelOption);
    if (!Vindal::Rollout::isValidChannel(release->channel)) {
        *exitCode = cl.usage(QStringLiteral("\"%1\" is not a channel name (lower-case letters, digits, \".\", \"_\", \"-\")").arg(release->channel));
        return false;
    }
    bool ok = true;
    if (cl.isSet(Percent))
        release->percent = cl.value(Percent).toDouble(&ok);
    if (!ok || !Vindal::Rollout::isValidPercent(release->percent)) {
        *exitCode = cl.usage(QStringLiteral("--%1 takes a percentage from 0 to 100").arg(Percent));
        return false;
    }
    return true;
}

namespace {

using Change = Vindal::Outcome (*)(const QString &, const QString &, const QString &, const Vindal::Rollout &, const QString &, int);

// --repo, --module, --version and the signing options.
void addTarget(CommandLine &cl, const QString &versionHelp)
{
    cl.addValue({QStringLiteral("repo")}, QStringLiteral("The repository folder."), QStringLiteral("folder"));
    cl.addValue({QStringLiteral("module")}, QStringLiteral("The module."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("version")}, versionHelp, QStringLiteral("v"));
    addSigningOptions(cl);
}

int apply(const CommandLine &cl, Change change, const Vindal::Rollout &release, const Signing &signing)
{
    const Vindal::Outcome outcome = change(cl.value(QStringLiteral("repo")), cl.value(QStringLiteral("module")),
                                           cl.value(QStringLiteral("version")), release, signing.key, signing.expiresInDays);
    if (!outcome)
        return fail(cl.command(), outcome);
    printLine(stdout, outcome.message);
    return ExitSuccess;
}

} // namespace

int promote(const QStringList &arguments)
{
    CommandLine cl(QStringLiteral("promote"),
                   QStringLiteral("--repo <folder> --module <name> --version <v> --to <channel>: puts a published version on "
                                  "another channel as well"),
                   kReleaseSteps);
    addTarget(cl, QStringLiteral("The published version to promote."));
    addReleaseOptions(cl, QStringLiteral("to"));
    int code = ExitSuccess;
    Signing signing;
    Vindal::Rollout release;
    if (!cl.parse(arguments, 0, &code)
        || !cl.require({QStringLiteral("repo"), QStringLiteral("module"), QStringLiteral("version"), QStringLiteral("to")}, &code)
        || !readSigning(cl, &signing, &code) || !readRelease(cl, QStringLiteral("to"), &release, &code))
        return code;
    return apply(cl, Vindal::Repository::promote, release, signing);
}

int rollout(const QStringList &arguments)
{
    CommandLine cl(QStringLiteral("rollout"),
                   QStringLiteral("--repo <folder> --module <name> --percent <p> | --halt: changes the share of clients a "
                                  "version is offered to on a channel, or halts it"),
                   kReleaseSteps);
    addTarget(cl, QStringLiteral("The version (default: the newest on the channel)."));
    cl.addValue({Channel}, QStringLiteral("The channel (default stable)."), QStringLiteral("name"));
    cl.addValue({QStringLiteral("percent")}, QStringLiteral("Offer it to this share of the channel's clients."), QStringLiteral("p"));
    cl.addFlag(QStringLiteral("halt"), QStringLiteral("Offer it to nobody new; clients that have it keep it."));
    int code = ExitSuccess;
    Signing signing;
    Vindal::Rollout release;
    if (!cl.parse(arguments, 0, &code) || !cl.require({QStringLiteral("repo"), QStringLiteral("module")}, &code)
        || !readSigning(cl, &signing, &code))
        return code;
    release.halted = cl.isSet(QStringLiteral("halt"));
    if (release.halted == cl.isSet(QStringLiteral("percent")))
        return cl.usage(QStringLiteral("give exactly one of --percent and --halt"));
    bool ok = true;
    if (!release.halted)
        release.percent = cl.value(QStringLiteral("percent")).toDouble(&ok);
    if (!ok)
        return cl.usage(QStringLiteral("--percent takes a percentage from 0 to 100"));
    if (cl.isSet(Channel))
        release.channel = cl.value(Channel);
    return apply(cl, Vindal::Repository::setRollout, release, signing);
}

} // namespace ReleaseCommands
