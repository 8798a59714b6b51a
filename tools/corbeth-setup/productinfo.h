#ifndef CORBETH_SETUP_PRODUCTINFO_H
#define CORBETH_SETUP_PRODUCTINFO_H

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

namespace Corbeth {

// What the installer window shows about the product, read from the
// configuration's "product" section (the engine does not read it) and its
// "additions" names.
struct ProductInfo
{
    QString name;
    QString version;
    QString publisher;
    QString licence;
    // The program the finish page offers to start, relative to the install folder.
    QString program;
    QString installPath;
    QStringList additions;
    // What the components page says about an addition: "product"."components".
    struct Component
    {
        QString description;
        qint64 size = 0; // bytes; 0 when not given
    };
    QMap<QString, Component> components;

    static ProductInfo fromConfig(const QVariantMap &config);
    // The program's absolute path in an install folder; empty when none is named.
    QString programIn(const QString &folder) const;
};

} // namespace Corbeth

#endif // CORBETH_SETUP_PRODUCTINFO_H
