#include "testfiles.h"
#include "testplatform.h"

#include <QtCore/QSettings>

#include <csignal>
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

static QString userHive()
{
    return qEnvironmentVariable("CORBETH_SETTINGS_ROOT") + QStringLiteral("/HKEY_CURRENT_USER.ini");
}

QVariant storedUserSetting(const QString &key)
{
    return QSettings(userHive(), QSettings::IniFormat).value(key);
}

void storeUserSetting(const QString &key, const QVariant &value)
{
    QSettings(userHive(), QSettings::IniFormat).setValue(key, value);
}

QString shortcutFile(const QString &lnk)
{
    return lnk.chopped(4) + QStringLiteral(".desktop");
}

QString shortcutTarget(const QString &lnk)
{
    // Exec="<program>", quoted as a launcher's one argument.
    const QByteArray launcher = readFile(shortcutFile(lnk));
    const int exec = launcher.indexOf("\nExec=\"");
    if (exec < 0)
        return QString();
    const int start = exec + 7;
    return QString::fromUtf8(launcher.mid(start, launcher.indexOf('"', start) - start));
}

QString shortcutIcon(const QString &lnk)
{
    return QString::fromUtf8(readFile(shortcutFile(lnk))).section("\nIcon="_s, 1).section(QLatin1Char('\n'), 0, 0);
}

bool processEnded(qint64 pid)
{
    if (::kill(pid_t(pid), 0) != 0)
        return true;
    // A zombie that nobody reaps in a container without an init.
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const int close = stat.lastIndexOf(')');
    return close > 0 && stat.mid(close + 2, 1) == "Z";
}

bool runsAsRoot()
{
    return ::geteuid() == 0;
}

bool giveToNobody(const QString &path)
{
    return ::geteuid() == 0 && ::chown(QFile::encodeName(path).constData(), 65534, 65534) == 0;
}

bool interruptProcess(qint64 pid)
{
    return ::kill(pid_t(pid), SIGINT) == 0;
}

void becomeNobody()
{
    if (::setgid(65534) != 0 || ::setuid(65534) != 0)
        ::_exit(126);
}

struct FileSizeLimit::Old
{
    rlimit limit{};
};

// Beyond the limit a write fails (EFBIG) instead of ending the process with SIGXFSZ.
FileSizeLimit::FileSizeLimit(qint64 bytes) : m_old(new Old)
{
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_old->limit);
    const rlimit limit{rlim_t(bytes), m_old->limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit()
{
    setrlimit(RLIMIT_FSIZE, &m_old->limit);
}

bool FileSizeLimit::isSupported()
{
    return true;
}

bool canExchangePaths()
{
    return true;
}

void exchangePaths(const QByteArray &first, const QByteArray &second)
{
    ::renameat2(AT_FDCWD, first.constData(), AT_FDCWD, second.constData(), RENAME_EXCHANGE);
}
