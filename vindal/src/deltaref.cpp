#include "deltaref_p.h"

#include "repositorylayout_p.h"

#include <QtCore/QRegularExpression>

namespace Vindal {

namespace {

const QString ListKey = QStringLiteral("deltas");

bool isHex(const QString &text, int length)
{
    static const QRegularExpression hex(QRegularExpression::anchoredPattern(QStringLiteral("[0-9a-f]+")));
    return text.size() == length && hex.match(text).hasMatch();
}

} // namespace

bool DeltaRef::listOf(const IndexEntry &entry, QList<DeltaRef> *deltas, QString *problem)
{
    if (!entry.extra.contains(ListKey))
        return true;
    if (entry.extra.value(ListKey).type() != QVariant::List) {
        *problem = QStringLiteral("\"deltas\" is not a list");
        return false;
    }
    for (const QVariant &item : entry.extra.value(ListKey).toList()) {
        const QVariantMap map = item.toMap();
        DeltaRef delta;
        delta.from = map.value(QStringLiteral("from")).toString();
        delta.package.version = entry.version;
        delta.package.file = map.value(QStringLiteral("file")).toString();
        const double size = map.value(QStringLiteral("size")).toDouble();
        delta.package.size = size >= 0 && size < 9007199254740992.0 && size == double(qint64(size)) ? qint64(size) : -1;
        delta.package.md5 = map.value(QStringLiteral("md5")).toString();
        delta.package.sha256 = map.value(QStringLiteral("sha256")).toString();
        if (!PackageIndex::isValidVersion(delta.from) || !PackageIndex::isPlainFileName(delta.package.file)
            || RepositoryLayout::isReservedFileName(delta.package.file) || delta.package.size < 0 || !isHex(delta.package.md5, 32)
            || !isHex(delta.package.sha256, 64)) {
            *problem = QStringLiteral("a delta (from \"%1\") is malformed").arg(delta.from);
            return false;
        }
        if (deltas)
            deltas->append(delta);
    }
    return true;
}

void DeltaRef::setList(IndexEntry *entry, const QList<DeltaRef> &deltas)
{
    QVariantList list;
    for (const DeltaRef &delta : deltas) {
        list.append(QVariantMap{{QStringLiteral("from"), delta.from},
                                {QStringLiteral("file"), delta.package.file},
                                {QStringLiteral("size"), delta.package.size},
                                {QStringLiteral("md5"), delta.package.md5},
                                {QStringLiteral("sha256"), delta.package.sha256}});
    }
    if (list.isEmpty())
        entry->extra.remove(ListKey);
    else
        entry->extra.insert(ListKey, list);
}

bool DeltaRef::pick(const IndexEntry &entry, const QString &installed, DeltaRef *delta)
{
    QList<DeltaRef> deltas;
    QString problem;
    if (installed.isEmpty() || !listOf(entry, &deltas, &problem))
        return false;
    for (const DeltaRef &candidate : qAsConst(deltas)) {
        if (PackageIndex::compareVersions(candidate.from, installed) == 0 && candidate.package.size < entry.size) {
            *delta = candidate;
            return true;
        }
    }
    return false;
}

QVariantMap DeltaRef::describe(QVariantMap info, const IndexEntry &full, const DeltaRef &delta)
{
    info.insert(QStringLiteral("delta"), QVariantMap{{QStringLiteral("from"), delta.from},
                                                     {QStringLiteral("to"), full.version},
                                                     {QStringLiteral("size"), delta.package.size},
                                                     {QStringLiteral("fullSize"), full.size},
                                                     {QStringLiteral("bytesSaved"), full.size - delta.package.size},
                                                     {QStringLiteral("fullFile"), full.file},
                                                     {QStringLiteral("fullSha256"), full.sha256}});
    return info;
}

QString DeltaRef::fileName(const QString &module, const QString &from, const QString &to)
{
    return QStringLiteral("%1-%2-to-%3.delta.tolmpkg").arg(module, from, to);
}

} // namespace Vindal
