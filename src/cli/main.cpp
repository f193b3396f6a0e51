// veerline: the command-line front end. Manages profiles, folder rules and the terminal default,
// says which profile applies where, runs commands with a profile and installs the shell
// integration. Exit status 0 on success, 1 when the work failed, 2 when the command was typed
// wrongly.

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <string_view>
#include <utility>

#include "build_info.h"
#include "cli/cli.h"
#include "cli/man_page.h"
#include "cli/output.h"
#include "base/error.h"
#include "base/interrupt_cleanup.h"
#include "base/unicode.h"

using namespace veerline;
using namespace veerline::cli;

namespace veerline::cli {

Context Context::current() {
    Environment environment = currentEnvironment();
    Paths paths = Paths::forCurrentUser(environment);
    Context context{std::move(environment), std::move(paths)};
    context.outputIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    context.inputIsTerminal = ::isatty(STDIN_FILENO) == 1;
    const std::string* noColour = lookup(context.environment, "NO_COLOR");
    const std::string* term = lookup(context.environment, "TERM");
    context.colour = context.outputIsTerminal && (noColour == nullptr || noColour->empty()) &&
                     (term == nullptr || *term != "dumb");
    return context;
}

std::string Context::workingDirectory() const {
    return logicalWorkingDirectory(environment);
}

void onSelected(CLI::App* command, Action& chosen, Action action) {
    command->callback([&chosen, action = std::move(action)] { chosen = action; });
}

const Profile& findProfile(const ProfileDocument& document, const std::string& nameOrID) {
    const Profile& found = findAnyProfile(document, nameOrID);
    if (auto reason = document.unusableIDReason(found.id)) throw unusableProfileError(found, *reason);
    return found;
}

Profile& findProfile(ProfileDocument& document, const std::string& nameOrID) {
    return const_cast<Profile&>(findProfile(std::as_const(document), nameOrID));
}

const Profile& findAnyProfile(const ProfileDocument& document, const std::string& nameOrID) {
    if (const Profile* byName = document.profile(std::string_view(nameOrID))) return *byName;
    if (const Profile* byID = document.profile(ProfileID(nameOrID))) return *byID;
    throw VeerlineError::profileNotFound(nameOrID);
}

}  // namespace veerline::cli

namespace {

void printError(const std::string& message) {
    // Messages name paths and names as they were typed or read.
    std::cerr << "veerline: " << veerline::cli::printable(message) << "\n";
}

extern "C" void ignoreSignal(int) {}

// Standard output and error through TerminalSafeOutput for the whole run, put back before the
// buffers go away.
class SafeStandardStreams {
public:
    SafeStandardStreams() : out_(STDOUT_FILENO), err_(STDERR_FILENO) {
        previousOut_ = std::cout.rdbuf(&out_);
        previousErr_ = std::cerr.rdbuf(&err_);
    }
    ~SafeStandardStreams() {
        std::cout.flush();
        std::cerr.flush();
        std::cout.rdbuf(previousOut_);
        std::cerr.rdbuf(previousErr_);
    }

    // The exit status with output failures counted: what the user asked for may be lost when
    // standard output could not be written (a full disk, a closed pipe), so it is an error.
    int finish(int status) {
        std::cout.flush();
        if (out_.error() == 0) return status;
        printError(std::string("Couldn't write to standard output: ") + std::strerror(out_.error()));
        return status == 0 ? 1 : status;
    }

private:
    TerminalSafeOutput out_;
    TerminalSafeOutput err_;
    std::streambuf* previousOut_ = nullptr;
    std::streambuf* previousErr_ = nullptr;
};

int runCommand(int argc, char** argv);

}  // namespace

int main(int argc, char** argv) {
    // An interrupted save or install leaves no temporary files behind.
    RemoveOnInterrupt::installHandlers();
    // Over a file-size limit, writes then fail with "File too large" and the usual message
    // instead of the signal ending the command silently. A handler rather than SIG_IGN, so that
    // the programs `veerline` runs start with the default.
    struct sigaction fileSizeAction {};
    fileSizeAction.sa_handler = ignoreSignal;
    sigemptyset(&fileSizeAction.sa_mask);
    ::sigaction(SIGXFSZ, &fileSizeAction, nullptr);

    SafeStandardStreams streams;
    return streams.finish(runCommand(argc, argv));
}

namespace {

int runCommand(int argc, char** argv) {
    Context context = Context::current();

    CLI::App app{"Keeps several accounts of the claude and codex command-line tools apart: each "
                 "profile has its own data folder, and folder rules pick the profile by where "
                 "you work.",
                 "veerline"};
    app.set_version_flag("--version", "veerline " VEERLINE_VERSION " (commit " VEERLINE_COMMIT ")",
                         "Print the version and the commit it was built from, and exit");
    app.require_subcommand(0, 1);
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    app.failure_message([&words](const CLI::App* failed, const CLI::Error& error) {
        return usageErrorReport(*failed, error.what(), words);
    });

    // Building the whole tree of commands and options cost more than a million instructions, more
    // than a status line's whole count. A command named first needs only its own group; help, usage
    // errors about the command word and completion get every group.
    using AddCommands = void (*)(CLI::App&, const Context&, Action&);
    struct Group {
        std::array<std::string_view, 3> words;  // unused places empty
        AddCommands add;
    };
    static const Group groups[] = {
        {{"profile"}, addProfileCommands},
        {{"rule", "default", "which"}, addRuleCommands},
        {{"env", "run", "login"}, addRunCommands},
        {{"shell", "prompt"}, addShellCommands},
        {{}, addCompletionCommands},
        {{"doctor"}, addDoctorCommands},
        {{"secret"}, addSecretCommands},
        {{"usage", "status", "statusline"}, addUsageCommands},
        {{"share"}, addShareCommands},
        {{}, addManPageCommand},
    };
    const std::string_view first = words.empty() ? std::string_view() : std::string_view(words.front());
    const Group* only = nullptr;
    for (const Group& group : groups) {
        if (!first.empty() && std::find(group.words.begin(), group.words.end(), first) != group.words.end()) {
            only = &group;
        }
    }
    Action chosen;
    for (const Group& group : groups) {
        if (only == nullptr || only == &group) group.add(app, context, chosen);
    }
    // Set after the commands are added, which would otherwise inherit it.
    app.footer("Run `veerline COMMAND --help` for the options of a command.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        int status = app.exit(error);
        return status == 0 ? 0 : 2;
    }

    if (!chosen) {
        // A group such as `veerline profile` without its subcommand: its help, with full usage.
        std::cerr << app.help();
        return 2;
    }

    try {
        return chosen();
    } catch (const UsageError& error) {
        std::cerr << usageErrorReport(app, error.what(), words);
        return 2;
    } catch (const VeerlineError& error) {
        printError(error.errorDescription());
        return 1;
    } catch (const std::exception& error) {
        printError(error.what());
        return 1;
    }
}

}  // namespace
