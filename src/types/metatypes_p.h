#ifndef CORBETH_METATYPES_P_H
#define CORBETH_METATYPES_P_H

namespace Corbeth {

// Registers the types that cross threads in queued connections under both of
// their spellings ("CBEnum::ErrorCode" and "Corbeth::CBEnum::ErrorCode", and
// likewise for HardwareInfo). Safe to call more than once.
void registerMetaTypes();

} // namespace Corbeth

#endif // CORBETH_METATYPES_P_H
