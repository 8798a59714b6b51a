#include "logging_p.h"

// The same category as the engine, so one logging rule shows or hides everything.
Q_LOGGING_CATEGORY(lcVindal, "corbeth.lib")
