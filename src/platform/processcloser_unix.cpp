#include "platform/processcloser.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <csignal>

namespace Corbeth {

namespace {

QByteArray readProcFile(qint64 pid, const char *name)
{
    QFile file(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(name)));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// An ended process whose parent has not collected it yet is not running.
bool isZombie(qint64 pid)
{
    const QByteArray stat = readProcFile(pid, "stat");
    const int close = stat.lastIndexOf(')');
    return close >= 0 && stat.size() > close + 2 && stat.at(close + 2) == 'Z';
}

QString lastComponent(const QString &path)
{
    const int slash = qMax(path.lastIndexOf(QLatin1Char('/')), path.lastIndexOf(QLatin1Char('\\')));
    return path.mid(slash + 1);
}

// The names a process is known by: its executable file and its first argument
// (the latter also catches Windows programs run through a compatibility layer,
// whose first argument is a Windows path).
QStringList namesOf(qint64 pid)
{
    QStringList names;
    QString exe = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid));
    exe.remove(QLatin1String(" (deleted)"));
    if (!exe.isEmpty())
        names << lastComponent(exe);
    const QByteArray cmdline = readProcFile(pid, "cmdline");
    const QString argv0 = QFile::decodeName(cmdline.left(cmdline.indexOf('\0')));
    if (!argv0.isEmpty())
        names << lastComponent(argv0);
    return names;
}

} // namespace

QList<qint64> ProcessCloser::find(const QString &name)
{
    const QString wanted = baseName(name);
    const qint64 self = QCoreApplication::applicationPid();
    QList<qint64> pids;
    if (wanted.isEmpty())
        return pids;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool isPid = false;
        const qint64 pid = entry.toLongLong(&isPid);
        if (!isPid || pid == self)
            continue;
        const QStringList names = namesOf(pid);
        for (const QString &candidate : names) {
            if (baseName(candidate) == wanted && !isZombie(pid)) {
                pids << pid;
                break;
            }
        }
    }
    return pids;
}

void ProcessCloser::end(const QString &name, bool force)
{
    const QList<qint64> pids = find(name);
    for (qint64 pid : pids)
        ::kill(static_cast<pid_t>(pid), force ? SIGKILL : SIGTERM);
}

} // namespace Corbeth
