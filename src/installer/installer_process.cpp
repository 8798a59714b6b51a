// The process step, closing running programs and the driver check.
#include "installer/installer.h"

#include "config/configer.h"
#include "logging_p.h"
#include "manager/ptrmanager.h"
#include "platform/driverprobe.h"
#include "platform/processcloser.h"
#include "platform/skglobal.h"

#include <QtCore/QFileInfo>
#include <QtCore/QMetaEnum>

namespace Corbeth {

namespace {

// How long a program of the clear-process list may take to end by itself
// before it is ended forcibly.
constexpr int kCloseGraceMs = 3000;

QStringList extraProcessNames(const QList<ExtraProcess> &extras)
{
    const QMetaEnum meta = QMetaEnum::fromType<ExtraProcess>();
    QStringList names;
    for (ExtraProcess extra : extras)
        names << QLatin1String(meta.valueToKey(extra));
    return names;
}

} // namespace

QStringList Installer::splitArguments(const QString &commandLine)
{
    // Blanks (spaces, tabs) separate arguments and a run of them counts as one;
    // double quotes group ("C:/Program Files/x.exe" stays one argument) and are
    // dropped; "" alone is an empty argument; backslashes are plain characters,
    // since they are Windows path separators; an unclosed quote runs to the end.
    QStringList args;
    QString current;
    bool inQuotes = false;
    bool hasArgument = false;
    for (const QChar c : commandLine) {
        if (c == QLatin1Char('"')) {
            inQuotes = !inQuotes;
            hasArgument = true;
        } else if (!inQuotes && (c == QLatin1Char(' ') || c == QLatin1Char('\t'))) {
            if (hasArgument)
                args << current;
            current.clear();
            hasArgument = false;
        } else {
            current += c;
            hasArgument = true;
        }
    }
    if (hasArgument)
        args << current;
    qCDebug(lcCorbeth) << "split sapce" << commandLine << args;
    return args;
}

CBEnum::ErrorCode Installer::processExe(const QList<ProcessHelper> &list)
{
    for (const ProcessHelper &item : list) {
        QStringList args;
        if (item.extraProcess.contains(EP_WaitExecOlderUninstall) && !item.args.isEmpty()) {
            // A whole command line as the older version wrote it to the settings store.
            args = splitArguments(QDir::toNativeSeparators(expandCommand(item.args.first())));
        } else {
            for (const QString &arg : item.args)
                args << expandPath(arg);
        }
        const QString program = expandPath(item.program);
        QByteArray output;
        int exitCode = 0; // stays 0 for a program that could not be started
        const bool ran = SKGlobal::instance()->runProcess(program, item.runingTimeout, args, item.waitTime, output,
                                                          exitCode);
        if (item.level == EL_Warn)
            continue;
        if (!ran) {
            qCCritical(lcCorbeth) << "processExe" << Q_FUNC_INFO << program;
            return CBEnum::EC_ProcessTimeout;
        }
        if (item.extraProcess.contains(EP_CheckDriver) && exitCode != 0) {
            qCCritical(lcCorbeth) << "driver install fail" << extraProcessNames(item.extraProcess) << exitCode;
            return CBEnum::EC_DriverError;
        }
    }
    return CBEnum::EC_NoError;
}

bool Installer::clearProcess()
{
    return closePrograms(programsToClose());
}

QStringList Installer::programsToClose() const
{
    QStringList names;
    for (const QString &entry : qAsConst(m_clearProcess))
        names << QFileInfo(expandPath(entry)).fileName();
    return names;
}

bool Installer::closePrograms(const QStringList &names)
{
    bool closed = true;
    for (const QString &name : names) {
        qCDebug(lcCorbeth) << "clear process" << name;
        if (!ProcessCloser::close(name, kCloseGraceMs)) {
            qCWarning(lcCorbeth) << "process still running" << name << ProcessCloser::find(name);
            closed = false;
        }
    }
    return closed;
}

void Installer::loadDriverIdentification()
{
    // "driverIdentification": {"vimba": {"windows": [...], "linux": [...]}, "turntable": [...]}
    // A list applies to every system; a type the document names replaces its
    // built-in identification.
    m_driverIds.clear();
    const QMetaEnum meta = QMetaEnum::fromType<CBEnum::DriverType>();
    for (int i = 0; i < meta.keyCount(); ++i) {
        const auto type = static_cast<CBEnum::DriverType>(meta.value(i));
        m_driverIds.insert(type, DriverProbe::defaultIdentification(type));
    }
    const QSharedPointer<Configer> configer = PtrManager::instance()->configer();
    const QVariantMap ids = configer ? configer->configData().value(QStringLiteral("driverIdentification")).toMap()
                                     : QVariantMap();
    for (auto it = ids.cbegin(); it != ids.cend(); ++it) {
        CBEnum::DriverType type;
        if (!Configer::strToDriverType(it.key(), type)) {
            qCWarning(lcCorbeth) << "driverIdentification unknown driver type" << it.key();
            continue;
        }
        const QVariant value = it.value();
        m_driverIds.insert(type, value.type() == QVariant::Map
                                     ? value.toMap().value(DriverProbe::platformKey()).toStringList()
                                     : value.toStringList());
    }
}

bool Installer::driverExist(const QList<CBEnum::DriverType> &drivers)
{
    loadDriverIdentification();
    DriverProbe probe;
    const QMetaEnum meta = QMetaEnum::fromType<CBEnum::DriverType>();
    for (CBEnum::DriverType type : drivers) {
        const QStringList ids = m_driverIds.value(type);
        if (ids.isEmpty()) {
            // Nothing to look for: it cannot be checked, so it does not block.
            qCWarning(lcCorbeth) << "driver identification missing, taken as present" << meta.valueToKey(type);
            continue;
        }
        if (!probe.isPresent(ids)) {
            qCWarning(lcCorbeth) << "driver not found" << meta.valueToKey(type) << ids;
            return false;
        }
        qCDebug(lcCorbeth) << "driver found" << meta.valueToKey(type);
    }
    return true;
}

} // namespace Corbeth
