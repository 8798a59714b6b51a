#include "commandline.h"

#include <QtCore/QMetaEnum>

void printLine(std::FILE *stream, const QString &text)
{
    std::fprintf(stream, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stream);
}

QString codeName(int code)
{
    const char *key = QMetaEnum::fromType<Vindal::Error::ErrorCode>().valueToKey(code);
    return key ? QLatin1String(key) : QString::number(code, 16).prepend(QLatin1String("0x"));
}

int fail(const QString &command, const QString &message)
{
    printLine(stderr, QStringLiteral("corbeth-pack %1: %2").arg(command, message));
    return ExitFailure;
}

int fail(const QString &command, const Vindal::Outcome &outcome)
{
    QString message = outcome.message;
    if (!outcome.subject.isEmpty() && !message.contains(outcome.subject))
        message += QStringLiteral(" (%1)").arg(outcome.subject);
    return fail(command, QStringLiteral("%1 [%2]").arg(message, codeName(outcome.code)));
}

CommandLine::CommandLine(const QString &command, const QString &synopsis, const char *example)
    : m_command(command)
    , m_usage(QStringLiteral("Usage: corbeth-pack %1 %2 [options]").arg(command, synopsis.section(QLatin1Char(':'), 0, 0)))
    , m_example(QLatin1String(example))
{
    m_parser.setApplicationDescription(QStringLiteral("corbeth-pack %1 %2").arg(command, synopsis));
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    m_parser.addHelpOption();
}

void CommandLine::addValue(const QStringList &names, const QString &description, const QString &valueName)
{
    m_parser.addOption(QCommandLineOption(names, description, valueName));
}

bool CommandLine::parse(const QStringList &arguments, int positionals, int *exitCode)
{
    if (!m_parser.parse(arguments)) {
        *exitCode = usage(m_parser.errorText());
        return false;
    }
    if (m_parser.isSet(QStringLiteral("help"))) {
        // The command's own usage line, not the program's, and an example to copy.
        QString text = m_parser.helpText();
        text.replace(0, text.indexOf(QLatin1Char('\n')), m_usage);
        printLine(stdout, text + QStringLiteral("\nExample:\n  ") + m_example);
        *exitCode = ExitSuccess;
        return false;
    }
    if (m_parser.positionalArguments().size() != positionals) {
        *exitCode = usage(positionals ? QStringLiteral("expects %1 argument(s)").arg(positionals)
                                      : QStringLiteral("takes no arguments"));
        return false;
    }
    return true;
}

bool CommandLine::require(const QStringList &names, int *exitCode) const
{
    for (const QString &name : names) {
        if (m_parser.value(name).isEmpty()) {
            *exitCode = usage(QStringLiteral("missing %1%2").arg(QLatin1String(name.size() == 1 ? "-" : "--"), name));
            return false;
        }
    }
    return true;
}

int CommandLine::usage(const QString &message) const
{
    printLine(stderr, QStringLiteral("corbeth-pack %1: %2 (see 'corbeth-pack %1 --help')").arg(m_command, message));
    return ExitUsage;
}
