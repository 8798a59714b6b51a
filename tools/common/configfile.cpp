#include "configfile.h"

#include "exitcodes.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace Corbeth {

QString ConfigFile::problem(const QString &path, int &exitCode)
{
    const QFileInfo info(path);
    const QString shown = info.absoluteFilePath();
    exitCode = CorbethExit::fromError(CBEnum::EC_FileNotOpen);
    if (!info.exists())
        return QStringLiteral("there is no configuration file %1").arg(shown);
    QFile file(path);
    if (info.isDir() || !file.open(QIODevice::ReadOnly)) {
        exitCode = CorbethExit::Unreadable;
        return QStringLiteral("the configuration file %1 cannot be read: %2")
            .arg(shown, info.isDir() ? QStringLiteral("it is a folder") : file.errorString());
    }
    const QByteArray data = file.readAll();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    exitCode = CorbethExit::fromError(CBEnum::EC_ConfigDataError);
    if (error.error != QJsonParseError::NoError) {
        const QByteArray before = data.left(error.offset);
        const int line = before.count('\n') + 1;
        const int column = error.offset - (before.lastIndexOf('\n') + 1) + 1;
        return QStringLiteral("the configuration %1 is not valid JSON at line %2, column %3: %4")
            .arg(shown).arg(line).arg(column).arg(error.errorString());
    }
    if (!document.isObject() || document.object().isEmpty())
        return QStringLiteral("the configuration %1 holds no settings (it must be a JSON object with at least "
                              "\"install\")")
            .arg(shown);
    exitCode = CorbethExit::Success;
    return QString();
}

} // namespace Corbeth
