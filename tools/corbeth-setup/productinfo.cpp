#include "productinfo.h"

#include <QtCore/QDir>

#include <algorithm>

namespace Corbeth {

ProductInfo ProductInfo::fromConfig(const QVariantMap &config)
{
    const QVariantMap product = config.value(QStringLiteral("product")).toMap();
    ProductInfo info;
    info.name = product.value(QStringLiteral("name")).toString();
    if (info.name.isEmpty())
        info.name = QStringLiteral("the product");
    info.version = product.value(QStringLiteral("version")).toString();
    info.publisher = product.value(QStringLiteral("publisher")).toString();
    info.licence = product.value(QStringLiteral("licence")).toString();
    info.program = product.value(QStringLiteral("program")).toString();
    info.installPath = product.value(QStringLiteral("installPath")).toString();
    if (info.installPath.startsWith(QLatin1Char('~')))
        info.installPath.replace(0, 1, QDir::homePath());
    if (info.installPath.isEmpty())
        info.installPath = QDir::homePath() + QLatin1Char('/') + info.name;
    info.installPath = QDir::cleanPath(info.installPath);
    info.additions = config.value(QStringLiteral("additions")).toMap().keys();
    const QVariantMap components = product.value(QStringLiteral("components")).toMap();
    for (auto it = components.cbegin(); it != components.cend(); ++it) {
        const QVariantMap component = it.value().toMap();
        info.components.insert(it.key(), {component.value(QStringLiteral("description")).toString(),
                                          std::max<qint64>(0, component.value(QStringLiteral("size")).toLongLong())});
    }
    return info;
}

QString ProductInfo::programIn(const QString &folder) const
{
    return program.isEmpty() ? QString() : QDir::cleanPath(QDir(folder).filePath(program));
}

} // namespace Corbeth
