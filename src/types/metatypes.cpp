#include "metatypes_p.h"

#include <corbeth/cbenum.h>
#include <corbeth/hardwareinfo.h>

#include <QtCore/QMetaType>

namespace Corbeth {

namespace {
int s_errorCodeTypeId = 0;
int s_hardwareInfoTypeId = 0;
} // namespace

void registerMetaTypes()
{
    // The fully qualified types are registered once and their ids cached; the
    // short names the signals of the engine use are aliases of them.
    if (!s_errorCodeTypeId)
        s_errorCodeTypeId = qRegisterMetaType<CBEnum::ErrorCode>();
    if (!s_hardwareInfoTypeId)
        s_hardwareInfoTypeId = qRegisterMetaType<HardwareInfo>();
    qRegisterMetaType<CBEnum::ErrorCode>("CBEnum::ErrorCode");
    qRegisterMetaType<HardwareInfo>("HardwareInfo");
}

} // namespace Corbeth
