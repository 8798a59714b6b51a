#ifndef VINDAL_RELEASECHANNELS_P_H
#define VINDAL_RELEASECHANNELS_P_H

#include <vindal/rollout.h>

#include "packageindex_p.h"

#include <QtCore/QList>

namespace Vindal {

// The channels a module's version is released on, kept in its index entry
// as "channels": {"<name>": {"rollout": <percent>, "halted": <bool>}}. An
// entry without the key is on "stable" for everyone, as every entry was
// before channels existed.
class ReleaseChannels
{
public:
    // The entry's channels; false with a reason when "channels" is malformed
    // (the whole index is refused then, like any malformed entry).
    static bool read(const IndexEntry &entry, QList<Rollout> *channels, QString *error = nullptr);
    // Puts the release on its channel, replacing what the entry said there;
    // with only, the entry is on no other channel afterwards.
    static void write(IndexEntry *entry, const Rollout &release, bool only = false);
    // The entry's release on channel; null when it is not on it.
    static bool find(const IndexEntry &entry, const QString &channel, Rollout *release = nullptr);

    // The newest version a client on channel, at position, may take: one it
    // is offered, or the version it holds (current) while it is still on
    // the channel, so a halt or a smaller share never takes a version away.
    // Null when there is none; it may be older than current (the caller
    // refuses a downgrade).
    static const IndexEntry *newestOffered(const PackageIndex &index, const QString &channel, double position,
                                           const QString &current);
    // The newest version on channel, offered or not.
    static const IndexEntry *newestOn(const PackageIndex &index, const QString &channel);
};

} // namespace Vindal

#endif // VINDAL_RELEASECHANNELS_P_H
