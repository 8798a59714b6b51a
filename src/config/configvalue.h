#ifndef CORBETH_CONFIGVALUE_H
#define CORBETH_CONFIGVALUE_H

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

namespace Corbeth {

// Reads one value of the install description as the type it is used as.
// A value of another type is converted the way QVariant converts it (a string
// "true" is true, a single string is a one-word list, a number is its text)
// and never refused; a warning "configdata converted" names the key. An absent
// value (an invalid QVariant) gives the type's empty value without a warning.
namespace ConfigValue {

QVariantMap toMap(const QVariant &value, const QString &key);
QVariantList toList(const QVariant &value, const QString &key);
QStringList toStringList(const QVariant &value, const QString &key);
QString toString(const QVariant &value, const QString &key);
bool toBool(const QVariant &value, const QString &key);
// False when the value is absent or has no integer reading ("abc", an object).
// A number beyond 32 bits is clamped to the nearest 32-bit value with the
// warning "configdata clamped" instead of wrapping round.
bool toInt(const QVariant &value, const QString &key, int &out);

} // namespace ConfigValue
} // namespace Corbeth

#endif // CORBETH_CONFIGVALUE_H
