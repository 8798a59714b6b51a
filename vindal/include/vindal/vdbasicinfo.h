#ifndef VINDAL_VDBASICINFO_H
#define VINDAL_VDBASICINFO_H

#include <vindal/vindal_export.h>

#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace Vindal {

// Optional details of a module request. A default-constructed record asks for
// what the configuration names.
struct VINDAL_EXPORT VDBasicInfo
{
    QString version;   // pin this version instead of the newest
    QVariantMap extra; // carried into the reply's result unread
};

} // namespace Vindal

Q_DECLARE_METATYPE(Vindal::VDBasicInfo)

#endif // VINDAL_VDBASICINFO_H
