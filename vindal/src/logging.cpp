#include "logging_p.h"

Q_LOGGING_CATEGORY(lcVindal, "vindal")
