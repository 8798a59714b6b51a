// corbeth-cleanup: removes an installed product's folder once the program that
// ran the uninstall has ended, then removes itself.
//
//   corbeth-cleanup --pid PID --dir FOLDER [--keep PATH]... [--wait SECONDS] [--retry SECONDS]
//
// It waits for PID to end (at most --wait seconds, 600 by default; if it is
// still running then, nothing is removed), removes everything in FOLDER except
// the --keep paths (files still locked are retried for --retry seconds, 10 by
// default), removes FOLDER when it is empty, and finally deletes its own file.
// A drive root, the user's home or a system folder is refused.
//
// Plain C++ on purpose: the tool runs from a temporary folder, away from the Qt
// libraries of the folder it removes.
#include "platform/protectedpath.h"
#include "platform/treeremover.h"
#include "selfprocess.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

enum ExitCode {
    Done = 0,
    Incomplete = 1, // some entries could not be removed in time
    Refused = 2,
    BadArguments = 3,
    StillRunning = 4,
};

struct Options
{
    std::int64_t pid = -1;
    fs::path dir;
    std::vector<fs::path> keep;
    int waitSeconds = 600;
    int retrySeconds = 10;
};

// Absolute and without "." or ".." or a trailing separator ("DIR/" is DIR),
// but with links left as they are: a kept link is kept as the link.
fs::path lexicallyNormal(const fs::path &path)
{
    fs::path result = fs::absolute(path).lexically_normal();
    while (result.has_relative_path() && !result.has_filename())
        result = result.parent_path();
    return result;
}

bool parseInt(const char *text, long long &value)
{
    char *end = nullptr;
    value = std::strtoll(text, &end, 10);
    return end && *end == '\0' && end != text;
}

bool parseOptions(int argc, char *argv[], Options &options)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char *value = argv[i + 1];
        long long number = 0;
        if (name == "--dir") {
            options.dir = fs::u8path(value);
        } else if (name == "--keep") {
            // "DIR/" keeps DIR, as "DIR" does.
            options.keep.push_back(lexicallyNormal(fs::u8path(value)));
        } else if (parseInt(value, number) && number >= 0) {
            if (name == "--pid")
                options.pid = number;
            else if (name == "--wait")
                options.waitSeconds = static_cast<int>(number);
            else if (name == "--retry")
                options.retrySeconds = static_cast<int>(number);
            else
                return false;
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && options.pid >= 0 && !options.dir.empty();
}

// Whether path is one of the kept paths or a folder that holds one.
bool isKept(const fs::path &path, const std::vector<fs::path> &keep)
{
    for (const fs::path &k : keep) {
        const auto mismatch = std::mismatch(path.begin(), path.end(), k.begin(), k.end());
        if (mismatch.first == path.end())
            return true;
    }
    return false;
}

// Kept paths stay with all they hold; a folder that holds one is walked and stays.
Corbeth::TreeRemover::Entry keepRule(const fs::path &entry, const std::vector<fs::path> &keep)
{
    using Entry = Corbeth::TreeRemover::Entry;
    if (std::find(keep.begin(), keep.end(), entry) != keep.end())
        return Entry::Keep;
    return isKept(entry, keep) ? Entry::KeepFolder : Entry::Remove;
}

int refuse(const fs::path &dir)
{
    std::fprintf(stderr, "corbeth-cleanup: refusing to remove %s\n", dir.u8string().c_str());
    return Refused;
}

} // namespace

int main(int argc, char *argv[])
{
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: corbeth-cleanup --pid PID --dir FOLDER [--keep PATH]... "
                             "[--wait SECONDS] [--retry SECONDS]\n");
        return BadArguments;
    }

    int result = Done;
    const fs::path dir = lexicallyNormal(options.dir);
    if (Corbeth::ProtectedPath::isProtected(dir)) {
        result = refuse(dir);
    } else if (!SelfProcess::waitForExit(options.pid, std::chrono::seconds(options.waitSeconds))) {
        std::fprintf(stderr, "corbeth-cleanup: process %lld is still running\n", static_cast<long long>(options.pid));
        result = StillRunning;
    } else {
        // The folder is opened (and checked again) only now, after the wait,
        // and walked through its open handle: a folder swapped for a link
        // meanwhile is refused, never followed.
        using Corbeth::TreeRemover;
        const auto rule = [&options](const fs::path &entry) { return keepRule(entry, options.keep); };
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.retrySeconds);
        TreeRemover::Status status;
        while ((status = TreeRemover::remove(dir, rule)) == TreeRemover::Status::Incomplete
               && std::chrono::steady_clock::now() < deadline) {
            // Something still holds a file open (a virus scanner, a closing program).
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        if (status == TreeRemover::Status::Refused)
            result = refuse(dir);
        else if (status == TreeRemover::Status::Incomplete)
            result = Incomplete;
    }
    SelfProcess::removeExecutable();
    return result;
}
