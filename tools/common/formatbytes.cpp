#include "formatbytes.h"

QString formatBytes(qint64 bytes)
{
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    double value = double(bytes) / 1024.0;
    int unit = 0;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}
