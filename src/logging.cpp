#include "logging_p.h"

Q_LOGGING_CATEGORY(lcCorbeth, "corbeth.lib")
