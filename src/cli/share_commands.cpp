// `veerline share ...`: one Claude Code or Codex setup (instructions, commands, settings, MCP
// servers) shared by every managed profile, while each keeps its own sign-in, sessions and history.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>

#include "cli/cli.h"
#include "cli/options.h"
#include "cli/output.h"
#include "base/environment.h"
#include "base/error.h"
#include "profiles/profile_store.h"
#include "sharing/profile_sharing.h"
#include "sharing/share_files.h"
#include "sharing/share_settings.h"
#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"

extern "C" char** environ;

namespace veerline::cli {

namespace {

struct ShareOptions {
    std::string tool;
    std::string from;
    bool json = false;
    std::vector<std::string> arguments;  // `edit`: the tool's own arguments, after --
};

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
    return text;
}

std::string toolName(ToolKind tool) {
    return std::string(toolkind::displayName(tool));
}

// The tools a command is about: the one typed, or both.
std::vector<ToolKind> chosenTools(const ShareOptions& options) {
    if (options.tool.empty()) return {ShareSettings::tools.begin(), ShareSettings::tools.end()};
    ToolKind tool = parseTool(options.tool);
    if (toolkind::isApp(tool)) {
        throw UsageError(curlyQuoted(options.tool) + " is an app, which keeps its own setup. Share claude-code or codex.");
    }
    return {tool};
}

// Prints what was done for each profile to `out`, problems to standard error; true when every
// profile could be brought up to date.
bool report(const Context& context, const std::vector<ShareReport>& reports, const char* verb,
            std::ostream& out = std::cout) {
    bool ok = true;
    for (const ShareReport& entry : reports) {
        std::string who = curlyQuoted(entry.profileName) + " (" + toolName(entry.tool) + ")";
        if (entry.skipped) {
            std::cerr << "veerline: Skipped " << who << ": " << *entry.skipped << (entry.skipped->ends_with('.') ? "\n" : ".\n");
            ok = ok && !entry.failed;
        } else if (!entry.changes.empty()) {
            out << verb << " " << who << ": " << joined(entry.changes) << "\n";
        }
        for (const std::string& aside : entry.keptAside) {
            std::string name = aside.substr(0, aside.size() - ProfileSharing::asideSuffix.size());
            if (std::find(entry.changes.begin(), entry.changes.end(), name) == entry.changes.end()) continue;
            out << "  Kept " << who << "'s own " << name << " as "
                      << context.paths.abbreviate(entry.folder + "/" + aside) << "\n";
        }
    }
    return ok;
}

int shareOn(const Context& context, const ShareOptions& options) {
    std::vector<ToolKind> tools = chosenTools(options);
    std::optional<std::string> from;
    if (!options.from.empty()) {
        if (options.tool.empty()) throw UsageError("--from names one tool's folder: give the tool too, as in `veerline share on claude --from PATH`.");
        from = PathUtil::normalize(PathUtil::expandTilde(options.from, context.paths.home), context.workingDirectory());
        if (!PathUtil::isDirectory(*from)) throw UsageError("There's no folder at " + curlyQuoted(options.from) + ".");
    }
    sharing::SharingLock lock(context.paths);
    ShareSettings settings = ShareSettings::load(context.paths);
    for (ToolKind tool : tools) {
        settings.sources[tool] = from.value_or(ShareSettings::defaultSource(tool, context.paths));
        ProfileSharing(context.paths, tool, settings.sources[tool]).checkSource();
    }
    for (ToolKind tool : tools) {
        std::cout << "Sharing " << toolName(tool) << "'s setup from " << context.paths.abbreviate(settings.sources[tool])
                  << " with every managed profile.\n";
    }
    settings.save(context.paths);
    ProfileDocument document = ProfileStore(context.paths).load();
    bool ok = report(context, ProfileSharing::applyAll(context.paths, document, settings, false), "Shared with");
    return ok ? 0 : 1;
}

int shareOff(const Context& context, const ShareOptions& options) {
    std::vector<ToolKind> tools = chosenTools(options);
    sharing::SharingLock lock(context.paths);
    ShareSettings settings = ShareSettings::load(context.paths);
    ProfileDocument document = ProfileStore(context.paths).load();
    std::vector<ShareReport> reports;
    for (ToolKind tool : tools) {
        auto shared = settings.sources.find(tool);
        std::string source = shared != settings.sources.end() ? shared->second : ShareSettings::defaultSource(tool, context.paths);
        ProfileSharing sharing(context.paths, tool, source);
        for (const Profile& profile : document.profiles) {
            if (profile.storage != Profile::Storage::managed || !document.isUsable(profile.id)) continue;
            try {
                reports.push_back(sharing.undo(profile));
            } catch (const VeerlineError& error) {
                reports.push_back(ShareReport::failure(tool, profile.name, error.errorDescription()));
            }
        }
        std::cout << (shared != settings.sources.end() ? "Stopped sharing " : "Wasn't sharing ") << toolName(tool)
                  << "'s setup.\n";
        settings.sources.erase(tool);
    }
    if (ShareSettings::exists(context.paths)) settings.save(context.paths);
    return report(context, reports, "Took back from") ? 0 : 1;
}

int shareSync(const Context& context) {
    sharing::SharingLock lock(context.paths);
    ShareSettings settings = ShareSettings::load(context.paths);
    if (settings.sources.empty()) {
        std::cout << "Nothing is shared. Share a setup with `veerline share on`.\n";
        return 0;
    }
    ProfileDocument document = ProfileStore(context.paths).load();
    auto reports = ProfileSharing::applyAll(context.paths, document, settings, false);
    bool ok = report(context, reports, "Updated");
    bool changed = std::any_of(reports.begin(), reports.end(), [](const ShareReport& r) { return !r.changes.empty(); });
    if (!changed && ok) std::cout << "Every profile is up to date.\n";
    return ok ? 0 : 1;
}

int shareStatus(const Context& context, const ShareOptions& options) {
    sharing::SharingLock lock(context.paths);
    ShareSettings settings = ShareSettings::load(context.paths);
    ProfileDocument document = ProfileStore(context.paths).load();
    auto reports = ProfileSharing::applyAll(context.paths, document, settings, true);
    nlohmann::json json = nlohmann::json::object();
    for (ToolKind tool : ShareSettings::tools) {
        const std::string key(toolkind::rawValue(tool));
        auto shared = settings.sources.find(tool);
        nlohmann::json entry = {{"shared", shared != settings.sources.end()}};
        if (shared == settings.sources.end()) {
            if (!options.json) std::cout << toolName(tool) << ": not shared\n";
            json[key] = entry;
            continue;
        }
        entry["source"] = shared->second;
        entry["profiles"] = nlohmann::json::array();
        // The same for every profile, as all read one source.
        std::vector<std::string> signInKept;
        for (const ShareReport& profile : reports) {
            if (profile.tool == tool && !profile.failed) signInKept = profile.signInKept;
        }
        entry["signInKeptAside"] = signInKept;
        if (!options.json) {
            std::cout << toolName(tool) << ": shared from " << context.paths.abbreviate(shared->second) << "\n";
            if (!signInKept.empty()) {
                std::cout << "  not shared, as each profile signs in itself: " << joined(signInKept) << "\n";
            }
        }
        for (const ShareReport& profile : reports) {
            if (profile.tool != tool) continue;
            nlohmann::json line = {{"name", profile.profileName}, {"outOfDate", profile.changes},
                                   {"keptAside", profile.keptAside}, {"onlyHere", profile.onlyHere}};
            std::string state = profile.changes.empty() ? "up to date" : "out of date: " + joined(profile.changes);
            if (profile.skipped) {
                line["skipped"] = *profile.skipped;
                state = "skipped: " + *profile.skipped;
            }
            if (!profile.keptAside.empty()) state += "; own items kept aside: " + joined(profile.keptAside);
            if (!profile.onlyHere.empty()) state += "; only in this profile: " + joined(profile.onlyHere);
            if (!options.json) std::cout << "  " << profile.profileName << ": " << state << "\n";
            entry["profiles"].push_back(std::move(line));
        }
        json[key] = std::move(entry);
    }
    if (options.json) std::cout << encodeStoredJSON(json);
    return 0;
}


// Runs `file` with `arguments` on this terminal and waits for it: its exit status, 128 + the
// signal that ended it, or 126/127 when it couldn't start. Interrupts go to the tool, as a
// shell does it, so that the profiles can still be brought up to date after it.
int runAndWait(const std::string& file, const std::vector<std::string>& arguments, const Environment& environment) {
    std::vector<std::string> args = arguments;
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
    auto pointers = [](std::vector<std::string>& strings) {
        std::vector<char*> list;
        for (auto& text : strings) list.push_back(text.data());
        list.push_back(nullptr);
        return list;
    };
    std::vector<char*> argv = pointers(args), envp = pointers(entries);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    struct sigaction ignore {}, oldInt {}, oldQuit {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignore, &oldInt);
    ::sigaction(SIGQUIT, &ignore, &oldQuit);
    std::cout.flush();
    pid_t child = 0;
    int spawnError = ::posix_spawn(&child, file.c_str(), nullptr, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    int status = 0;
    while (spawnError == 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ::sigaction(SIGINT, &oldInt, nullptr);
    ::sigaction(SIGQUIT, &oldQuit, nullptr);
    if (spawnError != 0) {
        std::cerr << "veerline: Couldn't run " << curlyQuoted(file) << ": " << std::strerror(spawnError) << "\n";
        return spawnError == ENOENT ? 127 : 126;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs the real tool (never the shim) on the shared source itself, so that what it changes
// (`claude mcp add --scope user`, `codex mcp add`) lands in the shared setup, then brings every
// profile up to date with it.
int shareEdit(const Context& context, const ShareOptions& options) {
    ToolKind tool = chosenTools(options).front();
    ShareSettings settings;
    {
        sharing::SharingLock lock(context.paths);
        settings = ShareSettings::load(context.paths);
    }
    auto shared = settings.sources.find(tool);
    if (shared == settings.sources.end()) {
        throw UsageError(toolName(tool) + "'s setup isn't shared. Share it first with `veerline share on " +
                         std::string(toolkind::rawValue(tool)) + "`.");
    }
    ToolContext tools{context.paths, context.environment};
    const bool codex = tool == ToolKind::codex;
    std::optional<std::string> binary = codex ? CodexAdapter(tools).binaryPath() : ClaudeCodeAdapter(tools).binaryPath();
    if (!binary) throw VeerlineError::io("Couldn't find " + toolName(tool) + " on your PATH.");
    Environment environment = context.environment;
    const std::string variable = codex ? "CODEX_HOME" : "CLAUDE_CONFIG_DIR";
    // The tool's own default folder is what it uses with the variable unset (Claude Code keeps
    // ~/.claude.json outside it).
    if (shared->second == ShareSettings::defaultSource(tool, context.paths)) {
        environment.erase(variable);
    } else {
        environment[variable] = shared->second;
    }
    // Anything the tool starts in turn stays on the shared setup too.
    environment["VEERLINE_DISABLE"] = "1";
    environment.erase("VEERLINE_PROFILE");
    environment.erase("VEERLINE_MANAGED_VARS");
    std::vector<std::string> arguments = {*binary};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    std::cerr << "Running " << toolName(tool) << " on the shared setup in "
              << context.paths.abbreviate(shared->second) << ".\n";
    if (int status = runAndWait(*binary, arguments, environment); status != 0) return status;
    sharing::SharingLock lock(context.paths);
    settings = ShareSettings::load(context.paths);
    ProfileDocument document = ProfileStore(context.paths).load();
    return report(context, ProfileSharing::applyAll(context.paths, document, settings, false, tool), "Updated") ? 0 : 1;
}

}  // namespace

void shareSetupWith(const Context& context, std::optional<ProfileID> profile, std::optional<ToolKind> tool) {
    try {
        if (!ShareSettings::exists(context.paths)) return;
        sharing::SharingLock lock(context.paths);
        ShareSettings settings = ShareSettings::load(context.paths);
        ProfileDocument document = ProfileStore(context.paths).load();
        if (profile) std::erase_if(document.profiles, [&](const Profile& each) { return each.id != *profile; });
        // Standard error: the commands that call this print their own results (an id, a command line).
        report(context, ProfileSharing::applyAll(context.paths, document, settings, false, tool), "Shared the setup with",
               std::cerr);
    } catch (const VeerlineError& error) {
        std::cerr << "veerline: Couldn't share the setup: " << error.errorDescription() << "\n";
    }
}

void addShareCommands(CLI::App& app, const Context& context, Action& chosen) {
    CLI::App* group = app.add_subcommand(
        "share", "Share one Claude Code or Codex setup (instructions, commands, settings, MCP servers) across profiles");
    group->require_subcommand(0, 1);
    auto options = std::make_shared<ShareOptions>();
    const std::string toolHelp = "claude-code (or claude) or codex; both when left out";

    CLI::App* on = group->add_subcommand("on", "Share a tool's setup with every managed profile");
    on->add_option("tool", options->tool, toolHelp);
    on->add_option("--from", options->from, "The folder to share (default: ~/.claude or ~/.codex)")->type_name("PATH");
    onSelected(on, chosen, [&context, options] { return shareOn(context, *options); });

    CLI::App* off = group->add_subcommand("off", "Stop sharing and give every profile back its own items");
    off->add_option("tool", options->tool, toolHelp);
    onSelected(off, chosen, [&context, options] { return shareOff(context, *options); });

    CLI::App* status = group->add_subcommand("status", "Show what is shared and which profiles are out of date");
    status->add_flag("--json", options->json, "Print the status as JSON");
    onSelected(status, chosen, [&context, options] { return shareStatus(context, *options); });

    CLI::App* sync = group->add_subcommand("sync", "Bring every profile up to date after the shared setup changed");
    onSelected(sync, chosen, [&context] { return shareSync(context); });

    CLI::App* edit = group->add_subcommand(
        "edit", "Run the tool on the shared setup itself (not a profile's), then bring every profile up to date");
    edit->add_option("tool", options->tool, "claude-code (or claude) or codex")->required();
    edit->add_option("arguments", options->arguments, "The tool's arguments, after --");
    edit->footer("Write it as: veerline share edit TOOL -- ARGS...\nFor example: veerline share edit claude -- mcp add "
                 "--scope user tickets -- npx tickets-server\n               veerline share edit codex -- mcp add "
                 "tickets -- npx tickets-server");
    onSelected(edit, chosen, [&context, options] { return shareEdit(context, *options); });
    group->footer("Never shared: sign-in state (.credentials.json, auth.json, stored keys), the settings that sign in "
                  "or pick an account (`share status` names them), sessions, history and caches. A profile's own "
                  "settings and MCP servers win over the shared ones. To change the shared setup with the shims "
                  "installed, use `veerline share edit`.");
}

}  // namespace veerline::cli
