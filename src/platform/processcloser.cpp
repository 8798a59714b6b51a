#include "platform/processcloser.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QThread>

namespace Corbeth {

QString ProcessCloser::baseName(const QString &name)
{
    if (name.endsWith(QLatin1String(".exe"), Qt::CaseInsensitive))
        return name.left(name.size() - 4);
    return name;
}

bool ProcessCloser::close(const QString &name, int graceMs)
{
    if (find(name).isEmpty())
        return true;
    end(name, false);
    if (waitUntilGone(name, graceMs))
        return true;
    end(name, true);
    return waitUntilGone(name, 2000);
}

bool ProcessCloser::waitUntilGone(const QString &name, int ms)
{
    QDeadlineTimer deadline(ms);
    while (!find(name).isEmpty()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(50);
    }
    return true;
}

} // namespace Corbeth
