#include "platform/shortcut.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSaveFile>

namespace Corbeth {

namespace {

const QLatin1String kWindowsSuffix(".lnk");

// A value of a launcher's key: one line, whatever the text holds.
QString value(QString text)
{
    return text.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('\n'), QLatin1String("\\n"))
        .replace(QLatin1Char('\r'), QLatin1String("\\r"))
        .replace(QLatin1Char('\t'), QLatin1String("\\t"));
}

// The program as the one argument of Exec: quoted, so that spaces and the
// characters the launcher reads ($, `, ", \, %) are taken as they are.
QString execArgument(QString path)
{
    for (const char *special : {"\\", "\"", "`", "$"})
        path.replace(QLatin1String(special), QLatin1Char('\\') + QLatin1String(special));
    return value(QLatin1Char('"') + path.replace(QLatin1Char('%'), QLatin1String("%%")) + QLatin1Char('"'));
}

} // namespace

QString Shortcut::fileFor(const QString &dest)
{
    if (!dest.endsWith(kWindowsSuffix, Qt::CaseInsensitive))
        return dest;
    return dest.chopped(kWindowsSuffix.size()) + QLatin1String(".desktop");
}

bool Shortcut::create(const QString &target, const QString &dest, const QString &icon)
{
    const QString file = fileFor(dest);
    if (file == dest)
        return QFile::link(target, dest);
    const QFileInfo program(target);
    QString text = QStringLiteral("[Desktop Entry]\nType=Application\nVersion=1.0\nName=%1\nExec=%2\nPath=%3\n")
                       .arg(value(QFileInfo(dest).completeBaseName()), execArgument(program.absoluteFilePath()),
                            value(program.absolutePath()));
    if (!icon.isEmpty())
        text += QStringLiteral("Icon=%1\n").arg(value(icon));
    // Written beside and renamed over: a link in its place is replaced, never followed.
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(text.toUtf8()) < 0 || !out.commit())
        return false;
    // Desktops start only launchers marked executable.
    return QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                           | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
}

} // namespace Corbeth
