#ifndef VINDAL_ROLLOUT_H
#define VINDAL_ROLLOUT_H

#include <vindal/vindal_export.h>

#include <QtCore/QString>

namespace Vindal {

// How one version reaches the clients of one channel: the share of them it
// is offered to, and whether it is halted (offered to nobody new). A client
// decides for itself from its place in line, a random value it keeps for
// ever and never sends anywhere; the share lives in the signed index.
//
// A client at position p (0 <= p < 100) is offered a release of percent r
// when p < r, or when r is 100. Raising r only ever adds clients: the 5%
// offered first stay offered at 20%.
struct VINDAL_EXPORT Rollout
{
    QString channel = defaultChannel();
    double percent = 100;
    bool halted = false;

    // Whether a client at this position is offered the release.
    bool offers(double position) const { return !halted && (percent >= 100 || position < percent); }

    // The position of a client whose stored random value is bucket: evenly
    // spread over [0, 100).
    static double position(quint32 bucket) { return double(bucket) * 100.0 / 4294967296.0; }
    // A client without a stored value waits at the end of the line: it is
    // offered only releases rolled out to everyone.
    static double lastPosition() { return 100; }

    static QString defaultChannel() { return QStringLiteral("stable"); }
    // Channel names: lower-case letters, digits, ".", "_" and "-", starting
    // with a letter or digit, at most 32 characters.
    static bool isValidChannel(const QString &name);
    static bool isValidPercent(double percent) { return percent >= 0 && percent <= 100; }
};

} // namespace Vindal

#endif // VINDAL_ROLLOUT_H
