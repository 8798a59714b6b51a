#include "sandbox.h"

#include <QtCore/QDir>

#include <cstdio>
#include <cstdlib>

namespace {
QString s_root;

void setEnv(const char *name, const QString &value)
{
    qputenv(name, QFile::encodeName(value));
}
} // namespace

TestSandbox::TestSandbox()
    : m_dir(QDir::tempPath() + QLatin1String("/corbeth-test-XXXXXX"))
{
    if (!m_dir.isValid()) {
        std::fprintf(stderr, "cannot create the test sandbox: %s\n", qPrintable(m_dir.errorString()));
        std::abort();
    }
    s_root = m_dir.path();
    const QString home = s_root + QLatin1String("/home");
    QDir().mkpath(home + QLatin1String("/Desktop"));
    QDir().mkpath(s_root + QLatin1String("/settings"));
    QDir().mkpath(s_root + QLatin1String("/runtime"));
    QFile::setPermissions(s_root + QLatin1String("/runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    setEnv("HOME", home);
    setEnv("XDG_CONFIG_HOME", home + QLatin1String("/.config"));
    setEnv("XDG_DATA_HOME", home + QLatin1String("/.local/share"));
    setEnv("XDG_CACHE_HOME", home + QLatin1String("/.cache"));
    setEnv("XDG_DESKTOP_DIR", home + QLatin1String("/Desktop"));
    setEnv("XDG_RUNTIME_DIR", s_root + QLatin1String("/runtime"));
    setEnv("CORBETH_SETTINGS_ROOT", settingsRoot());
}

TestSandbox::~TestSandbox()
{
    s_root.clear();
}

QString TestSandbox::root()
{
    return s_root;
}

QString TestSandbox::settingsRoot()
{
    return s_root + QLatin1String("/settings");
}

SettingsSandbox::SettingsSandbox()
    : m_previous(qgetenv("CORBETH_SETTINGS_ROOT"))
{
    if (m_dir.isValid())
        setEnv("CORBETH_SETTINGS_ROOT", m_dir.path());
}

SettingsSandbox::~SettingsSandbox()
{
    qputenv("CORBETH_SETTINGS_ROOT", m_previous);
}

QString testHelperPath()
{
    return QStringLiteral(CORBETH_TEST_HELPER);
}
