#include "records/sqlhelper.h"

#include "logging_p.h"
#include "manager/ptrmanager.h"
#include "modules/vindaler.h"
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

namespace Corbeth {

namespace {
const QString kStorePath = QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Arvenor\\TolmInstaller");
// A package file counts for reuse while it is younger than this.
const qint64 kMaxAgeSeconds = 259200;
const qint64 kReadSize = 0xA00000;
} // namespace

SQLHelper::SQLHelper(QObject *parent)
    : QObject(parent)
    , m_valueName(QStringLiteral("onlinePackageInfo"))
{
}

SQLHelper::~SQLHelper() = default;

QVariantMap SQLHelper::allPackageInfo() const
{
    return SKGlobal::instance()->settingValue(kStorePath, m_valueName).toMap();
}

QVariantMap SQLHelper::appPackageInfo() const
{
    return allPackageInfo().value(QCoreApplication::applicationName()).toMap();
}

bool SQLHelper::markOnlinePackage(QVariantMap &info)
{
    QVariantMap all = allPackageInfo();
    QVariantMap record = all.value(QCoreApplication::applicationName()).toMap();
    SKGlobal::instance()->mergeMap(record, info);
    info = record;
    all.insert(QCoreApplication::applicationName(), record);
    qCDebug(lcCorbeth) << "mark online package" << QJsonObject::fromVariantMap(record);
    SKGlobal::instance()->setSettingValue(kStorePath, m_valueName, all);
    return true;
}

bool SQLHelper::describes(const QVariantMap &record, const QString &localPath)
{
    bool converted = false;
    const qint64 bytesTotal = record.value(QStringLiteral("bytesTotal")).toLongLong(&converted);
    if (!converted) {
        qCDebug(lcCorbeth) << "oline packagesize info error";
        return false;
    }
    const QFileInfo local(localPath);
    if (!local.exists()) {
        qCWarning(lcCorbeth) << "file not exist" << localPath;
        return false;
    }
    if (local.size() != bytesTotal) {
        qCDebug(lcCorbeth) << "size not same" << local.size() << bytesTotal;
        return false;
    }
    static const QRegularExpression copyNumber(QStringLiteral("\\(\\d+\\)"));
    const QString localName = local.completeBaseName().remove(copyNumber);
    const QString recordName
        = QFileInfo(record.value(QStringLiteral("file")).toMap().value(QStringLiteral("name")).toString())
              .completeBaseName();
    if (localName != recordName) {
        qCDebug(lcCorbeth) << "filename not same" << localName << recordName;
        return false;
    }
    return true;
}

bool SQLHelper::isSameFile(const QVariantMap &record, const QString &localPath) const
{
    if (!describes(record, localPath))
        return false;
    const QFileInfo local(localPath);
    const QDateTime now = QDateTime::currentDateTime();
    const QDateTime modified = local.lastModified();
    if (!(modified < now) || modified.secsTo(now) >= kMaxAgeSeconds)
        return false;
    qCInfo(lcCorbeth) << "local is same file";
    return true;
}

bool SQLHelper::findLocalPackage(const QString &folder, const QVariantMap &record, QString &found) const
{
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files, QDir::NoSort);
    for (const QFileInfo &file : files) {
        if (file.suffix() != QLatin1String("tolmpkg"))
            continue;
        if (isSameFile(record, file.absoluteFilePath())) {
            found = file.absoluteFilePath();
            qCDebug(lcCorbeth) << ".suffix" << file.suffix();
            return true;
        }
    }
    return false;
}

bool SQLHelper::searchPackage(const QString &installPath, QVariantMap &package) const
{
    QVariantMap online = PtrManager::instance()->vindaler()->packageInfo();
    if (online.isEmpty()) {
        qCDebug(lcCorbeth) << "oline package info is empty";
        return false;
    }
    QVariantMap record = appPackageInfo();
    const QString recordPath = record.value(QStringLiteral("path")).toString();
    if (!record.isEmpty() && isSameFile(online, recordPath)) {
        qCDebug(lcCorbeth) << "sql package info" << record << recordPath;
        SKGlobal::instance()->mergeMap(record, online);
        // The repository client's "path" is where it would download the
        // package now; the file to install is the one the record found.
        record.insert(QStringLiteral("path"), recordPath);
        package = record;
        return true;
    }
    qCDebug(lcCorbeth) << "sql not exist package";
    qCDebug(lcCorbeth) << "search package by installpath.";
    QString found;
    if (findLocalPackage(installPath, online, found)) {
        qCDebug(lcCorbeth) << "installpath have";
        online.insert(QStringLiteral("path"), found);
        package = online;
        return true;
    }
    qCDebug(lcCorbeth) << "local not exist same package";
    return false;
}

QString SQLHelper::versionOf(const QString &localPath) const
{
    // A package keeps its name and size wherever it is copied; the repository
    // refuses a second file of the same name with other contents.
    const QVariantMap latest = PtrManager::instance()->vindaler()->packageInfo();
    for (const QVariantMap &known : {latest, appPackageInfo()}) {
        if (describes(known, localPath))
            return known.value(QStringLiteral("version")).toString();
    }
    // A delta makes the version it leads to.
    const QVariantMap delta = latest.value(QStringLiteral("delta")).toMap();
    const QVariantMap deltaFile{{QStringLiteral("bytesTotal"), delta.value(QStringLiteral("size"))},
                                {QStringLiteral("file"), QVariantMap{{QStringLiteral("name"), delta.value(QStringLiteral("file"))}}}};
    return !delta.isEmpty() && describes(deltaFile, localPath) ? delta.value(QStringLiteral("to")).toString() : QString();
}

QString SQLHelper::calculateMD5(const QString &filePath, const std::function<bool()> &stop)
{
    QFile file(filePath);
    if (!file.exists()) {
        qCCritical(lcCorbeth) << "calculateMD5 file not existed! file path = " << filePath;
        return QString();
    }
    if (!file.open(QIODevice::ReadOnly)) {
        qCCritical(lcCorbeth) << "calculateMD5 can not open file path = " << filePath;
        return QString();
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    QByteArray buffer(int(kReadSize), Qt::Uninitialized);
    for (;;) {
        if (stop && stop())
            return QString();
        const qint64 read = file.read(buffer.data(), kReadSize);
        if (read < 0) {
            // Half a digest would pass for a wrong one: report nothing.
            qCCritical(lcCorbeth) << "calculateMD5 can not open file path = " << filePath << file.errorString();
            return QString();
        }
        if (read == 0)
            break;
        hash.addData(buffer.constData(), int(read));
    }
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace Corbeth
