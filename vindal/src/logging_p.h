#ifndef VINDAL_LOGGING_P_H
#define VINDAL_LOGGING_P_H

#include <QtCore/QLoggingCategory>

// The library's own category, apart from the engine's, so that a product can
// follow the repository client alone ("vindal.debug=true").
Q_DECLARE_LOGGING_CATEGORY(lcVindal)

#endif // VINDAL_LOGGING_P_H
