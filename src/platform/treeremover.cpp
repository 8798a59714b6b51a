#include "platform/treeremover.h"

#include "platform/protectedpath.h"

namespace fs = std::filesystem;

namespace Corbeth {

TreeRemover::Status TreeRemover::remove(const fs::path &folder, const Rule &rule)
{
    const fs::path path = ProtectedPath::located(folder);
    if (!path.has_relative_path() || ProtectedPath::isProtected(path))
        return Status::Refused;
    return removeLocated(path, folder, rule);
}

} // namespace Corbeth
