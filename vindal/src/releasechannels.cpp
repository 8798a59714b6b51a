#include "releasechannels_p.h"

#include <QtCore/QRegularExpression>

namespace Vindal {

namespace {

const QString ChannelsKey = QStringLiteral("channels");
const QString RolloutKey = QStringLiteral("rollout");
const QString HaltedKey = QStringLiteral("halted");

// JSON numbers arrive as whole or floating-point variants.
bool isNumber(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Double:
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return true;
    default:
        return false;
    }
}

template<typename Accept>
const IndexEntry *newest(const PackageIndex &index, const QString &channel, Accept accept)
{
    const IndexEntry *best = nullptr;
    for (const IndexEntry &entry : index.entries()) {
        Rollout release;
        if (ReleaseChannels::find(entry, channel, &release) && accept(entry, release)
            && (!best || PackageIndex::compareVersions(entry.version, best->version) > 0))
            best = &entry;
    }
    return best;
}

} // namespace

bool Rollout::isValidChannel(const QString &name)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(QStringLiteral("[a-z0-9][a-z0-9._-]{0,31}")));
    return pattern.match(name).hasMatch();
}

bool ReleaseChannels::read(const IndexEntry &entry, QList<Rollout> *channels, QString *error)
{
    channels->clear();
    const auto refuse = [error](const QString &why) {
        if (error)
            *error = why;
        return false;
    };
    if (!entry.extra.contains(ChannelsKey)) {
        channels->append(Rollout());
        return true;
    }
    const QVariant value = entry.extra.value(ChannelsKey);
    if (value.type() != QVariant::Map)
        return refuse(QStringLiteral("\"channels\" is not an object"));
    const QVariantMap map = value.toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const QVariantMap fields = it.value().toMap();
        Rollout release;
        release.channel = it.key();
        const QVariant percent = fields.value(RolloutKey, 100.0);
        const QVariant halted = fields.value(HaltedKey, false);
        release.percent = percent.toDouble();
        release.halted = halted.toBool();
        if (!Rollout::isValidChannel(release.channel))
            return refuse(QStringLiteral("\"%1\" is not a valid channel name").arg(release.channel));
        if (it.value().type() != QVariant::Map || !isNumber(percent) || !Rollout::isValidPercent(release.percent)
            || halted.type() != QVariant::Bool)
            return refuse(QStringLiteral("channel \"%1\" needs a \"rollout\" from 0 to 100 and a true or false \"halted\"")
                              .arg(release.channel));
        channels->append(release);
    }
    return true;
}

void ReleaseChannels::write(IndexEntry *entry, const Rollout &release, bool only)
{
    if (only)
        entry->extra.insert(ChannelsKey, QVariantMap());
    // An entry without channels is on "stable": it stays there.
    QList<Rollout> channels;
    read(*entry, &channels);
    channels.append(release); // after the channel's old release: it replaces it
    QVariantMap map;
    for (const Rollout &chosen : qAsConst(channels)) {
        QVariantMap fields{{RolloutKey, chosen.percent}};
        if (chosen.halted)
            fields.insert(HaltedKey, true);
        map.insert(chosen.channel, fields);
    }
    entry->extra.insert(ChannelsKey, map);
}

bool ReleaseChannels::find(const IndexEntry &entry, const QString &channel, Rollout *release)
{
    QList<Rollout> channels;
    read(entry, &channels);
    for (const Rollout &candidate : qAsConst(channels)) {
        if (candidate.channel == channel) {
            if (release)
                *release = candidate;
            return true;
        }
    }
    return false;
}

const IndexEntry *ReleaseChannels::newestOffered(const PackageIndex &index, const QString &channel, double position,
                                                 const QString &current)
{
    return newest(index, channel, [&](const IndexEntry &entry, const Rollout &release) {
        return release.offers(position) || (!current.isEmpty() && PackageIndex::compareVersions(entry.version, current) == 0);
    });
}

const IndexEntry *ReleaseChannels::newestOn(const PackageIndex &index, const QString &channel)
{
    return newest(index, channel, [](const IndexEntry &, const Rollout &) { return true; });
}

} // namespace Vindal
