#ifndef CORBETH_SQLHELPER_H
#define CORBETH_SQLHELPER_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <functional>

namespace Corbeth {

// Remembers, per host program, which online package was fetched last and where
// its file lies, so an install can reuse a package already on disk instead of
// downloading it again. The records live in the per-user settings store, not
// in a database: the name is historical. Each call opens and closes the store.
class SQLHelper : public QObject
{
    Q_OBJECT
public:
    explicit SQLHelper(QObject *parent = nullptr);
    ~SQLHelper() override;

    QVariantMap allPackageInfo() const;
    // The record of the running program; empty when there is none.
    QVariantMap appPackageInfo() const;
    // Merges info into the program's record and stores it; info receives the
    // merged record.
    bool markOnlinePackage(QVariantMap &info);

    // Whether localPath is the package the record describes: same size, same
    // name up to a "(n)" a copy gets.
    static bool describes(const QVariantMap &record, const QString &localPath);
    // describes(), and the file is less than three days old: worth reusing.
    bool isSameFile(const QVariantMap &record, const QString &localPath) const;
    // The version of the package file localPath as the repository client's
    // latest answer or the records know it; empty when neither describes it.
    QString versionOf(const QString &localPath) const;
    bool findLocalPackage(const QString &folder, const QVariantMap &record, QString &found) const;
    // A package file on disk for the package the module service announces.
    bool searchPackage(const QString &installPath, QVariantMap &package) const;

    // Lower-case hexadecimal MD5 of the file, read in 10 MiB pieces; empty
    // when the file is missing or unreadable, or when stop, asked before each
    // piece, says so.
    static QString calculateMD5(const QString &filePath, const std::function<bool()> &stop = {});

private:
    QString m_valueName;
};

} // namespace Corbeth

#endif // CORBETH_SQLHELPER_H
