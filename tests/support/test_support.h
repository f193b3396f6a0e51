#pragma once

// Helpers shared by the unit and end-to-end tests: real temporary folders, real files, real
// child processes.

#include <sys/types.h>

#include <map>
#include <optional>
#include <functional>
#include <string>
#include <vector>

#include "base/file_io.h"

namespace veerline::testing {

// A fresh folder under the temporary folder, removed with everything in it on destruction.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "veerline-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The folder's real path (symbolic links in the temporary folder resolved).
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

void removeTree(const std::string& path);
// Creates the folder and its missing parents.
void makeDirs(const std::string& path, mode_t mode = 0755);
// Writes the file (creating parent folders) and sets its mode.
void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
mode_t fileMode(const std::string& path);
void makeSymlink(const std::string& target, const std::string& linkPath);
// Binds a Unix socket at `path`, named from inside its folder so that a path of any length fits.
void bindSocket(const std::string& path);

// Whether `check` holds when run in a child process as an ordinary user: root may write
// everywhere, so permission checks are tested without it. As root, `tree` is first given to that
// user so that the child can reach it; otherwise the child runs as the caller.
bool holdsUnprivileged(const std::string& tree, const std::function<bool()>& check);

// Folders of 200-byte names below `folder`, each inside the last, down to the first whose path is
// too long for the system.
struct FoldersPastPathLimit {
    explicit FoldersPastPathLimit(const std::string& folder);
    std::string name = std::string(200, 'd');
    std::string lastThatFits, tooLong;  // the paths of the deepest two
    FileDescriptor top, last;  // open on `folder` and on `lastThatFits`
};

struct RunResult {
    int exitCode = -1;   // the exit status, or 128 + signal
    std::string out;
    std::string err;
};

struct RunOptions {
    std::map<std::string, std::string> environment;  // the child's whole environment
    std::optional<std::string> cwd;
    std::string input;                                // written to standard input, then closed
    std::optional<std::string> argv0;                 // overrides argv[0]
    std::vector<std::string> rawEntries;              // added to the environment as they are
};

// Runs `executable` with `arguments` (argv[1...]) and waits for it.
RunResult run(const std::string& executable, const std::vector<std::string>& arguments,
              const RunOptions& options);

// Puts a real executable at `path` that prints its argv[0] as "ARGV0:" line, every further
// argument as an "ARG:" line and its environment as "ENV:NAME=value" lines, then exits 0.
void writeFakeTool(const std::string& path);

// Parses the output of a fake tool.
struct FakeToolReport {
    std::string argv0;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    std::vector<std::string> descriptors;  // open beyond 0 to 2, where the system lists them
};
FakeToolReport parseFakeToolReport(const std::string& output);

// The value of PATH in this process, for children that need the usual tools.
std::string systemPath();

}  // namespace veerline::testing
