#include "skglobal.h"

#include "logging_p.h"
#include "settingsstore_p.h"
#include "treeprocess_p.h"

#include <QtCore/QDir>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QMutex>
#include <QtCore/QSaveFile>
#include <QtCore/QTimer>

#include <climits>

namespace Corbeth {

namespace {
QBasicMutex s_instanceMutex;
SKGlobal *s_instance = nullptr;

// The instance exists from the moment the library is loaded.
const struct InstanceMaker
{
    InstanceMaker() { SKGlobal::instance(); }
} s_instanceMaker;

int secondsToMs(int seconds)
{
    return seconds > INT_MAX / 1000 ? INT_MAX : seconds * 1000;
}

// A file of ours is replaced whole or not at all. The direct-write fallback
// keeps a writable file in a read-only folder writable.
bool openSaveFile(QSaveFile &file, QIODevice::OpenMode mode)
{
    file.setDirectWriteFallback(true);
    return file.open(mode);
}
} // namespace

SKGlobal::SKGlobal() = default;
SKGlobal::~SKGlobal() = default;

SKGlobal *SKGlobal::instance()
{
    QMutexLocker lock(&s_instanceMutex);
    if (!s_instance)
        s_instance = new SKGlobal;
    return s_instance;
}

void SKGlobal::destroyInstance()
{
    QMutexLocker lock(&s_instanceMutex);
    delete s_instance;
    s_instance = nullptr;
}

bool SKGlobal::runProcess(const QString &program, int timeout, const QStringList &args, int linger,
                          QByteArray &output, int &exitCode)
{
    TreeProcess process;
    qCDebug(lcCorbeth) << "process exe" << program << args << linger << timeout;
    connect(&process, &QProcess::started, &process, [] { qCDebug(lcCorbeth) << "process start"; });
    connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &process,
            [] { qCDebug(lcCorbeth) << "process exit"; });
    process.start(program, args, QIODevice::ReadWrite);
    qCDebug(lcCorbeth) << "process pid" << process.processId();
    if (!process.waitForStarted(30000)) {
        // Deliberately not a failure: only an overrun is reported by the result.
        qCWarning(lcCorbeth) << "process started fail" << program << process.error();
        return true;
    }

    int waitMs = secondsToMs(timeout);
    if (timeout == -1) {
        waitMs = -1;
    } else if (timeout < 0) {
        // Only -1 means "no limit"; any other negative value would make Qt wait
        // forever, so it is taken as 0.
        qCWarning(lcCorbeth) << "process timeout invalid, taken as 0" << timeout;
        waitMs = 0;
    }
    // A timeout of 0 fails at once, even for a program that is already done.
    if (waitMs == 0 || !process.waitForFinished(waitMs)) {
        qCCritical(lcCorbeth) << "process error" << program << "time :" << timeout;
        if (!process.killTree())
            qCCritical(lcCorbeth) << "process tree not ended" << program;
        return false;
    }

    output = process.readAllStandardOutput();
    exitCode = process.exitCode();
    qCDebug(lcCorbeth) << "process existcode" << exitCode << program << output;
    if (linger > 0) {
        qCDebug(lcCorbeth) << "wait" << linger;
        QEventLoop loop;
        QTimer::singleShot(secondsToMs(linger), &loop, &QEventLoop::quit);
        loop.exec();
    }
    qCDebug(lcCorbeth) << "finished process" << program;
    process.close();
    return true;
}

bool SKGlobal::runProcess(const QString &program, int timeout, const QStringList &args, int linger,
                          QByteArray &output)
{
    int exitCode = 0;
    return runProcess(program, timeout, args, linger, output, exitCode);
}

bool SKGlobal::readFile(const QString &path, QByteArray &content)
{
    if (path.isEmpty()) {
        qCDebug(lcCorbeth) << Q_FUNC_INFO << "is emptyyyyyyyyyyyyyyy" << path;
        return false;
    }
    QFile file(path);
    if (!file.exists()) {
        qCCritical(lcCorbeth) << "config file not exist" << path;
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        qCCritical(lcCorbeth) << "config file open fail" << path << file.errorString();
        return false;
    }
    content = file.readAll();
    return true;
}

bool SKGlobal::readJsonMap(const QString &path, QVariantMap &map)
{
    QByteArray content;
    if (!readFile(path, content)) {
        qCCritical(lcCorbeth) << "read file fail" << path;
        return false;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(content, &error);
    if (error.error == QJsonParseError::NoError) {
        map = document.object().toVariantMap();
        if (!map.isEmpty())
            return true;
    }
    qCCritical(lcCorbeth) << "config file parse json error" << path << error.errorString();
    return false;
}

QJsonObject SKGlobal::readJsonObject(const QString &path)
{
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QJsonObject();
    const QByteArray bytes = file.readAll();
    if (bytes.isEmpty())
        return QJsonObject();
    return QJsonDocument::fromJson(QString::fromUtf8(bytes).trimmed().toUtf8()).object();
}

bool SKGlobal::writeFile(const QString &path, const QByteArray &data)
{
    const QFileInfo info(path);
    if (!info.exists() && !QDir().mkpath(info.absolutePath())) {
        qCCritical(lcCorbeth) << "mkpath config file not exist" << path << info.absolutePath();
        return false;
    }
    QSaveFile file(path);
    if (!openSaveFile(file, QIODevice::WriteOnly)) {
        qCCritical(lcCorbeth) << "config file open fail" << path << file.errorString();
        return false;
    }
    file.write(data);
    if (!file.commit()) {
        qCCritical(lcCorbeth) << "config file write fail" << path << file.errorString();
        return false;
    }
    return true;
}

bool SKGlobal::writeJsonMap(const QString &path, const QVariantMap &map)
{
    return writeFile(path, QJsonDocument(QJsonObject::fromVariantMap(map)).toJson());
}

bool SKGlobal::writeJsonValue(const QString &key, const QJsonValue &value, const QString &path)
{
    QFile file(path);
    if (!file.exists() && file.open(QIODevice::WriteOnly | QIODevice::Text))
        file.close();
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCCritical(lcCorbeth) << "not exist file" << path << file.errorString();
        return false;
    }
    const QByteArray content = file.readAll();
    file.close();

    QJsonObject object;
    if (!content.isEmpty()) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(QString::fromUtf8(content).toUtf8(), &error);
        // Rewriting a file that is not a JSON object would lose its content.
        if (!document.isObject()) {
            qCCritical(lcCorbeth) << "config file parse json error" << path << error.errorString();
            return false;
        }
        object = document.object();
    }
    object.insert(key, value);

    QSaveFile out(path);
    if (!openSaveFile(out, QIODevice::WriteOnly | QIODevice::Text)) {
        qCCritical(lcCorbeth) << "no perm" << path << out.errorString();
        return false;
    }
    out.write(QJsonDocument(object).toJson());
    if (!out.commit()) {
        qCCritical(lcCorbeth) << "no perm" << path << out.errorString();
        return false;
    }
    return true;
}

void SKGlobal::mergeMap(QVariantMap &target, const QVariantMap &source)
{
    for (auto it = source.cbegin(); it != source.cend(); ++it)
        target.insert(it.key(), it.value());
}

QVariant SKGlobal::settingValue(const QString &path, const QString &key)
{
    // allKeys() rather than contains(): a key of another case or spelling that
    // value() might still find is deliberately not found.
    for (const auto &settings : SettingsStore::openForRead(path)) {
        if (settings->allKeys().contains(key, Qt::CaseSensitive))
            return settings->value(key);
    }
    return QVariant();
}

void SKGlobal::setSettingValue(const QString &path, const QString &key, const QVariant &value)
{
    const auto settings = SettingsStore::open(path);
    if (!settings)
        return;
    settings->setValue(key, value);
    settings->sync();
    if (settings->status() != QSettings::NoError)
        qCCritical(lcCorbeth) << "settings write fail" << path << key << settings->status();
}

void SKGlobal::clearSettings(const QString &path)
{
    const auto settings = SettingsStore::open(path);
    if (!settings)
        return;
    // remove() of the empty key clears the current group only, where clear()
    // would empty the whole hive file.
    settings->remove(QString());
    settings->sync();
    if (settings->status() != QSettings::NoError)
        qCCritical(lcCorbeth) << "settings write fail" << path << settings->status();
}

bool SKGlobal::isDriveFixed(const QString &path)
{
    const QByteArray device = devicePathOf(path);
    qCDebug(lcCorbeth) << "is driver fix" << device;
    quint16 busType = 0;
    if (GetDriveTypeByBus(device.constData(), busType) != 0) {
        // A drive whose bus cannot be read is taken as fixed, on purpose.
        qCCritical(lcCorbeth) << "GetDriveTypeByBus fail" << device;
        return true;
    }
    qCDebug(lcCorbeth) << "is driver fix" << busType;
    return busType != BusTypeUsb;
}

} // namespace Corbeth
