#include "deltamanifest_p.h"

#include "archiveextractor_p.h"
#include "packageindex_p.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>

namespace Vindal {

namespace {

const int FormatVersion = 1;
const char *const HowNames[] = {"same", "patch", "whole", "link", "remove"};

bool isSha256(const QString &text)
{
    static const QRegularExpression hex(QRegularExpression::anchoredPattern(QStringLiteral("[0-9a-f]{64}")));
    return hex.match(text).hasMatch();
}

// A path as the manifest must write it: relative, no "." or ".." parts, no
// empty ones, and nothing named like the files an apply or unpack keeps
// beside its targets.
bool isCleanPath(const QString &path, QStringList *parts)
{
    QString reason;
    if (path.isEmpty() || !ArchiveExtractor::splitEntryPath(path, parts, &reason) || parts->join(QLatin1Char('/')) != path)
        return false;
    for (const QString &part : qAsConst(*parts)) {
        if (part.startsWith(QLatin1String(".vindal-")))
            return false;
    }
    return true;
}

bool isState(const QString &state, const QStringList &parts)
{
    if (state.isEmpty() || isSha256(state))
        return true;
    return DeltaManifest::isLinkState(state) && ArchiveExtractor::linkStaysInside(parts, state.mid(5));
}

QString problemOf(const DeltaManifest::File &file, const QStringList &parts)
{
    if (!isState(file.oldState, parts) || !isState(file.newState, parts))
        return QStringLiteral("a state is neither a SHA-256, a link inside the folder nor empty");
    if (file.size < 0 || file.mode < 0 || file.mode > 07777)
        return QStringLiteral("invalid size or mode");
    const bool newIsFile = isSha256(file.newState);
    switch (file.how) {
    case DeltaManifest::Same:
        return file.oldState == file.newState && !file.oldState.isEmpty() ? QString() : QStringLiteral("\"same\" changes the state");
    case DeltaManifest::Patch:
        return newIsFile && isSha256(file.oldState) ? QString() : QStringLiteral("\"patch\" needs an old and a new file");
    case DeltaManifest::Whole:
        return newIsFile ? QString() : QStringLiteral("\"whole\" needs a new file");
    case DeltaManifest::Link:
        return DeltaManifest::isLinkState(file.newState) ? QString() : QStringLiteral("\"link\" needs a new link");
    case DeltaManifest::Remove:
        return file.newState.isEmpty() && !file.oldState.isEmpty() ? QString() : QStringLiteral("\"remove\" needs an old state only");
    }
    return QStringLiteral("unknown \"how\"");
}

bool parseFolders(const QJsonValue &value, QStringList *folders)
{
    folders->clear();
    for (const QJsonValue &item : value.toArray()) {
        QStringList parts;
        if (!isCleanPath(item.toString(), &parts))
            return false;
        folders->append(item.toString());
    }
    return true;
}

} // namespace

const char DeltaManifest::ManifestName[] = "delta.json";

QString DeltaManifest::payloadName(int index)
{
    return QStringLiteral("files/%1").arg(index);
}

QByteArray DeltaManifest::toJson() const
{
    QJsonArray list;
    for (const File &file : files) {
        QJsonObject object{{QStringLiteral("path"), file.path}, {QStringLiteral("how"), QLatin1String(HowNames[file.how])}};
        if (!file.oldState.isEmpty())
            object.insert(QStringLiteral("old"), file.oldState);
        // An unchanged file is listed by its path and its one state.
        if (file.how != Same && !file.newState.isEmpty())
            object.insert(QStringLiteral("new"), file.newState);
        if (file.how == Patch || file.how == Whole) {
            object.insert(QStringLiteral("size"), double(file.size));
            object.insert(QStringLiteral("mode"), file.mode);
        }
        list.append(object);
    }
    const QJsonObject root{{QStringLiteral("format"), FormatVersion},
                           {QStringLiteral("module"), module},
                           {QStringLiteral("from"), from},
                           {QStringLiteral("to"), to},
                           {QStringLiteral("package"), QJsonObject{{QStringLiteral("sha256"), packageSha256},
                                                                  {QStringLiteral("size"), double(packageSize)}}},
                           {QStringLiteral("files"), list},
                           {QStringLiteral("folders"), QJsonArray::fromStringList(folders)},
                           {QStringLiteral("removedFolders"), QJsonArray::fromStringList(removedFolders)}};
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

bool DeltaManifest::parse(const QByteArray &json, QString *error)
{
    if (json.size() > MaxBytes) {
        *error = QStringLiteral("the manifest is larger than %1 bytes").arg(MaxBytes);
        return false;
    }
    QJsonParseError parseError;
    const QJsonObject root = QJsonDocument::fromJson(json, &parseError).object();
    if (root.isEmpty()) {
        *error = QStringLiteral("the manifest is not a JSON object: %1").arg(parseError.errorString());
        return false;
    }
    if (root.value(QStringLiteral("format")).toInt() != FormatVersion) {
        *error = QStringLiteral("the manifest's format is not %1").arg(FormatVersion);
        return false;
    }
    module = root.value(QStringLiteral("module")).toString();
    from = root.value(QStringLiteral("from")).toString();
    to = root.value(QStringLiteral("to")).toString();
    const QJsonObject package = root.value(QStringLiteral("package")).toObject();
    packageSha256 = package.value(QStringLiteral("sha256")).toString();
    packageSize = qint64(package.value(QStringLiteral("size")).toDouble(-1));
    if (!PackageIndex::isValidVersion(from) || !PackageIndex::isValidVersion(to) || !isSha256(packageSha256) || packageSize < 0) {
        *error = QStringLiteral("the manifest's versions or package are invalid");
        return false;
    }
    if (!parseFolders(root.value(QStringLiteral("folders")), &folders)
        || !parseFolders(root.value(QStringLiteral("removedFolders")), &removedFolders)) {
        *error = QStringLiteral("the manifest names a folder outside the target");
        return false;
    }
    files.clear();
    QSet<QString> seen;
    const QJsonArray list = root.value(QStringLiteral("files")).toArray();
    for (int i = 0; i < list.size(); ++i) {
        const QJsonObject object = list.at(i).toObject();
        File file;
        file.path = object.value(QStringLiteral("path")).toString();
        file.oldState = object.value(QStringLiteral("old")).toString();
        const QString how = object.value(QStringLiteral("how")).toString();
        file.how = How(-1);
        for (int h = Same; h <= Remove; ++h) {
            if (how == QLatin1String(HowNames[h]))
                file.how = How(h);
        }
        file.newState = file.how == Same ? file.oldState : object.value(QStringLiteral("new")).toString();
        file.size = qint64(object.value(QStringLiteral("size")).toDouble(0));
        file.mode = object.value(QStringLiteral("mode")).toInt(0644);
        QStringList parts;
        QString problem = !isCleanPath(file.path, &parts) ? QStringLiteral("the path leaves the folder or is not plain")
                        : seen.contains(file.path)        ? QStringLiteral("the path is listed twice")
                                                          : problemOf(file, parts);
        if (!problem.isEmpty()) {
            *error = QStringLiteral("manifest entry %1 (\"%2\"): %3").arg(i).arg(file.path, problem);
            return false;
        }
        seen.insert(file.path);
        files.append(file);
    }
    // A path that is a file in the new version cannot also hold files.
    for (const File &file : qAsConst(files)) {
        for (int at = file.path.indexOf(QLatin1Char('/')); at > 0; at = file.path.indexOf(QLatin1Char('/'), at + 1)) {
            const QString folder = file.path.left(at);
            if (file.how != Remove && seen.contains(folder)) {
                *error = QStringLiteral("manifest entry \"%1\" lies below the file \"%2\"").arg(file.path, folder);
                return false;
            }
        }
    }
    return true;
}

} // namespace Vindal
