// veerline: the command-line front end. Manages profiles, folder rules and the terminal default,
// says which profile applies where, runs commands with a profile and installs the shell
// integration. Exit status 0 on success, 1 when the work failed, 2 when the command was typed
// wrongly.

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <iostream>

#include "cli/cli.h"
#include "cli/output.h"
#include "base/error.h"
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
    if (const Profile* byName = document.profile(std::string_view(nameOrID))) return *byName;
    if (const Profile* byID = document.profile(ProfileID(nameOrID))) return *byID;
    throw VeerlineError::profileNotFound(nameOrID);
}

Profile& findProfile(ProfileDocument& document, const std::string& nameOrID) {
    if (Profile* byName = document.profile(std::string_view(nameOrID))) return *byName;
    if (Profile* byID = document.profile(ProfileID(nameOrID))) return *byID;
    throw VeerlineError::profileNotFound(nameOrID);
}

}  // namespace veerline::cli

namespace {

void printError(const std::string& message) {
    std::cerr << "veerline: " << message << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    Context context = Context::current();

    CLI::App app{"Keeps several accounts of the claude and codex command-line tools apart: each "
                 "profile has its own data folder, and folder rules pick the profile by where "
                 "you work.",
                 "veerline"};
    app.set_version_flag("--version", kVersion, "Print the version and exit");
    app.require_subcommand(0, 1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("veerline: ") + error.what() + "\nRun `veerline --help` for usage.\n";
    });

    Action chosen;
    addProfileCommands(app, context, chosen);
    addRuleCommands(app, context, chosen);
    addRunCommands(app, context, chosen);
    addShellCommands(app, context, chosen);
    addUsageCommands(app, context, chosen);
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
        printError(error.what());
        return 2;
    } catch (const VeerlineError& error) {
        printError(error.errorDescription());
        return 1;
    } catch (const std::exception& error) {
        printError(error.what());
        return 1;
    }
}
