// `veerline doctor [--deep] [--json]`: everything that can put `claude` or `codex` on the wrong
// account, one check per line. Exit status 1 when any check is a failure, so scripts can use it.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>

#include "base/error.h"
#include "cli/cli.h"
#include "cli/output.h"
#include "doctor/doctor.h"
#include "profiles/profile_store.h"
#include "platform/platform.h"
#include "resolution/binary_locator.h"
#include "shell/shell_integration.h"

namespace veerline::cli {

namespace {

using Level = DoctorCheck::Level;

struct DoctorOptions {
    bool deep = false;
    bool json = false;
};

// The copies `veerline shell install` put in ~/.veerline/libexec against the ones installed with
// this program: an old resolver keeps running in every shim after an upgrade.
std::vector<DoctorCheck> installedCopies(const Context& context) {
    ShellIntegration shell(context.paths, context.environment);
    const std::string libexec = context.paths.abbreviate(shell.libexec());
    if (!PathUtil::isExecutableFile(shell.libexec() + "/veerline-resolve")) return {};
    // Run through its shim, this program is the copy itself; the installed one is then the
    // `veerline` further along PATH.
    std::optional<std::string> program;
    auto self = platform::executablePath();
    if (self && PathUtil::realPath(PathUtil::parent(*self)) == PathUtil::realPath(shell.libexec())) {
        program = BinaryLocator(context.environment, context.paths).find("veerline");
        if (!program) return {};
    }
    Executables current;
    try {
        current = findExecutables(program);
    } catch (const VeerlineError&) {
        return {};
    }
    auto stale = shell.staleBinaries(current.resolver, current.cli, std::nullopt);
    if (stale.empty()) {
        return {{"libexec", Level::ok, "Veerline's copies in " + libexec + " are current"}};
    }
    std::string detail;
    for (const std::string& name : stale) {
        const std::string& source = name == "veerline-resolve" ? current.resolver : current.cli;
        detail += (detail.empty() ? "" : "; ") + libexec + "/" + name + " differs from " +
                  context.paths.abbreviate(source);
    }
    return {{"libexec", Level::warning, "Veerline's copies in " + libexec + " are out of date", detail + ".",
             "Run `veerline shell install` to copy the current ones."}};
}

const char* mark(Level level) {
    switch (level) {
        case Level::ok: return "✓";
        case Level::info: return "i";
        case Level::warning: return "!";
        case Level::failure: return "✗";
    }
    return "?";
}

const char* colourOf(Level level) {
    switch (level) {
        case Level::ok: return "\x1b[32m";
        case Level::info: return "\x1b[36m";
        case Level::warning: return "\x1b[33m";
        case Level::failure: return "\x1b[31m";
    }
    return "";
}

std::string counted(std::size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void printReport(const Context& context, const std::vector<DoctorCheck>& checks) {
    std::size_t warnings = 0;
    std::size_t failures = 0;
    for (const DoctorCheck& check : checks) {
        warnings += check.level == Level::warning;
        failures += check.level == Level::failure;
        if (context.colour) {
            std::cout << colourOf(check.level) << mark(check.level) << "\x1b[0m " << printable(check.title) << "\n";
        } else {
            std::cout << mark(check.level) << " " << printable(check.title) << "\n";
        }
        if (check.detail) std::cout << "  " << printable(*check.detail) << "\n";
        if (check.fix) std::cout << "  Fix: " << printable(*check.fix) << "\n";
    }
    std::cout << "\n" << counted(checks.size(), "check") << ": " << counted(warnings, "warning") << ", "
              << counted(failures, "failure") << ".\n";
}

// Rewrites the progress line in place. Standard error escapes control characters, so the line's
// own carriage return and erase sequence go straight to the descriptor; the profile names in it
// are escaped here instead.
void rewriteProgressLine(const std::string& text) {
    std::cerr.flush();
    std::string line = "\r\x1b[K" + printable(text);
    for (std::size_t done = 0; done < line.size();) {
        ssize_t written = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        done += static_cast<std::size_t>(written);
    }
}

// One line on the terminal naming what the deep run still waits for.
void showProgress(const Doctor::Progress& progress) {
    std::string line;
    if (!progress.waitingOn.empty()) {
        line += "Asking " + progress.waitingOn.front();
        if (progress.waitingOn.size() > 1) line += " and " + std::to_string(progress.waitingOn.size() - 1) + " more";
        line += "… (" + std::to_string(progress.answered) + " of " + std::to_string(progress.total) + " answered)";
    }
    rewriteProgressLine(line);
}

int doctor(const Context& context, const DoctorOptions& options) {
    Doctor doctor(ToolContext{context.paths, context.environment},
                  [store = ProfileStore(context.paths)] { return store.load(); }, DesktopInstall::detect(context.paths),
                  [&context](const ProfileDocument&) { return installedCopies(context); });
    const bool progress = options.deep && ::isatty(STDERR_FILENO) == 1;
    if (progress) doctor.onProgress = showProgress;

    std::vector<DoctorCheck> checks = doctor.run(options.deep);
    if (progress) rewriteProgressLine("");

    if (options.json) {
        nlohmann::json report = nlohmann::json::array();
        for (const DoctorCheck& check : checks) report.push_back(check.toJSON());
        std::cout << encodeStoredJSON(report);
    } else {
        printReport(context, checks);
    }
    bool failed = std::any_of(checks.begin(), checks.end(),
                              [](const DoctorCheck& check) { return check.level == Level::failure; });
    return failed ? 1 : 0;
}

}  // namespace

void addDoctorCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto options = std::make_shared<DoctorOptions>();
    CLI::App* command = app.add_subcommand("doctor", "Find what can put claude or codex on the wrong account");
    command->add_flag("--deep", options->deep,
                      "Also ask every profile's tools whether they are signed in, and to which account");
    command->add_flag("--json", options->json, "Print the checks as a JSON array of {id, level, title, detail, fix}");
    command->footer("Changes nothing. Exit status 1 when a check failed; warnings don't count.");
    onSelected(command, chosen, [&context, options] { return doctor(context, *options); });
}

}  // namespace veerline::cli
