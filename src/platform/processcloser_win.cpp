#include "platform/processcloser.h"

#include "win32api.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QProcess>

namespace Corbeth {

// taskkill by image name, sparing this process.
void ProcessCloser::end(const QString &name, bool force)
{
    QStringList args{QStringLiteral("/IM"), ProcessCloser::baseName(name) + QLatin1String(".exe"), QStringLiteral("/FI"),
                     QStringLiteral("PID ne %1").arg(QCoreApplication::applicationPid())};
    if (force)
        args << QStringLiteral("/F") << QStringLiteral("/T");
    QProcess::execute(QStringLiteral("taskkill"), args);
}

QList<qint64> ProcessCloser::find(const QString &name)
{
    const QString wanted = baseName(name);
    const qint64 self = QCoreApplication::applicationPid();
    QList<qint64> pids;
    for (const auto &[pid, exe] : Win32Api::runningProcesses()) {
        if (static_cast<qint64>(pid) != self
            && baseName(QString::fromStdWString(exe)).compare(wanted, Qt::CaseInsensitive) == 0)
            pids << pid;
    }
    return pids;
}

} // namespace Corbeth
