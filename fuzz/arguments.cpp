// The splitter of the command lines older versions wrote to the settings store.
#include "fuzzsupport.h"

#include "installer/installer.h"

#include <QtCore/QRegularExpression>

using namespace Corbeth;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString commandLine = QString::fromUtf8(fuzzInput(data, size));
    const QStringList args = Installer::splitArguments(commandLine);
    for (const QString &arg : args) {
        if (arg.contains(QLatin1Char('"')))
            fuzzFailure("a double quote kept in an argument");
    }
    // Without quotes, blanks alone separate.
    static const QRegularExpression blanks(QStringLiteral("[ \t]+"));
    if (!commandLine.contains(QLatin1Char('"')) && args != commandLine.split(blanks, Qt::SkipEmptyParts))
        fuzzFailure("unquoted arguments not split at blanks");
    return 0;
}
