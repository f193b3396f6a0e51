#pragma once

// The pieces every `veerline` command shares: what it knows about the run, how it reports a
// mistake in the command line, and how each group of commands is added to the parser.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/environment.h"
#include "base/paths.h"
#include "profiles/profile.h"
#include "base/error.h"
#include "profiles/profile_document.h"

namespace CLI {
class App;
}

namespace veerline::cli {

// The run's environment, the user's folders and what the terminal can take.
struct Context {
    Environment environment;
    Paths paths;
    bool outputIsTerminal = false;
    bool inputIsTerminal = false;
    // 24-bit colour on standard output: a terminal, and neither NO_COLOR nor TERM=dumb.
    bool colour = false;

    static Context current();

    // The folder the user is in as the shell names it: PWD when it is the same folder as
    // getcwd, which keeps a path taken through symbolic links.
    std::string workingDirectory() const;
};

// A command typed wrongly (bad value, missing argument); reported like a parse error, exit 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The chosen command's work, set while parsing and run afterwards so that main reports its
// failures. Returns the exit status.
using Action = std::function<int()>;

// Makes `action` the command to run when `command` is chosen on the command line.
void onSelected(CLI::App* command, Action& chosen, Action action);

void addProfileCommands(CLI::App& app, const Context& context, Action& chosen);
void addRuleCommands(CLI::App& app, const Context& context, Action& chosen);
void addShellCommands(CLI::App& app, const Context& context, Action& chosen);
void addRunCommands(CLI::App& app, const Context& context, Action& chosen);
// Completion reads the command tree at each Tab. A positional or option named "profile" (or
// given the type name "PROFILE") is completed with profile names, "tool" and "tools" with tools,
// "folder" and "path" with file names, one checked by CLI::IsMember with its choices.
void addCompletionCommands(CLI::App& app, const Context& context, Action& chosen);

// The report of a command typed wrongly: "veerline: " and `message`, the command line with
// "--" in its place when an option meant for another program was typed before it, and where to
// read the usage of the command the parser reached. `words` are the arguments after the
// program's name.
std::string usageErrorReport(const CLI::App& app, const std::string& message, const std::vector<std::string>& words);

void addDoctorCommands(CLI::App& app, const Context& context, Action& chosen);

// A veerline executable (this program unless another is named) and the veerline-resolve installed
// with it. Throws VeerlineError::io.
struct Executables {
    std::string resolver;
    std::string cli;
};
Executables findExecutables(std::optional<std::string> program = std::nullopt);

void addSecretCommands(CLI::App& app, const Context& context, Action& chosen);

void addUsageCommands(CLI::App& app, const Context& context, Action& chosen);

void addShareCommands(CLI::App& app, const Context& context, Action& chosen);
// Brings the shared setup into the profile's (or every profile's) folders when sharing is on;
// problems are warnings on standard error, never failures of the command that asked.
void shareSetupWith(const Context& context, std::optional<ProfileID> profile = std::nullopt,
                    std::optional<ToolKind> tool = std::nullopt);

// Deletes a removed profile's data folders through the command-line tools' adapters (each signs
// its tool out first), reporting each folder deleted.
void removeProfileData(const Context& context, const Profile& profile);

// Deletes a removed profile's keys (every tool's) from the system's secret store; on failure says
// so on standard error. Returns the exit status: 0 also when no secret store can be reached.
int removeProfileSecrets(const Profile& profile);

// `veerline login PROFILE claude --api-key`: stores the key read from standard input and points
// Claude Code's "apiKeyHelper" in the profile's settings.json at `veerline secret get`.
int loginClaudeCodeWithApiKey(const Context& context, const Profile& profile);

// A profile typed by the user: by name as the document's look-up finds it, else by id.
// Throws VeerlineError::profileNotFound with the text as typed, and invalidProfile naming the id
// when the id can't safely name the profile's folders and keys (see `ProfileDocument::isUsable`).
const Profile& findProfile(const ProfileDocument& document, const std::string& nameOrID);
Profile& findProfile(ProfileDocument& document, const std::string& nameOrID);
// The same, whatever its id: for the edits that only take it out of the document.
const Profile& findAnyProfile(const ProfileDocument& document, const std::string& nameOrID);
// The refusal to act on a profile whose id `reason` says is unusable, with the way out.
VeerlineError unusableProfileError(const Profile& profile, const std::string& reason);

}  // namespace veerline::cli
