#ifndef CORBETH_TEST_TESTFILES_H
#define CORBETH_TEST_TESTFILES_H

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QString>

// The text and file helpers most test programs need, in one place.

inline QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

// Writes content to path, making its folder first.
inline bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Whether anything has the name path, a dangling link included. (On Windows
// QFileInfo calls any name ending in ".lnk" a link, even with nothing there.)
inline bool nameTaken(const QString &path)
{
    const QFileInfo info(path);
    return QDir(info.absolutePath())
        .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot)
        .contains(info.fileName());
}

// The content of path; empty when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

#endif // CORBETH_TEST_TESTFILES_H
