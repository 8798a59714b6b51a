#ifndef CORBETH_TREEREMOVER_H
#define CORBETH_TREEREMOVER_H

#include <filesystem>
#include <functional>

namespace Corbeth {

// Removes a folder tree without ever following a link, even one put in place
// of a folder while the removal runs. Each folder is opened once, refusing a
// link, and everything in it is reached through that open folder, never again
// by its path: on Linux through handles relative to the open folder
// (openat/unlinkat); on Windows each folder is held open without delete
// sharing, so that it cannot be moved or replaced while it is walked, and
// junctions and folder links are removed as links. The folder given is checked
// against the protected-path rule once it is open, as the system names it.
// Plain C++ without Qt, for the cleanup tool as for the engine.
class TreeRemover
{
public:
    enum class Entry {
        Remove,
        Keep,       // left alone with all it holds
        KeepFolder, // what it holds is walked; the folder itself stays
    };
    // Decides for each entry, given as the folder given joined with the
    // entry's names below it.
    using Rule = std::function<Entry(const std::filesystem::path &)>;

    enum class Status {
        Done,       // everything the rule lets go is gone
        Incomplete, // some entries could not be removed
        Missing,
        Refused,    // a link, not a folder, a protected folder, or moved while it was checked
    };

    // The folder itself goes too when the rule says Remove for it and it is
    // left empty.
    static Status remove(const std::filesystem::path &folder, const Rule &rule);

private:
    // The walk, once path (folder as ProtectedPath::located() gives it) has
    // passed the protected-path rule.
    static Status removeLocated(const std::filesystem::path &path, const std::filesystem::path &folder,
                                const Rule &rule);
};

} // namespace Corbeth

#endif // CORBETH_TREEREMOVER_H
