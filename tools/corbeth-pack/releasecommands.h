#ifndef CORBETH_PACK_RELEASECOMMANDS_H
#define CORBETH_PACK_RELEASECOMMANDS_H

#include "commandline.h"

#include <vindal/rollout.h>

#include <QtCore/QStringList>

// The commands that steer a published version: which channels it is on
// (promote) and to what share of their clients (rollout, halt), and the
// options every command that rewrites an index shares.
namespace ReleaseCommands {

// --key and --expires: each rewrite of an index signs it and states its own
// expiry (none without --expires).
struct Signing
{
    QString key;
    int expiresInDays = 0;
};
void addSigningOptions(CommandLine &cl);
// false with the exit code when an option is wrong.
bool readSigning(const CommandLine &cl, Signing *signing, int *exitCode);

// The channel option (--channel for publish, --to for promote; default
// "stable") and --rollout (default 100).
void addReleaseOptions(CommandLine &cl, const QString &channelOption);
bool readRelease(const CommandLine &cl, const QString &channelOption, Vindal::Rollout *release, int *exitCode);

int promote(const QStringList &arguments);
int rollout(const QStringList &arguments);

} // namespace ReleaseCommands

#endif // CORBETH_PACK_RELEASECOMMANDS_H
