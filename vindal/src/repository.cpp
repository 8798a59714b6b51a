#include <vindal/repository.h>

#include <QtCore/QRegularExpression>

namespace Vindal {

namespace {
Outcome notYet()
{
    return Outcome::failure(Error::ConfigError, QStringLiteral("not implemented yet"));
}
} // namespace

Outcome Repository::publish(const QString &, const QString &, const QString &, const QString &, const QString &)
{
    return notYet();
}

Outcome Repository::publishUpgrade(const QString &, const QString &, const QString &, const QString &, const QString &)
{
    return notYet();
}

Outcome Repository::verifyPackage(const QString &, const QString &, const QString &, const QString &, const QString &)
{
    return notYet();
}

Outcome Repository::keygen(const QString &)
{
    return notYet();
}

bool Repository::isValidModuleName(const QString &name)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9._-]*$"));
    return name.size() <= 128 && plain.match(name).hasMatch();
}

} // namespace Vindal
