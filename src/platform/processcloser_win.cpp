#include "platform/processcloser.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QProcess>

#include <windows.h>
#include <tlhelp32.h>

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
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return pids;
    PROCESSENTRY32W entry;
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        const QString exe = baseName(QString::fromWCharArray(entry.szExeFile));
        if (static_cast<qint64>(entry.th32ProcessID) != self && exe.compare(wanted, Qt::CaseInsensitive) == 0)
            pids << entry.th32ProcessID;
    }
    CloseHandle(snapshot);
    return pids;
}

} // namespace Corbeth
