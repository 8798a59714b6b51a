#include "failurecause.h"

#include "exitcodes.h"

#include <QtCore/QMutex>
#include <utility>

namespace Corbeth {

namespace {

QMutex g_lock;
QtMessageHandler g_previous = nullptr;
bool g_passOn = false;
QString g_cause;
QString g_key;
QStringList g_configWarnings;

// The lines that end a request of the repository client, "<prefix> <ErrorKey> <message>",
// and the engine's lines that name a cause in words.
const char *const kRepositoryLines[] = {"request failed: ", "unpacking failed: ", "request refused: "};
const char *const kEngineLines[] = {"suicide tool not found: "};
// The engine's line for a value of the configuration it read as another type:
// "configdata converted" <key> <value> [skipped], or "configdata clamped".
const char *const kConfigLines[] = {"configdata converted ", "configdata clamped "};

QString configWarning(const QString &rest, const char *prefix)
{
    const int end = rest.indexOf(QLatin1Char('"'), 1);
    const QString key = rest.left(end + 1);
    QString value = rest.mid(end + 2);
    const bool skipped = value.endsWith(QLatin1String(" skipped"));
    if (skipped)
        value.chop(8);
    // QVariant(QString, "abc") reads as "abc".
    if (value.startsWith(QLatin1String("QVariant(")) && value.endsWith(QLatin1Char(')')))
        value = value.mid(value.indexOf(QLatin1String(", ")) + 2).chopped(1);
    const char *what = skipped ? "was skipped (it has the wrong type)"
        : qstrcmp(prefix, kConfigLines[1]) == 0 ? "was clamped to fit"
                                                : "was converted to the type it needs";
    return QStringLiteral("the configuration's value %1 %2: %3").arg(key, QLatin1String(what), value);
}

void listenTo(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const bool engine = qstrcmp(context.category, "corbeth.lib") == 0;
    if (engine && (type == QtWarningMsg || type == QtCriticalMsg)) {
        QMutexLocker lock(&g_lock);
        for (const char *prefix : kRepositoryLines) {
            if (message.startsWith(QLatin1String(prefix))) {
                const QString rest = message.mid(int(qstrlen(prefix)));
                g_key = rest.section(QLatin1Char(' '), 0, 0);
                g_cause = rest.section(QLatin1Char(' '), 1);
            }
        }
        for (const char *prefix : kEngineLines) {
            if (message.startsWith(QLatin1String(prefix))) {
                g_key = QLatin1String(prefix);
                g_cause = message.mid(int(qstrlen(prefix)));
            }
        }
        for (const char *prefix : kConfigLines) {
            if (message.startsWith(QLatin1String(prefix)))
                g_configWarnings << configWarning(message.mid(int(qstrlen(prefix))), prefix);
        }
    }
    if ((!engine || g_passOn) && g_previous)
        g_previous(type, context, message);
}

} // namespace

void FailureCause::listen(bool passOn)
{
    g_passOn = passOn;
    if (!g_previous)
        g_previous = qInstallMessageHandler(listenTo);
}

void FailureCause::reset()
{
    QMutexLocker lock(&g_lock);
    g_cause.clear();
    g_key.clear();
}

QString FailureCause::text()
{
    QMutexLocker lock(&g_lock);
    return g_cause;
}

int FailureCause::exitCode(CBEnum::ErrorCode code)
{
    QMutexLocker lock(&g_lock);
    static const struct
    {
        const char *key;
        int exitCode;
    } precise[] = {
        {"NotFound", CorbethExit::NotInRepository},
        {"SignatureInvalid", CorbethExit::Untrusted},
        {"IndexExpired", CorbethExit::Untrusted},
        {"InvalidIndex", CorbethExit::Damaged},
        {"ChecksumMismatch", CorbethExit::Damaged},
        {"CorruptArchive", CorbethExit::Damaged},
        {"UnsafeArchive", CorbethExit::Damaged},
        {"DiskFull", CorbethExit::CannotWrite},
        {"DowngradeRefused", CorbethExit::Downgrade},
        {"ConfigError", CorbethExit::fromError(CBEnum::EC_ConfigDataError)},
        {kEngineLines[0], CorbethExit::ToolMissing},
    };
    if (code != CBEnum::EC_NoError) {
        for (const auto &entry : precise) {
            if (g_key == QLatin1String(entry.key))
                return entry.exitCode;
        }
    }
    return CorbethExit::fromError(code);
}

QStringList FailureCause::takeConfigWarnings()
{
    QMutexLocker lock(&g_lock);
    // The tools hand the document back (with a retry bound): once is enough.
    g_configWarnings.removeDuplicates();
    return std::exchange(g_configWarnings, {});
}

} // namespace Corbeth
