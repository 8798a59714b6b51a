#include "systeminfo.h"

namespace Corbeth {

bool SystemInfo::systemQuery(Query query, QList<QVariantMap> &blocks)
{
    return powerShellQuery(query, blocks);
}

} // namespace Corbeth
