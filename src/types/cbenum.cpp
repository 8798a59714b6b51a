#include <corbeth/cbenum.h>

namespace Corbeth {

CBEnum::CBEnum()
    : QObject(nullptr)
{
}

CBEnum::~CBEnum() = default;

} // namespace Corbeth
