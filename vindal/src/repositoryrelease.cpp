// The release commands of Repository: which channels a published version is
// on and to what share of their clients. Publishing itself is in
// repository.cpp; both change the index through IndexWriter.
#include <vindal/repository.h>

#include "indexwriter_p.h"
#include "releasechannels_p.h"

namespace Vindal {

namespace {

enum Change { Promote, SetShare };

Outcome changeRelease(Change change, const QString &repoFolder, const QString &module, const QString &version,
                      const Rollout &release, const QString &secretKeyFile, int expiresInDays)
{
    if (!Repository::isValidModuleName(module))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid module name").arg(module), module);
    if ((change == Promote || !version.isEmpty()) && !PackageIndex::isValidVersion(version))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a valid version").arg(version), version);
    if (!Rollout::isValidChannel(release.channel))
        return Outcome::failure(Error::ConfigError, QStringLiteral("\"%1\" is not a channel name").arg(release.channel), release.channel);
    if (!Rollout::isValidPercent(release.percent))
        return Outcome::failure(Error::ConfigError, QStringLiteral("the rollout must be 0 to 100 percent, not %1").arg(release.percent));
    QByteArray secretKey;
    const Outcome key = IndexWriter::readKey(repoFolder, secretKeyFile, &secretKey);
    if (!key)
        return key;

    QString done;
    QString changed;
    QString how;
    const Outcome updated = IndexWriter::update(PackageIndex::Module, repoFolder, module, secretKey, expiresInDays, [&](PackageIndex &index) {
        const IndexEntry *found = version.isEmpty() ? ReleaseChannels::newestOn(index, release.channel) : index.find(version);
        if (!found) {
            return Outcome::failure(Error::NotFound, version.isEmpty() ? QStringLiteral("%1 has no version on the channel \"%2\"").arg(module, release.channel)
                                                                       : QStringLiteral("%1 has no version %2").arg(module, version));
        }
        IndexEntry entry = *found;
        Rollout next = release;
        Rollout now;
        const bool onChannel = ReleaseChannels::find(entry, release.channel, &now);
        if (change == SetShare) {
            if (!onChannel)
                return Outcome::failure(Error::NotFound, QStringLiteral("%1 %2 is not on the channel \"%3\"; promote it first")
                                                             .arg(module, entry.version, release.channel));
            if (next.halted)
                next.percent = now.percent; // kept for the record; a halt offers it to nobody new
        }
        ReleaseChannels::write(&entry, next);
        index.upsert(entry);
        done = next.halted ? QStringLiteral("%1 %2 halted on %3").arg(module, entry.version, next.channel)
                           : QStringLiteral("%1 %2 on %3 for %4% of its clients").arg(module, entry.version, next.channel).arg(next.percent);
        changed = entry.version;
        return Outcome::success();
    }, &how);
    if (!updated)
        return updated;
    return Outcome{Error::NoError, QStringLiteral("%1 (%2)").arg(done, how), changed};
}

} // namespace

Outcome Repository::promote(const QString &repoFolder, const QString &module, const QString &version, const Rollout &release,
                            const QString &secretKeyFile, int expiresInDays)
{
    Rollout offered = release;
    offered.halted = false;
    return changeRelease(Promote, repoFolder, module, version, offered, secretKeyFile, expiresInDays);
}

Outcome Repository::setRollout(const QString &repoFolder, const QString &module, const QString &version, const Rollout &release,
                               const QString &secretKeyFile, int expiresInDays)
{
    return changeRelease(SetShare, repoFolder, module, version, release, secretKeyFile, expiresInDays);
}

} // namespace Vindal
