// veerline-resolve: stands in front of `claude` and `codex` as a shim, and answers the shell
// prompt with --prompt. It runs before every tool start, so it does the least it can: read the
// environment, find the real tool, adjust the environment, execve.

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "build_info.h"
#include "resolution/binary_locator.h"
#include "tools/codex_adapter.h"
#include "resolution/document_loading.h"
#include "base/environment.h"
#include "base/file_io.h"
#include "base/paths.h"
#include "base/unicode.h"
#include "resolution/rule_resolver.h"
#include "resolution/shim_plan.h"
#include "platform/platform.h"

extern "C" char** environ;

using namespace veerline;

namespace {

constexpr const char* kVersion = "veerline-resolve " VEERLINE_VERSION;
constexpr const char* kOwnName = "veerline-resolve";
constexpr std::int64_t kDepthLimit = 3;
constexpr const char* kUsage =
    "this is Veerline's shim. Run it as `claude` or `codex` (via ~/.veerline/bin), or with --prompt.";

[[noreturn]] void fail(const std::string& message, int code) {
    std::string line = "veerline: " + message + "\n";
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    std::exit(code);
}

// The last non-empty component of a path split at "/"; empty when there is none.
std::string lastComponent(const std::string& path) {
    auto end = path.find_last_not_of('/');
    if (end == std::string::npos) return "";
    auto start = path.rfind('/', end);
    start = start == std::string::npos ? 0 : start + 1;
    return path.substr(start, end + 1 - start);
}

// An optional sign, then ASCII digits only, within the signed 64-bit range; anything else is 0.
std::int64_t parseDepth(const std::string& text) {
    std::size_t pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) negative = text[pos++] == '-';
    if (pos == text.size()) return 0;
    std::uint64_t magnitude = 0;
    const std::uint64_t limit = negative ? std::uint64_t(INT64_MAX) + 1 : std::uint64_t(INT64_MAX);
    for (; pos < text.size(); ++pos) {
        char c = text[pos];
        if (c < '0' || c > '9') return 0;
        auto digit = static_cast<std::uint64_t>(c - '0');
        if (magnitude > (limit - digit) / 10) return 0;
        magnitude = magnitude * 10 + digit;
    }
    if (negative) return magnitude == std::uint64_t(INT64_MAX) + 1 ? INT64_MIN : -static_cast<std::int64_t>(magnitude);
    return static_cast<std::int64_t>(magnitude);
}

// The variables the resolver reads: HOME for the paths, PWD for the working folder,
// VEERLINE_DISABLE for the profiles file, and in shim mode PATH, the depth, and what the shim
// plan weighs (its bookkeeping, the tool's own variables and every variable the bookkeeping
// names). The tool gets the rest of the environment straight from `environ`, uncopied.
Environment variablesRead(const std::string& invokedAs) {
    std::vector<std::string> names{"HOME", "PWD", "VEERLINE_DISABLE"};
    if (invokedAs == kOwnName) return currentEnvironment(names);

    names.insert(names.end(), {"PATH", "VEERLINE_SHIM_DEPTH", std::string(ShimPlan::profileVariable),
                               std::string(ShimPlan::markerVariable)});
    if (auto kind = ShimPlan::tool(invokedAs)) {
        for (auto& name : ShimPlan::variables(*kind)) names.push_back(std::move(name));
    }
    Environment read = currentEnvironment(names);
    std::set<std::string> managed = ShimPlan::managedNames(lookup(read, std::string(ShimPlan::markerVariable)));
    read.merge(currentEnvironment({managed.begin(), managed.end()}));
    return read;
}

struct Run {
    std::vector<std::string> argv;
    std::string invokedAs;
    Environment env;  // the variables the resolver reads, not the whole environment
    Paths paths;

    explicit Run(std::vector<std::string> arguments)
        : argv(std::move(arguments)), invokedAs(lastComponent(argv[0])), env(variablesRead(invokedAs)),
          paths(Paths::forCurrentUser(env)) {}

    // Worked out once per run.
    const std::string& workingDirectory() const {
        if (!workingDirectory_) workingDirectory_ = logicalWorkingDirectory(env);
        return *workingDirectory_;
    }

private:
    mutable std::optional<std::string> workingDirectory_;
};

// Prints the working folder's profile name, or nothing; never fails, so a prompt never breaks.
[[noreturn]] void promptMode(const Run& run) {
    if (std::optional<ProfileDocument> document = loadDocument(run.env, run.paths)) {
        std::string cwd = run.workingDirectory();
        RuleResolver resolver(std::move(*document), run.paths.home);
        Resolution resolution = resolver.resolve(cwd, cwd);
        // The prompt names what the shims apply: nothing for a profile whose id they won't use.
        if (resolution.profile && resolver.document.isUsable(resolution.profile->id)) {
            // Shown in the prompt: a control character must not act on the terminal. Written
            // straight to the descriptor: stdio would first ask what kind of file it is.
            std::string line = unicode::escapingControlCharacters(resolution.profile->name) + "\n";
            for (std::size_t done = 0; done < line.size();) {
                ssize_t written = ::write(STDOUT_FILENO, line.data() + done, line.size() - done);
                if (written < 0 && errno == EINTR) continue;
                if (written <= 0) break;
                done += static_cast<std::size_t>(written);
            }
        }
    }
    std::exit(0);
}

[[noreturn]] void shimMode(Run& run) {
    std::int64_t depth = 0;
    if (auto value = lookup(run.env, "VEERLINE_SHIM_DEPTH")) depth = parseDepth(*value);
    if (depth > kDepthLimit) {
        fail("`" + run.invokedAs + "` keeps resolving to a shim. Run `veerline doctor`.", 127);
    }

    std::vector<std::string> excluded{run.paths.home + "/.veerline/bin"};
    if (run.argv[0].find('/') != std::string::npos) {
        excluded.push_back(PathUtil::normalize(PathUtil::parent(run.argv[0]), run.workingDirectory()));
    }
    if (auto exe = platform::executablePath()) excluded.push_back(PathUtil::parent(*exe));

    const std::string* path = lookup(run.env, "PATH");
    BinaryLocator locator(path != nullptr ? *path : "/usr/bin:/bin", std::move(excluded));
    std::optional<std::string> found = locator.find(run.invokedAs);
    // Codex also ships inside the desktop apps; use that copy when none is on PATH.
    if (!found && run.invokedAs == CodexAdapter::binaryName) found = CodexAdapter::bundledCodex(run.paths);
    if (!found) {
        fail("couldn't find the real `" + run.invokedAs + "` on your PATH. Is it installed?", 127);
    }

    std::optional<ShimPlan::Changes> changes;
    if (std::optional<ProfileDocument> document = loadDocument(run.env, run.paths)) {
        changes = ShimPlan::changes(run.invokedAs, run.env, run.workingDirectory(), std::move(*document),
                                    run.paths);
        ShimPlan::prepare(*changes, run.invokedAs, run.paths, run.env);
    }
    // The process's environment with the plan's changes made, and the depth always set.
    std::vector<std::string> replaced{"VEERLINE_SHIM_DEPTH"};
    Environment added;
    if (changes) {
        replaced.insert(replaced.end(), changes->unset.begin(), changes->unset.end());
        added = std::move(changes->set);
    }
    added["VEERLINE_SHIM_DEPTH"] = std::to_string(depth + 1);
    ChildEnvironment childEnvironment(environ, replaced, added);

    // The strings live until execve; if it fails the process exits straight after.
    std::vector<std::string> argStrings;
    argStrings.push_back(*found);
    argStrings.insert(argStrings.end(), run.argv.begin() + 1, run.argv.end());
    std::vector<char*> cArgs;
    for (auto& arg : argStrings) cArgs.push_back(arg.data());
    cArgs.push_back(nullptr);

    ::execve(found->c_str(), cArgs.data(), childEnvironment.entries());
    fail("couldn't run " + *found + ": " + std::strerror(errno), 126);
}

}  // namespace

int main(int argc, char** argv) {
    // Every run ends in execve or exit within a fraction of a millisecond.
    leaveDescriptorsToProcessEnd();
    if (argc < 1 || argv[0] == nullptr) fail(kUsage, 2);
    Run run(std::vector<std::string>(argv, argv + argc));

    if (run.invokedAs != kOwnName) shimMode(run);

    if (run.argv.size() < 2) fail(kUsage, 2);
    if (run.argv[1] == "--prompt") promptMode(run);
    if (run.argv[1] == "--version") {
        std::printf("%s\n", kVersion);
        return 0;
    }
    fail(kUsage, 2);
}
