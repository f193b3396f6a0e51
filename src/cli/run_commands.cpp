// `veerline env`, `veerline run` and `veerline login`: a profile's environment printed, handed
// to a command, or used to sign a tool in.

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <set>

#include "cli/cli.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/secret_input.h"
#include "base/error.h"
#include "base/file_io.h"
#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"
#include "profiles/profile_store.h"
#include "shell/shell_quote.h"
#include "tools/tool_registry.h"

extern "C" char** environ;

namespace veerline::cli {

namespace {

struct RunOptions {
    std::string profile;
    std::string tool;
    std::vector<std::string> command;  // `run`: the command; `login`: more arguments for the sign-in
    bool print = false;
    bool apiKey = false;
};

ToolContext toolContext(const Context& context) {
    return ToolContext{context.paths, context.environment};
}

// The data folders must exist before a tool is pointed at them, as the shims make sure too.
void prepareTools(const Context& context, const Profile& profile) {
    for (const auto& adapter : ToolRegistry::cliAdapters(toolContext(context))) {
        if (profile.uses(adapter->kind())) adapter->prepare(profile);
    }
}

std::vector<std::string> splitNames(const std::string& list) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        if (comma > start) names.push_back(list.substr(start, comma - start));
        start = comma + 1;
    }
    return names;
}

// Pointers to the strings, then a null pointer: an argv or envp for exec.
std::vector<char*> nullTerminated(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (auto& text : strings) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environmentEntries(const Environment& environment) {
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
    return entries;
}

// Replaces this process with `file`; on failure prints why and returns the shell's status
// for it (127 not found, 126 otherwise).
int execute(const std::string& file, const std::vector<std::string>& arguments, const Environment& environment,
            bool searchPath) {
    std::vector<std::string> entries = environmentEntries(environment);
    std::vector<char*> envp = nullTerminated(entries);
    std::vector<std::string> args = arguments;
    std::vector<char*> argv = nullTerminated(args);

    std::cout.flush();
    std::cerr.flush();
    if (searchPath) {
        // execvp searches the PATH of `environ`, so the new environment's PATH decides.
        char** previous = environ;
        environ = envp.data();
        ::execvp(file.c_str(), argv.data());
        int error = errno;
        environ = previous;
        errno = error;
    } else {
        ::execve(file.c_str(), argv.data(), envp.data());
    }
    int error = errno;
    std::cerr << "veerline: Couldn't run " << curlyQuoted(file) << ": " << std::strerror(error) << "\n";
    return error == ENOENT ? 127 : 126;
}

int printEnvironment(const Context& context, const RunOptions& options) {
    ProfileDocument document = ProfileStore(context.paths).load();
    const Profile& profile = findProfile(document, options.profile);
    prepareTools(context, profile);
    for (const auto& [name, value] : ToolRegistry::environment(profile, toolContext(context))) {
        std::cout << "export " << name << "=" << ShellQuote::quote(value) << "\n";
    }
    return 0;
}

int runWithProfile(const Context& context, const RunOptions& options) {
    ProfileDocument document = ProfileStore(context.paths).load();
    const Profile& profile = findProfile(document, options.profile);
    prepareTools(context, profile);
    Environment variables = ToolRegistry::environment(profile, toolContext(context));

    Environment environment = context.environment;
    const std::string* managedList = lookup(environment, "VEERLINE_MANAGED_VARS");
    std::vector<std::string> managed = managedList ? splitNames(*managedList) : std::vector<std::string>{};
    // A tool variable that an earlier shim set and this profile doesn't (system storage, or a
    // tool it doesn't cover) would point the tool at another profile's data.
    for (std::string_view name : ToolRegistry::managedVariables) {
        std::string variable(name);
        if (!variables.contains(variable) && std::find(managed.begin(), managed.end(), variable) != managed.end()) {
            environment.erase(variable);
        }
    }
    for (const auto& [name, value] : variables) environment[name] = value;
    environment.erase("VEERLINE_MANAGED_VARS");
    // Shims started inside pass this environment through instead of choosing a profile by folder.
    environment["VEERLINE_DISABLE"] = "1";
    return execute(options.command.front(), options.command, environment, true);
}

// Runs `file` with `input` on its standard input and this terminal's output, and waits for it.
// Returns its exit status, or 128 plus the signal that ended it.
int runWithInput(const std::string& file, const std::vector<std::string>& arguments, const Environment& environment,
                 std::string_view input) {
    std::vector<std::string> entries = environmentEntries(environment);
    std::vector<char*> envp = nullTerminated(entries);
    std::vector<std::string> args = arguments;
    std::vector<char*> argv = nullTerminated(args);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw ioErrorFromErrno("start " + file, errno);
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);

    std::cout.flush();
    std::cerr.flush();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, reading.get(), STDIN_FILENO);
    pid_t child = 0;
    int spawnError = ::posix_spawn(&child, file.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawnError != 0) throw ioErrorFromErrno("run " + file, spawnError);
    reading.close();
    // A tool that exits without reading must not take this process down with SIGPIPE.
    struct sigaction ignore {}, previous {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &previous);
    writeAll(writing.get(), input);
    writing.close();
    ::sigaction(SIGPIPE, &previous, nullptr);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) throw ioErrorFromErrno("wait for " + file, errno);
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// A secret in memory, overwritten when it is no longer needed.
struct WipedOnExit {
    std::string text;
    ~WipedOnExit() { OPENSSL_cleanse(text.data(), text.size()); }
};

int login(const Context& context, const RunOptions& options) {
    ToolKind kind = parseTool(options.tool);
    ProfileDocument document = ProfileStore(context.paths).load();
    const Profile& profile = findProfile(document, options.profile);

    std::shared_ptr<const ToolAdapter> adapter;
    for (const auto& candidate : ToolRegistry::cliAdapters(toolContext(context))) {
        if (candidate->kind() == kind) adapter = candidate;
    }
    std::string toolName(toolkind::displayName(kind));
    if (!adapter) {
        throw VeerlineError::unsupported(toolName + " is an app: sign in inside the app, not in the terminal.");
    }
    if (!profile.uses(kind)) {
        throw VeerlineError::unsupported(curlyQuoted(profile.name) + " doesn't use " + toolName + ". Add it with `veerline profile set " +
                                         ShellQuote::quote(profile.name) + " --tools ...` first.");
    }
    shareSetupWith(context, profile.id, kind);
    if (options.apiKey && kind == ToolKind::claudeCode) return loginClaudeCodeWithApiKey(context, profile);
    auto command = adapter->setUp(profile);
    if (!command) {
        throw VeerlineError::unsupported(toolName + " isn't installed: there's no `" +
                                         std::string(kind == ToolKind::codex ? CodexAdapter::binaryName : ClaudeCodeAdapter::binaryName) +
                                         "` on your PATH.");
    }
    // Codex reads the key from its standard input, never from its command line.
    if (options.apiKey) command->arguments.push_back("--with-api-key");
    command->arguments.insert(command->arguments.end(), options.command.begin(), options.command.end());
    if (options.print) {
        std::cout << command->shellLine() << "\n";
        return 0;
    }

    Environment environment = context.environment;
    for (const auto& name : command->unset) environment.erase(name);
    for (const auto& [name, value] : command->environment) environment[name] = value;
    std::vector<std::string> arguments = {command->executable};
    arguments.insert(arguments.end(), command->arguments.begin(), command->arguments.end());
    if (options.apiKey) {
        // Codex reads up to the end of its input, so the key goes without a line feed.
        WipedOnExit key{readSecret(toolName + " API key for " + curlyQuoted(profile.name) + ": ")};
        std::cerr << "Signing in to " << toolName << " for " << curlyQuoted(profile.name)
                  << " with the key: " << command->shellLine() << "\n";
        return runWithInput(command->executable, arguments, environment, key.text);
    }
    std::cerr << "Signing in to " << toolName << " for " << curlyQuoted(profile.name) << ": " << command->shellLine()
              << "\n";
    return execute(command->executable, arguments, environment, false);
}

}  // namespace

void removeProfileData(const Context& context, const Profile& profile) {
    if (profile.storage == Profile::Storage::system) {
        std::cout << "Its tools use their default setup, so no data folder was deleted.\n";
        return;
    }
    for (const auto& adapter : ToolRegistry::cliAdapters(toolContext(context))) {
        auto folder = adapter->dataDirectory(profile);
        bool existed = folder && PathUtil::isDirectory(*folder);
        adapter->removeData(profile);
        if (existed) std::cout << "Deleted " << context.paths.abbreviate(*folder) << "\n";
    }
}

void addRunCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto options = std::make_shared<RunOptions>();
    const std::string profileHelp = "The profile's name (any case) or id";

    CLI::App* env = app.add_subcommand("env", "Print a profile's environment as export lines for a shell");
    env->add_option("profile", options->profile, profileHelp)->required();
    env->footer("Example: eval \"$(veerline env Work)\". Creates the profile's data folders when missing.");
    onSelected(env, chosen, [&context, options] { return printEnvironment(context, *options); });

    CLI::App* run = app.add_subcommand("run", "Run a command with a profile's environment");
    run->add_option("profile", options->profile, profileHelp)->required();
    run->add_option("command", options->command, "The command and its arguments, after --")->required();
    run->footer("Write it as: veerline run PROFILE -- COMMAND [ARGS...]\nThe command gets your environment plus the profile's variables (those of `veerline env`); "
                "shims started inside it keep that profile whatever the folder.");
    onSelected(run, chosen, [&context, options] { return runWithProfile(context, *options); });

    CLI::App* signIn = app.add_subcommand("login", "Sign a profile in to claude or codex");
    signIn->add_option("profile", options->profile, profileHelp)->required();
    signIn->add_option("tool", options->tool, "claude-code (or claude) or codex")->required();
    signIn->add_option("arguments", options->command, "More arguments for the tool's sign-in command, after --");
    signIn->add_flag("--print", options->print, "Print the sign-in command instead of running it");
    signIn->add_flag("--api-key", options->apiKey,
                     "Sign in with an API key read from standard input (typed unseen on a terminal)");
    signIn->footer("Write it as: veerline login PROFILE TOOL [-- ARGS...]\n"
                   "Prepares the profile's data folder, then runs the tool's own sign-in command in this "
                   "terminal, for example `veerline login Work codex -- --device-auth` on a machine "
                   "without a browser. With --api-key: `printenv OPENAI_API_KEY | veerline login Work codex "
                   "--api-key`.");
    onSelected(signIn, chosen, [&context, options] { return login(context, *options); });
}

}  // namespace veerline::cli
