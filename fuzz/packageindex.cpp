// A module's index or the upgrades document as a repository serves it. What
// the parser accepts must come back unchanged through toJson(), since
// publishing rewrites an index that way.
#include "fuzzsupport.h"

#include "packageindex_p.h"

using namespace Vindal;

namespace {

bool sameEntries(const QList<IndexEntry> &a, const QList<IndexEntry> &b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i) {
        if (a.at(i).toVariantMap() != b.at(i).toVariantMap())
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json = fuzzInput(data, size);
    for (const PackageIndex::Kind kind : {PackageIndex::Module, PackageIndex::Upgrades}) {
        PackageIndex index(kind);
        QString error;
        if (!index.parse(json, &error))
            continue;
        PackageIndex again(kind);
        if (!again.parse(index.toJson(), &error))
            fuzzFailure("an accepted index refused after toJson()");
        // The upgrades document has no module name to keep.
        if (!sameEntries(index.entries(), again.entries()) || (kind == PackageIndex::Module && again.module() != index.module()))
            fuzzFailure("an accepted index changed by toJson()");
        // Mixed numeric and text parts need not order totally, so newest()
        // is only run, not checked against every entry.
        for (const IndexEntry &entry : index.entries()) {
            if (!index.newest(entry.modelCode) || !index.find(entry.version, entry.modelCode))
                fuzzFailure("an entry not found in its own index");
        }
    }
    return 0;
}
