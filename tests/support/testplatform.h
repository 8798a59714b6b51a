#ifndef CORBETH_TEST_TESTPLATFORM_H
#define CORBETH_TEST_TESTPLATFORM_H

#include <QtCore/QVariant>

#include <memory>

// What the tests need of the operating system beside Qt
// (testplatform_unix.cpp, testplatform_win.cpp).

// The value the engine stored under key ("SOFTWARE/.../name") in
// HKEY_CURRENT_USER: on Windows the registry, elsewhere the sandbox's file.
// Invalid when absent.
QVariant storedUserSetting(const QString &key);
// Stores value there, as the engine would.
void storeUserSetting(const QString &key, const QVariant &value);

// The file the engine makes for a shortcut whose destination ends in ".lnk":
// the .lnk itself on Windows, a freedesktop launcher beside it elsewhere.
QString shortcutFile(const QString &lnk);
// The program that shortcut starts; empty when there is none.
QString shortcutTarget(const QString &lnk);
// The icon file it shows; empty when it names none.
QString shortcutIcon(const QString &lnk);

// The process has ended (on Unix also: a zombie nobody reaps).
bool processEnded(qint64 pid);

// This process runs as root (Unix); never on Windows, where the tests that
// need another user are skipped.
bool runsAsRoot();

// Gives a file to the user "nobody"; false where that needs root and this is not.
bool giveToNobody(const QString &path);

// Interrupts a program as Ctrl+C in its terminal does (SIGINT); false where
// that cannot be done.
bool interruptProcess(qint64 pid);

// Called in a child process before it runs its program: makes it the user
// "nobody", or ends it with 126. Unix only.
void becomeNobody();

// Exchanges two paths in one step (renameat2 RENAME_EXCHANGE); Linux only,
// canExchangePaths() says whether it exists here.
bool canExchangePaths();
void exchangePaths(const QByteArray &first, const QByteArray &second);

// While it lives, writing a file beyond a size fails as on a full disk.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(qint64 bytes);
    ~FileSizeLimit();
    // Whether this system can set such a limit (Windows cannot).
    static bool isSupported();

private:
    struct Old;
    std::unique_ptr<Old> m_old;
};

// Wine runs every program elevated and gives every file to the user, and an
// elevated engine refuses plug-ins its user could replace: skips the test
// when loading them failed with that refusal.
#define CORBETH_SKIP_IF_PLUGINS_REFUSED(result, log)                                                   \
    do {                                                                                           \
        if ((result) == CBEnum::EC_FileNotOpen && (log).contains(QStringLiteral("plugin dir refused"))) \
            QSKIP("elevated, the engine refuses plug-ins owned by the user (under Wine all files are)"); \
    } while (0)

#endif
