#include "config/configvalue.h"

#include "logging_p.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace Corbeth {
namespace ConfigValue {

namespace {

bool isAbsent(const QVariant &value)
{
    return !value.isValid();
}

// A value whose conversion comes out empty is as good as skipped: the line ends so.
void converted(const QVariant &value, const QString &key, bool empty = false)
{
    if (empty)
        qCWarning(lcCorbeth) << "configdata converted" << key << value << "skipped";
    else
        qCWarning(lcCorbeth) << "configdata converted" << key << value;
}

bool isNumber(int type)
{
    return type == QMetaType::Double || type == QMetaType::Int || type == QMetaType::LongLong
        || type == QMetaType::UInt || type == QMetaType::ULongLong;
}

} // namespace

QVariantMap toMap(const QVariant &value, const QString &key)
{
    if (!isAbsent(value) && value.userType() != QMetaType::QVariantMap)
        converted(value, key, value.toMap().isEmpty());
    return value.toMap();
}

QVariantList toList(const QVariant &value, const QString &key)
{
    // A client's own map may hold a string list where a document holds a list.
    if (!isAbsent(value) && value.userType() != QMetaType::QVariantList
        && value.userType() != QMetaType::QStringList)
        converted(value, key, value.toList().isEmpty());
    return value.toList();
}

QStringList toStringList(const QVariant &value, const QString &key)
{
    bool natural = isAbsent(value) || value.userType() == QMetaType::QStringList;
    if (value.userType() == QMetaType::QVariantList) {
        const QVariantList items = value.toList();
        natural = std::all_of(items.cbegin(), items.cend(),
                              [](const QVariant &item) { return item.userType() == QMetaType::QString; });
    }
    if (!natural)
        converted(value, key, value.toStringList().isEmpty());
    return value.toStringList();
}

QString toString(const QVariant &value, const QString &key)
{
    if (!isAbsent(value) && value.userType() != QMetaType::QString)
        converted(value, key);
    return value.toString();
}

bool toBool(const QVariant &value, const QString &key)
{
    if (!isAbsent(value) && value.userType() != QMetaType::Bool)
        converted(value, key);
    return value.toBool();
}

bool toInt(const QVariant &value, const QString &key, int &out)
{
    if (isAbsent(value))
        return false;
    double number = 0;
    bool ok = false;
    if (value.userType() == QMetaType::Double) {
        number = value.toDouble(&ok);
        ok = ok && std::isfinite(number);
        number = std::round(number);
    } else {
        // Integers, and text or booleans that read as one.
        number = double(value.toLongLong(&ok));
    }
    if (!ok)
        return false;
    if (!isNumber(value.userType()))
        converted(value, key);
    if (number > INT_MAX || number < INT_MIN) {
        qCWarning(lcCorbeth) << "configdata clamped" << key << value;
        number = std::clamp(number, double(INT_MIN), double(INT_MAX));
    }
    out = int(number);
    return true;
}

} // namespace ConfigValue
} // namespace Corbeth
