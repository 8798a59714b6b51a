#ifndef VINDAL_FSPATH_P_H
#define VINDAL_FSPATH_P_H

#include <QtCore/QFile>
#include <QtCore/QString>

#include <filesystem>

namespace Vindal {

// Links are made and read with std::filesystem, which Qt 5 has no portable
// call for; these convert paths without a detour through the locale.
inline std::filesystem::path toFsPath(const QString &path)
{
#ifdef Q_OS_WIN
    return std::filesystem::path(path.toStdWString());
#else
    return std::filesystem::path(QFile::encodeName(path).toStdString());
#endif
}

inline QString fromFsPath(const std::filesystem::path &path)
{
#ifdef Q_OS_WIN
    return QString::fromStdWString(path.wstring());
#else
    return QFile::decodeName(QByteArray::fromStdString(path.string()));
#endif
}

} // namespace Vindal

#endif // VINDAL_FSPATH_P_H
