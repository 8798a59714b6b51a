#ifndef VINDAL_LOGGING_P_H
#define VINDAL_LOGGING_P_H

#include "vindal/error.h"

#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaEnum>

// The library's own category, apart from the engine's, so that a product can
// follow the repository client alone ("vindal.debug=true").
Q_DECLARE_LOGGING_CATEGORY(lcVindal)

// The key of an error code, first word of the line that ends a request
// ("request failed: SignatureInvalid the signature of ..."), so that a client
// reading the log can tell the causes apart.
inline const char *errorKey(int code)
{
    return QMetaEnum::fromType<Vindal::Error::ErrorCode>().valueToKey(code);
}

#endif // VINDAL_LOGGING_P_H
