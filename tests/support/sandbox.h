#ifndef CORBETH_TEST_SANDBOX_H
#define CORBETH_TEST_SANDBOX_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QTemporaryDir>

// The environment every test program runs in: home, XDG folders and the
// settings store root all point into one temporary folder, so no test can
// touch the user's real settings, home or system folders.
class TestSandbox
{
public:
    TestSandbox();
    ~TestSandbox();
    TestSandbox(const TestSandbox &) = delete;
    TestSandbox &operator=(const TestSandbox &) = delete;

    static QString root();
    static QString settingsRoot();

private:
    QTemporaryDir m_dir;
};

// Points the settings store at a fresh empty folder for its lifetime, for tests
// that must start from an empty store.
class SettingsSandbox
{
public:
    SettingsSandbox();
    ~SettingsSandbox();
    SettingsSandbox(const SettingsSandbox &) = delete;
    SettingsSandbox &operator=(const SettingsSandbox &) = delete;

    bool isValid() const { return m_dir.isValid(); }
    QString path() const { return m_dir.path(); }
    // Whether the store is the Windows registry, which no sandbox replaces.
    static bool isRegistry()
    {
#ifdef Q_OS_WIN
        return true;
#else
        return false;
#endif
    }

private:
    QTemporaryDir m_dir;
    QByteArray m_previous;
};

// The helper program the tests run as a real process; see testhelper.cpp.
QString testHelperPath();

#endif // CORBETH_TEST_SANDBOX_H
