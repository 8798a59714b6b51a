#ifndef VINDAL_PACKAGEINDEX_P_H
#define VINDAL_PACKAGEINDEX_P_H

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace Vindal {

// One package of an index: a version of a module, or an installer upgrade.
struct IndexEntry
{
    QString version;     // "version" of a module, "softVersion" of an upgrade
    QString modelCode;   // upgrades only
    QString file;        // plain file name beside the index
    qint64 size = -1;
    QString md5;
    QString sha256;
    QVariantMap extra;   // other keys, kept as they are ("environment", "os", "lang", "published", ...)

    QVariantMap toVariantMap() const;
};

// A module's index document ("versions") or the upgrades document
// ("upgrades"). Parsing is strict: one malformed entry refuses the whole
// document, since it is signed and published as one.
class PackageIndex
{
public:
    enum Kind { Module, Upgrades };

    explicit PackageIndex(Kind kind = Module) : m_kind(kind) {}

    bool parse(const QByteArray &json, QString *error);
    QByteArray toJson() const;

    Kind kind() const { return m_kind; }
    QString module() const { return m_module; }
    void setModule(const QString &module) { m_module = module; }
    // When the publisher's signature stops vouching for the document
    // ("expires"); invalid when it never does.
    QDateTime expires() const { return m_expires; }
    void setExpires(const QDateTime &expires) { m_expires = expires; }
    bool isExpired() const { return m_expires.isValid() && m_expires < QDateTime::currentDateTimeUtc(); }
    const QList<IndexEntry> &entries() const { return m_entries; }

    // The newest entry (by version order) of the model code (empty for
    // modules), null when there is none.
    const IndexEntry *newest(const QString &modelCode = QString()) const;
    const IndexEntry *find(const QString &version, const QString &modelCode = QString()) const;
    // Adds the entry, replacing one of the same version (and model code).
    void upsert(const IndexEntry &entry);

    // Orders versions part by part at "." and "-": numerically where both
    // parts are numbers, as text otherwise; missing parts count as "0".
    static int compareVersions(const QString &a, const QString &b);
    static bool isValidVersion(const QString &version);
    // A file name without any folder part, safe in a URL and on every disk.
    static bool isPlainFileName(const QString &name);

private:
    Kind m_kind;
    QString m_module;
    QDateTime m_expires;
    QList<IndexEntry> m_entries;
};

} // namespace Vindal

#endif // VINDAL_PACKAGEINDEX_P_H
