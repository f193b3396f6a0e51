// `veerline shell install|uninstall|status` and `veerline prompt`: the shims and the managed
// block in the shell start-up files, shown as diffs before anything is written.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>
#include <sstream>

#include "cli/cli.h"
#include "cli/output.h"
#include "base/error.h"
#include "shell/shell_integration.h"
#include "platform/platform.h"

namespace veerline::cli {

namespace {

struct ShellOptions {
    bool yes = false;
    bool dryRun = false;
    bool json = false;
    std::string shell;
};

}  // namespace

// The resolver installed beside `program` (this program by default):
// <prefix>/libexec/veerline/veerline-resolve for <prefix>/bin/veerline, or a veerline-resolve in
// the same folder (a build folder, or the copies in ~/.veerline/libexec).
Executables findExecutables(std::optional<std::string> program) {
    auto self = program ? PathUtil::realPath(*program) : platform::executablePath();
    if (!self) throw VeerlineError::io("Couldn't find where veerline itself is installed.");
    std::string folder = PathUtil::parent(*self);
    std::vector<std::string> candidates = {PathUtil::normalize(folder + "/../libexec/veerline/veerline-resolve"),
                                           folder + "/veerline-resolve"};
    for (const std::string& candidate : candidates) {
        if (PathUtil::isExecutableFile(candidate)) return {candidate, *self};
    }
    throw VeerlineError::io("Couldn't find veerline-resolve; looked for " + candidates[0] + " and " + candidates[1] +
                            ". Reinstall Veerline.");
}

namespace {

void printDiff(const Context& context, const std::string& diff) {
    if (!context.colour) {
        std::cout << diff;
        return;
    }
    std::istringstream lines(diff);
    std::string line;
    while (std::getline(lines, line)) {
        const char* colour = line.starts_with("@@")                            ? "\x1b[36m"
                             : line.starts_with("+") && !line.starts_with("+++") ? "\x1b[32m"
                             : line.starts_with("-") && !line.starts_with("---") ? "\x1b[31m"
                                                                                 : "";
        std::cout << colour << line << (*colour ? "\x1b[0m" : "") << "\n";
    }
}

// Shows each file that changes; returns how many do.
std::size_t showPlan(const Context& context, const ShellIntegration& shell,
                     const std::vector<ShellIntegration::FileChange>& plan) {
    std::size_t changing = 0;
    for (const auto& change : plan) {
        if (!change.changes()) continue;
        ++changing;
        std::string diff = shell.diff(change);
        if (diff.empty()) {
            std::cout << "Changes " << context.paths.abbreviate(change.path) << "\n";
        } else {
            printDiff(context, diff);
        }
    }
    return changing;
}

// True when the user agreed, or said --yes. Refuses without a terminal to ask on.
bool mayWrite(const Context& context, const ShellOptions& options, const std::string& command,
              const std::string& question) {
    if (options.yes) return true;
    if (!context.inputIsTerminal) {
        throw VeerlineError::unsupported("Not changing anything without your confirmation, and there's no terminal "
                                         "to ask on. Run `veerline shell " +
                                         command + " --yes` to go ahead.");
    }
    if (confirm(question)) return true;
    std::cerr << "veerline: Nothing was changed.\n";
    return false;
}

int install(const Context& context, const ShellOptions& options) {
    Executables executables = findExecutables();
    ShellIntegration shell(context.paths, context.environment);
    auto plan = shell.planInstall();
    std::size_t changing = showPlan(context, shell, plan);
    const std::string root = context.paths.abbreviate(shell.root());
    if (changing == 0) std::cout << "Your shell start-up files already hold Veerline's block.\n";
    std::cout << "Also copies veerline and veerline-resolve into " << root << "/libexec and links claude, codex "
              << "and veerline in " << root << "/bin to them.\n";
    if (options.dryRun) {
        std::cout << "Nothing was written (--dry-run).\n";
        return 0;
    }
    if (!mayWrite(context, options, "install", "Install Veerline's shell integration?")) return 1;
    shell.install(executables.resolver, executables.cli, std::nullopt, std::nullopt);
    shareSetupWith(context);
    std::cout << "Installed. Open a new terminal so that `claude` and `codex` go through Veerline.\n";
    return 0;
}

int uninstall(const Context& context, const ShellOptions& options) {
    ShellIntegration shell(context.paths, context.environment);
    auto plan = shell.planUninstall();
    showPlan(context, shell, plan);
    const std::string root = context.paths.abbreviate(shell.root());
    std::cout << "Also removes the shims and executables in " << root << "/bin and " << root
              << "/libexec, the install record and the backups.\n";
    if (options.dryRun) {
        std::cout << "Nothing was written (--dry-run).\n";
        return 0;
    }
    if (!mayWrite(context, options, "uninstall", "Uninstall Veerline's shell integration?")) return 1;
    shell.uninstall();
    std::cout << "Uninstalled. Open a new terminal so that `claude` and `codex` run directly again.\n";
    return 0;
}

int status(const Context& context, const ShellOptions& options) {
    ShellIntegration shell(context.paths, context.environment);
    ShellIntegration::Status status = shell.status();
    if (options.json) {
        nlohmann::json result;
        result["isInstalled"] = status.isInstalled();
        result["binariesInstalled"] = status.binariesInstalled;
        result["blocks"] = nlohmann::json::array();
        for (const auto& block : status.blocks) {
            result["blocks"].push_back({{"path", block.path}, {"isLast", block.isLast}});
        }
        result["appPath"] = status.appPath ? nlohmann::json(*status.appPath) : nlohmann::json(nullptr);
        result["missingBlocks"] = status.missingBlocks;
        std::cout << encodeStoredJSON(result);
        return 0;
    }
    const Paths& paths = context.paths;
    // A start-up file without a block only lacks something once anything else is installed.
    const bool anythingInstalled = status.binariesInstalled || !status.blocks.empty();
    if (status.isInstalled()) {
        std::cout << "Installed.\n";
    } else if (anythingInstalled) {
        std::cout << "Partly installed. Run `veerline shell install` to repair it.\n";
    } else {
        std::cout << "Not installed. Run `veerline shell install` to use profiles in the terminal.\n";
    }
    std::cout << "Shims in " << paths.abbreviate(paths.shimDirectory()) << ": "
              << (status.binariesInstalled ? "in place" : "missing") << "\n";
    for (const auto& block : status.blocks) {
        std::cout << paths.abbreviate(block.path) << ": "
                  << (block.isLast ? "block in place"
                                   : "block in place, but lines after it may put other folders before the shims")
                  << "\n";
    }
    for (const auto& path : anythingInstalled ? status.missingBlocks : std::vector<std::string>{}) {
        std::cout << paths.abbreviate(path) << ": no block, and your shell reads this file\n";
    }
    if (status.isInstalled()) {
        const std::string* path = lookup(context.environment, "PATH");
        if (path == nullptr || !(*path + ":").starts_with(paths.shimDirectory() + ":")) {
            std::cout << "This shell's PATH doesn't start with " << paths.abbreviate(paths.shimDirectory())
                      << " yet; open a new terminal.\n";
        }
    }
    return 0;
}

int prompt(const ShellOptions& options) {
    auto snippet = ShellIntegration::promptSnippet(options.shell);
    if (!snippet) {
        throw UsageError("There's no prompt snippet for " + curlyQuoted(options.shell) +
                         ". Use zsh, oh-my-zsh, bash or starship.");
    }
    std::cout << *snippet << "\n";
    return 0;
}

}  // namespace

void addShellCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto options = std::make_shared<ShellOptions>();

    CLI::App* group = app.add_subcommand("shell", "Install, remove or check the shell integration");
    group->require_subcommand(0, 1);
    group->footer("The integration puts ~/.veerline/bin first on PATH (a marked block in ~/.zshrc, and in "
                  "~/.bash_profile when it exists, and ~/.bashrc when it exists or bash is your shell), where claude and "
                  "codex lead to Veerline.");

    auto addWriteFlags = [&](CLI::App* command) {
        command->add_flag("-y,--yes", options->yes, "Don't ask; needed when standard input isn't a terminal");
        command->add_flag("--dry-run", options->dryRun, "Only show what would change");
    };

    CLI::App* installCommand = group->add_subcommand("install", "Install the shims and the PATH block");
    addWriteFlags(installCommand);
    installCommand->footer("Shows the change to every start-up file and asks first. The files are backed up; "
                           "`veerline shell uninstall` takes the block out again and keeps your own lines.");
    onSelected(installCommand, chosen, [&context, options] { return install(context, *options); });

    CLI::App* uninstallCommand = group->add_subcommand("uninstall", "Remove the shims and the PATH block");
    addWriteFlags(uninstallCommand);
    uninstallCommand->footer("Takes out Veerline's block and nothing else: lines you added, above or below it, stay. "
                             "A file that holds nothing new since the install comes back byte for byte.");
    onSelected(uninstallCommand, chosen, [&context, options] { return uninstall(context, *options); });

    CLI::App* statusCommand = group->add_subcommand("status", "Show what is installed");
    statusCommand->add_flag("--json", options->json,
                            "Print {isInstalled, binariesInstalled, blocks: [{path, isLast}], appPath, missingBlocks} as JSON");
    onSelected(statusCommand, chosen, [&context, options] { return status(context, *options); });

    CLI::App* promptCommand = app.add_subcommand("prompt", "Print a snippet that shows the profile in your prompt");
    promptCommand->add_option("shell", options->shell, "zsh, oh-my-zsh, bash or starship")->required();
    promptCommand->footer("Paste the snippet where its first line says.");
    onSelected(promptCommand, chosen, [options] { return prompt(*options); });
}

}  // namespace veerline::cli
