#ifndef CORBETH_PACK_COMMANDLINE_H
#define CORBETH_PACK_COMMANDLINE_H

#include <vindal/outcome.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <cstdio>

// What every command of corbeth-pack shares: its exit codes, its one-line
// messages and its own command line with --help.
//
// Exit codes: 0 success, 1 the operation failed, 2 the command line is wrong.
enum ExitCode { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2 };

void printLine(std::FILE *stream, const QString &text);
QString codeName(int code);
// "corbeth-pack <command>: <message>" on standard error; ExitFailure.
int fail(const QString &command, const QString &message);
int fail(const QString &command, const Vindal::Outcome &outcome);

// The command line of one command: its own parser, with --help.
class CommandLine
{
public:
    CommandLine(const QString &command, const QString &synopsis, const char *example);

    void addValue(const QStringList &names, const QString &description, const QString &valueName);
    void addFlag(const QString &name, const QString &description) { m_parser.addOption(QCommandLineOption(name, description)); }
    QString command() const { return m_command; }

    // Parses; false with the exit code in *exitCode when the command must end
    // here (an error, or --help).
    bool parse(const QStringList &arguments, int positionals, int *exitCode);

    QString value(const QString &name) const { return m_parser.value(name); }
    QStringList values(const QString &name) const { return m_parser.values(name); }
    bool isSet(const QString &name) const { return m_parser.isSet(name); }
    QString positional(int i) const { return m_parser.positionalArguments().value(i); }

    // Every named option must be given; reports the first that is missing.
    bool require(const QStringList &names, int *exitCode) const;

    int usage(const QString &message) const;

private:
    QString m_command;
    QString m_usage;
    QString m_example;
    QCommandLineParser m_parser;
};

#endif // CORBETH_PACK_COMMANDLINE_H
