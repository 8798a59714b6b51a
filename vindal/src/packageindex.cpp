#include "packageindex_p.h"

#include "deltaref_p.h"
#include "releasechannels_p.h"
#include "repositorylayout_p.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

namespace Vindal {

namespace {

const int FormatVersion = 1;

QString versionKey(PackageIndex::Kind kind)
{
    return kind == PackageIndex::Module ? QStringLiteral("version") : QStringLiteral("softVersion");
}

QString listKey(PackageIndex::Kind kind)
{
    return kind == PackageIndex::Module ? QStringLiteral("versions") : QStringLiteral("upgrades");
}

bool isHex(const QString &text, int length)
{
    if (text.size() != length)
        return false;
    for (const QChar c : text) {
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    }
    return true;
}

} // namespace

QVariantMap IndexEntry::toVariantMap() const
{
    QVariantMap map = extra;
    map.insert(QStringLiteral("version"), version);
    if (!modelCode.isEmpty())
        map.insert(QStringLiteral("modelCode"), modelCode);
    map.insert(QStringLiteral("file"), file);
    map.insert(QStringLiteral("size"), size);
    map.insert(QStringLiteral("md5"), md5);
    map.insert(QStringLiteral("sha256"), sha256);
    return map;
}

bool PackageIndex::parse(const QByteArray &json, QString *error)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (!doc.isObject()) {
        *error = parseError.error != QJsonParseError::NoError ? parseError.errorString()
                                                              : QStringLiteral("not a JSON object");
        return false;
    }
    const QJsonObject root = doc.object();
    if (root.value(QStringLiteral("format")).toInt(FormatVersion) > FormatVersion) {
        *error = QStringLiteral("format %1 is newer than this client understands")
                     .arg(root.value(QStringLiteral("format")).toInt());
        return false;
    }
    m_module = root.value(QStringLiteral("module")).toString();
    m_expires = QDateTime();
    if (root.contains(QStringLiteral("expires"))) {
        m_expires = QDateTime::fromString(root.value(QStringLiteral("expires")).toString(), Qt::ISODate);
        if (!m_expires.isValid()) {
            *error = QStringLiteral("\"expires\" is not an ISO 8601 date and time");
            return false;
        }
    }
    const QJsonValue list = root.value(listKey(m_kind));
    if (!list.isArray()) {
        *error = QStringLiteral("no \"%1\" list").arg(listKey(m_kind));
        return false;
    }
    m_entries.clear();
    const QJsonArray array = list.toArray();
    for (int i = 0; i < array.size(); ++i) {
        QJsonObject object = array.at(i).toObject();
        IndexEntry entry;
        entry.version = object.take(versionKey(m_kind)).toString();
        if (m_kind == Upgrades)
            entry.modelCode = object.take(QStringLiteral("modelCode")).toString();
        entry.file = object.take(QStringLiteral("file")).toString();
        const QJsonValue size = object.take(QStringLiteral("size"));
        // Converting a double beyond qint64 is undefined: such a size is invalid.
        const double sizeValue = size.toDouble(-1);
        entry.size = sizeValue >= 0 && sizeValue < 9223372036854775808.0 ? qint64(sizeValue) : -1;
        entry.md5 = object.take(QStringLiteral("md5")).toString();
        entry.sha256 = object.take(QStringLiteral("sha256")).toString();
        entry.extra = object.toVariantMap();
        QString problem;
        if (!isValidVersion(entry.version))
            problem = QStringLiteral("invalid %1").arg(versionKey(m_kind));
        else if (m_kind == Upgrades && entry.modelCode.isEmpty())
            problem = QStringLiteral("no modelCode");
        else if (!isPlainFileName(entry.file))
            problem = QStringLiteral("file is not a plain file name");
        else if (RepositoryLayout::isReservedFileName(entry.file))
            problem = QStringLiteral("file takes a name of the repository layout");
        else if (entry.size < 0 || size.toDouble() != double(entry.size))
            problem = QStringLiteral("invalid size");
        else if (!isHex(entry.md5, 32))
            problem = QStringLiteral("md5 is not 32 lower-case hex characters");
        else if (!isHex(entry.sha256, 64))
            problem = QStringLiteral("sha256 is not 64 lower-case hex characters");
        if (problem.isEmpty())
            DeltaRef::listOf(entry, nullptr, &problem);
        QList<Rollout> channels; // a malformed release refuses the index like any other key
        if (problem.isEmpty() && m_kind == Module)
            ReleaseChannels::read(entry, &channels, &problem);
        if (!problem.isEmpty()) {
            *error = QStringLiteral("entry %1 (%2): %3").arg(i).arg(entry.version, problem);
            return false;
        }
        m_entries.append(entry);
    }
    return true;
}

QByteArray PackageIndex::toJson() const
{
    QJsonArray array;
    for (const IndexEntry &entry : m_entries) {
        QJsonObject object = QJsonObject::fromVariantMap(entry.extra);
        object.insert(versionKey(m_kind), entry.version);
        if (m_kind == Upgrades)
            object.insert(QStringLiteral("modelCode"), entry.modelCode);
        object.insert(QStringLiteral("file"), entry.file);
        object.insert(QStringLiteral("size"), double(entry.size));
        object.insert(QStringLiteral("md5"), entry.md5);
        object.insert(QStringLiteral("sha256"), entry.sha256);
        array.append(object);
    }
    QJsonObject root;
    root.insert(QStringLiteral("format"), FormatVersion);
    if (m_kind == Module)
        root.insert(QStringLiteral("module"), m_module);
    if (m_expires.isValid())
        root.insert(QStringLiteral("expires"), m_expires.toUTC().toString(Qt::ISODate));
    root.insert(listKey(m_kind), array);
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

const IndexEntry *PackageIndex::newest(const QString &modelCode) const
{
    const IndexEntry *best = nullptr;
    for (const IndexEntry &entry : m_entries) {
        if (entry.modelCode == modelCode && (!best || compareVersions(entry.version, best->version) > 0))
            best = &entry;
    }
    return best;
}

const IndexEntry *PackageIndex::find(const QString &version, const QString &modelCode) const
{
    for (const IndexEntry &entry : m_entries) {
        if (compareVersions(entry.version, version) == 0 && entry.modelCode == modelCode)
            return &entry;
    }
    return nullptr;
}

void PackageIndex::upsert(const IndexEntry &entry)
{
    for (IndexEntry &existing : m_entries) {
        if (compareVersions(existing.version, entry.version) == 0 && existing.modelCode == entry.modelCode) {
            existing = entry;
            return;
        }
    }
    m_entries.append(entry);
}

int PackageIndex::compareVersions(const QString &a, const QString &b)
{
    static const QRegularExpression separators(QStringLiteral("[.-]"));
    const QStringList left = a.split(separators);
    const QStringList right = b.split(separators);
    const int count = qMax(left.size(), right.size());
    for (int i = 0; i < count; ++i) {
        const QString l = i < left.size() ? left.at(i) : QStringLiteral("0");
        const QString r = i < right.size() ? right.at(i) : QStringLiteral("0");
        bool lNumber = false;
        bool rNumber = false;
        const qulonglong ln = l.toULongLong(&lNumber);
        const qulonglong rn = r.toULongLong(&rNumber);
        if (lNumber && rNumber) {
            if (ln != rn)
                return ln < rn ? -1 : 1;
        } else if (const int c = l.compare(r)) {
            return c < 0 ? -1 : 1;
        }
    }
    return 0;
}

// Patterns match the whole string: "$" alone would also match before a
// final line break.
bool PackageIndex::isValidVersion(const QString &version)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9][A-Za-z0-9._+-]{0,63}")));
    return pattern.match(version).hasMatch();
}

bool PackageIndex::isPlainFileName(const QString &name)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9_][A-Za-z0-9._+-]{0,199}")));
    // Windows drops a trailing dot, and a device name (with any extension)
    // names no file there: either would name another file on its disks.
    static const QRegularExpression device(QRegularExpression::anchoredPattern(QStringLiteral("(con|prn|aux|nul|com[1-9]|lpt[1-9])(\\..*)?")),
                                           QRegularExpression::CaseInsensitiveOption);
    return pattern.match(name).hasMatch() && !name.endsWith(QLatin1Char('.')) && !device.match(name).hasMatch();
}

} // namespace Vindal
