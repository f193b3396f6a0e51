#include "doctor/doctor.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "base/error.h"
#include "base/file_io.h"
#include "base/unicode.h"
#include "platform/platform.h"
#include "resolution/binary_locator.h"
#include "resolution/shim_plan.h"
#include "shell/shell_integration.h"
#include "shell/shell_quote.h"
#include "sharing/profile_sharing.h"
#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"
#include "tools/tool_registry.h"

namespace veerline {

namespace {

using Level = DoctorCheck::Level;

struct CommandLineTool {
    std::string_view command;
    ToolKind kind;
};

constexpr std::array<CommandLineTool, 2> commandLineTools = {
    CommandLineTool{ClaudeCodeAdapter::binaryName, ToolKind::claudeCode},
    CommandLineTool{CodexAdapter::binaryName, ToolKind::codex}};

std::string curlyQuoted(std::string_view text) {
    return "\u201C" + std::string(text) + "\u201D";
}

std::string counted(std::size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string result;
    for (const std::string& part : parts) {
        if (!result.empty()) result += separator;
        result += part;
    }
    return result;
}

bool anyProfileUses(const ProfileDocument& document, ToolKind kind) {
    return std::any_of(document.profiles.begin(), document.profiles.end(),
                       [kind](const Profile& profile) { return profile.uses(kind); });
}

std::string displayName(ToolKind kind) {
    return std::string(toolkind::displayName(kind));
}

// Far more than any start-up file a shell reads at every start, yet a bound on what a run holds:
// a larger file (a huge sparse one, say) is skipped unread.
constexpr std::size_t startupFileLimit = 64 * 1024 * 1024;

// The whole file when it is a regular file of a start-up file's size and is UTF-8: a FIFO, a
// device or a huge sparse file in its place is skipped like an unreadable one.
std::optional<std::string> readText(const std::string& path) noexcept {
    try {
        auto text = readRegularFile(path, startupFileLimit);
        if (!text || !unicode::isValidUTF8(*text)) return std::nullopt;
        return text;
    } catch (...) {
        return std::nullopt;
    }
}

// 2999990 as "2,999,990".
std::string grouped(std::size_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

// Findings of one kind, of which a report shows the first few and counts the rest: a file with
// millions of alias lines must not make a report of millions of lines.
class Findings {
public:
    static constexpr std::size_t shown = 10;

    void add(std::string finding) {
        if (kept_.size() < shown) {
            kept_.push_back(std::move(finding));
        } else {
            ++more_;
        }
    }
    bool empty() const noexcept { return kept_.empty(); }
    std::string joined(std::string_view separator) const {
        std::string text = veerline::joined(kept_, separator);
        if (more_ > 0) text += std::string(separator) + "and " + grouped(more_) + " more";
        return text;
    }

private:
    std::vector<std::string> kept_;
    std::size_t more_ = 0;
};

class Run {
public:
    Run(const Doctor& doctor, bool deep) : doctor_(doctor), deep_(deep), paths_(doctor.context.paths) {}

    std::vector<DoctorCheck> checks() {
        ProfileDocument document = profilesFile();
        for (const CommandLineTool& tool : commandLineTools) {
            binary(tool, document);
            shim(tool);
        }
        desktopApp(document);
        dataFolders(document);
        environment();
        folderRules(document);
        shellBlocks();
        if (doctor_.extraChecks) {
            for (DoctorCheck& check : doctor_.extraChecks(document)) checks_.push_back(std::move(check));
        }
        otherSwitchers();
        aliases();
        if (deep_) signIns(document);
        sharedSettings(document);
        return std::move(checks_);
    }

private:
    void add(std::string id, Level level, std::string title, std::optional<std::string> detail = std::nullopt,
             std::optional<std::string> fix = std::nullopt) {
        checks_.push_back({std::move(id), level, std::move(title), std::move(detail), std::move(fix)});
    }

    const std::string* variable(std::string_view name) const {
        return lookup(doctor_.context.environment, std::string(name));
    }

    ProfileDocument profilesFile() {
        std::optional<std::string> problem;
        try {
            if (doctor_.loadDocument) {
                ProfileDocument document = doctor_.loadDocument();
                add("profiles", Level::ok, "Profiles file is readable",
                    counted(document.profiles.size(), "profile") + ", " + counted(document.rules.size(), "folder rule"));
                unusableProfiles(document);
                return document;
            }
            problem = "There's no way to read the profiles file.";
        } catch (const VeerlineError& error) {
            problem = error.errorDescription();
            // Deleting is only advice for a file nothing can read: a newer Veerline reads this one.
            if (error.kind() == VeerlineError::Kind::storeTooNew) {
                add("profiles", Level::failure, "Profiles file is from a newer Veerline", problem,
                    "Update Veerline to the version that saved it.");
                return ProfileDocument::empty();
            }
        } catch (const std::exception& error) {
            problem = error.what();
        }
        add("profiles", Level::failure, "Profiles file can't be read", problem,
            "Restore " + paths_.abbreviate(paths_.profilesFile()) + " from a backup, or delete it to start over.");
        return ProfileDocument::empty();
    }

    // Profiles the shims pass over and commands refuse, because their id can't name a folder.
    void unusableProfiles(const ProfileDocument& document) {
        for (const Profile& profile : document.profiles) {
            auto reason = document.unusableIDReason(profile.id);
            if (!reason) continue;
            add("profile.id", Level::warning, curlyQuoted(profile.name) + " can't be used",
                *reason + " Its folder rules and tools are passed over.",
                "Remove it with `veerline profile remove " + ShellQuote::quote(profile.name) +
                    " --keep-data` and add it again.");
        }
    }

    void binary(const CommandLineTool& tool, const ProfileDocument& document) {
        const std::string command(tool.command);
        auto found = BinaryLocator(doctor_.context.environment, paths_).find(command);
        if (!found && tool.kind == ToolKind::codex) found = CodexAdapter::bundledCodex(paths_);
        const std::string id = "binary." + std::string(toolkind::rawValue(tool.kind));
        if (found) {
            add(id, Level::ok, displayName(tool.kind) + " found", paths_.abbreviate(*found));
            return;
        }
        std::string title = displayName(tool.kind) + " isn't installed";
        std::string detail = "No `" + command + "` on PATH outside " + paths_.abbreviate(paths_.shimDirectory()) + ".";
        if (anyProfileUses(document, tool.kind)) {
            add(id, Level::warning, std::move(title), std::move(detail),
                "Install " + displayName(tool.kind) + ", or turn it off for your profiles.");
        } else {
            add(id, Level::info, std::move(title), std::move(detail));
        }
    }

    void shim(const CommandLineTool& tool) {
        const std::string command(tool.command);
        const std::string id = "shim." + std::string(toolkind::rawValue(tool.kind));
        const std::string shims = paths_.shimDirectory();
        if (!PathUtil::isExecutableFile(shims + "/" + command)) {
            add(id, Level::info, "Shell integration for `" + command + "` isn't installed",
                "Folder rules only apply once it is.",
                platform::shellIntegrationSetting()
                    ? "Turn on " + std::string(*platform::shellIntegrationSetting()) + ", or run `veerline shell install`."
                    : std::string("Run `veerline shell install`."));
            return;
        }
        auto first = BinaryLocator(doctor_.context.environment, paths_).findIncludingExcluded(command);
        if (first) {
            std::string folder = PathUtil::parent(*first);
            if (PathUtil::normalize(folder) == PathUtil::normalize(shims) ||
                PathUtil::realPath(folder) == PathUtil::realPath(shims)) {
                add(id, Level::ok, "`" + command + "` goes through Veerline");
                return;
            }
        }
        // With every block last, the block isn't what lets PATH skip the shims: this terminal
        // started before the install (or changed PATH since), and a new one starts with the shims.
        const auto blocks = ShellIntegration(paths_, doctor_.context.environment).status().blocks;
        const bool blocksLast = !blocks.empty() && std::all_of(blocks.begin(), blocks.end(),
                                                               [](const auto& block) { return block.isLast; });
        add(id, Level::warning, "`" + command + "` skips Veerline in this shell",
            "PATH finds " + (first ? paths_.abbreviate(*first) : std::string("nothing")) + " before " +
                paths_.abbreviate(shims) + ".",
            blocksLast ? "Open a new terminal: this one started before the shell integration was installed, or "
                         "changed PATH since."
                       : "Move the Veerline block to the end of your shell file (`veerline shell install` does this), "
                         "then open a new terminal.");
    }

    void desktopApp(const ProfileDocument& document) {
        if (const auto& app = doctor_.desktop) {
            std::string detail = paths_.abbreviate(app->path);
            if (app->version) detail += ", version " + *app->version;
            add("desktop", Level::ok, "Claude Desktop found", std::move(detail));
        } else if (!platform::hasApplicationBundles()) {
            // Every user of this system would be warned about something they can't install.
            add("desktop", Level::info, "Claude Desktop isn't installed",
                "There is no Linux version; Veerline manages the command-line tools here.");
        } else if (anyProfileUses(document, ToolKind::claudeDesktop)) {
            add("desktop", Level::warning, "Claude Desktop isn't installed", std::nullopt,
                "Install Claude Desktop from " + std::string(Doctor::desktopDownloadAddress) +
                    ", or turn it off for your profiles.");
        } else {
            add("desktop", Level::info, "Claude Desktop isn't installed");
        }
    }

    void dataFolders(const ProfileDocument& document) {
        Findings notWritable;
        for (const Profile& profile : document.profiles) {
            if (profile.storage != Profile::Storage::managed || !document.isUsable(profile.id)) continue;
            for (ToolKind tool : profile.tools()) {
                std::string folder = paths_.dataDirectory(tool, profile.id);
                if (PathUtil::isDirectory(folder) && ::access(folder.c_str(), W_OK) != 0) {
                    notWritable.add(paths_.abbreviate(folder));
                }
            }
        }
        std::string existing = paths_.supportDirectory();
        while (!PathUtil::isDirectory(existing) && existing != "/") existing = PathUtil::parent(existing);
        if (::access(existing.c_str(), W_OK) != 0) notWritable.add(paths_.abbreviate(existing));

        if (notWritable.empty()) {
            add("datadirs", Level::ok, "Data folders are writable");
        } else {
            add("datadirs", Level::failure, "Some data folders aren't writable", notWritable.joined(", "),
                "Fix ownership with `sudo chown -R $USER " +
                    ShellQuote::quote(paths_.abbreviate(paths_.supportDirectory())) + "`.");
        }
    }

    void environment() {
        const auto managed = ShimPlan::managedNames(variable(Doctor::managedMarkerVariable));
        for (std::string_view name : ToolRegistry::managedVariables) {
            const std::string* value = variable(name);
            if (value == nullptr) continue;
            const std::string id = "env." + std::string(name);
            if (managed.contains(std::string(name))) {
                const std::string* profile = variable(ShimPlan::profileVariable);
                add(id, Level::info, std::string(name) + " was set by Veerline",
                    "Profile " + (profile ? *profile : std::string("?")) + " is active in this shell.");
            } else {
                add(id, Level::warning, "You export " + std::string(name) + " yourself",
                    std::string(name) + "=" + paths_.abbreviate(*value) +
                        ". Veerline leaves it alone, so folder rules won't change it.",
                    "Remove the `export " + std::string(name) + "=…` line from your shell file if you want Veerline "
                    "to choose.");
            }
        }
        std::vector<std::string_view> overriding(ClaudeCodeAdapter::overridingVariables.begin(),
                                                 ClaudeCodeAdapter::overridingVariables.end());
        overriding.insert(overriding.end(), CodexAdapter::overridingVariables.begin(),
                          CodexAdapter::overridingVariables.end());
        for (std::string_view name : overriding) {
            if (variable(name) == nullptr) continue;
            add("env." + std::string(name), Level::warning, std::string(name) + " is set in your environment",
                "It overrides profile logins, so usage goes to whatever account that key belongs to.",
                "Remove `export " + std::string(name) + "=…` from your shell file unless you mean to use it "
                "everywhere.");
        }
    }

    void folderRules(const ProfileDocument& document) {
        const std::string noProfile = "points at a profile that doesn't exist";
        for (const FolderRule& rule : document.rules) {
            const Profile* profile = document.profile(rule.profileID);
            if (profile == nullptr) {
                add("rule.stale", Level::warning, "A folder rule " + noProfile,
                    rule.path + " → " + curlyQuoted(rule.profileID.rawValue) + ". The rule never applies, and "
                    "changes to your profiles can't be saved while it is there.",
                    "Remove the rule: `veerline rule remove " + ShellQuote::quote(rule.path) + "`.");
                continue;
            }
            std::string folder = PathUtil::normalize(PathUtil::expandTilde(rule.folderPath(), paths_.home));
            if (PathUtil::isDirectory(folder)) continue;
            add("rule.missing", Level::warning, "A folder rule points at a missing folder",
                rule.path + " → " + profile->name + ". Was it moved or renamed?",
                "Update or remove the rule: `veerline rule remove " + ShellQuote::quote(rule.path) + "`.");
        }
        if (document.cliDefault && document.profile(*document.cliDefault) == nullptr) {
            add("default.stale", Level::warning, "The terminal default " + noProfile,
                "It names " + curlyQuoted(document.cliDefault->rawValue) +
                    ". No profile applies where no rule or dotfile does, and changes to your profiles can't be "
                    "saved while it is set.",
                "Clear it with `veerline default --clear`, or choose another with `veerline default PROFILE`.");
        }
    }

    void shellBlocks() {
        ShellIntegration shell(paths_, doctor_.context.environment);
        for (const auto& block : shell.status().blocks) {
            if (block.isLast) continue;
            add("shell.block", Level::warning,
                "Something in " + paths_.abbreviate(block.path) + " comes after the Veerline block",
                "Lines after it can put another `claude` or `codex` ahead of the shim in new terminals.",
                "Run `veerline shell install --yes` to move the block to the end.");
        }
    }

    void otherSwitchers() {
        Findings found;
        const std::string* path = variable("PATH");
        BinaryLocator everywhere(path ? *path : std::string(), {});
        for (std::string_view name : Doctor::conflictingExecutables) {
            if (auto executable = everywhere.find(std::string(name))) found.add(paths_.abbreviate(*executable));
        }
        // Only bundles in Applications folders are apps there; elsewhere the search means nothing.
        if (platform::hasApplicationBundles()) {
            for (const std::string& folder : {paths_.applicationsDirectory, paths_.home + "/Applications"}) {
                for (const std::string& app : switcherApps(folder)) found.add(paths_.abbreviate(app));
            }
        }
        if (found.empty()) {
            add("conflicts", Level::ok, "No other account switchers found");
        } else {
            add("conflicts", Level::warning, "Other account-switching tools are installed", found.joined(", "),
                "Use one switcher at a time. Uninstall the others, or stop using them for Claude and Codex.");
        }
    }

    static std::vector<std::string> switcherApps(const std::string& folder) {
        std::vector<std::string> apps;
        std::error_code error;
        std::filesystem::directory_iterator entries(folder, error);
        if (error) return apps;
        for (const auto& entry : entries) {
            std::string name = entry.path().filename().string();
            if (!name.ends_with(".app")) continue;
            const std::string lowered = unicode::lowercased(name);
            for (std::string_view fragment : Doctor::conflictingAppFragments) {
                if (lowered.find(unicode::lowercased(fragment)) != std::string::npos) {
                    apps.push_back(folder + "/" + name);
                    break;
                }
            }
        }
        // Directory order is arbitrary; the report should read the same every time.
        std::sort(apps.begin(), apps.end());
        return apps;
    }

    // Only once the user has turned sharing on at some point: before that there is nothing to say.
    void sharedSettings(const ProfileDocument& document) {
        if (!ShareSettings::exists(paths_)) return;
        const std::string fix = "Run `veerline share sync`.";
        std::vector<std::string> outdated;
        try {
            ShareSettings settings = ShareSettings::load(paths_);
            if (settings.sources.empty()) {
                add("sharing", Level::info, "Profiles don't share a setup", std::nullopt,
                    "Run `veerline share on` to share one.");
                return;
            }
            for (const ShareReport& report : ProfileSharing::applyAll(paths_, document, settings, true)) {
                if (!report.changes.empty() || report.failed) {
                    outdated.push_back(report.profileName + " · " + displayName(report.tool) + " (" +
                                       (report.failed ? *report.skipped : joined(report.changes, ", ")) + ")");
                }
            }
        } catch (const VeerlineError& error) {
            add("sharing", Level::warning, "Shared settings can't be checked", error.errorDescription());
            return;
        }
        if (outdated.empty()) {
            add("sharing", Level::ok, "Shared settings are up to date in every profile");
        } else {
            add("sharing", Level::warning, "Shared settings are out of date", joined(outdated, "; "), fix);
        }
    }

    void aliases() {
        Findings hits;
        for (std::string_view file : Doctor::aliasFiles) {
            auto text = readText(paths_.home + "/" + std::string(file));
            if (!text) continue;
            std::size_t number = 0;
            std::size_t start = 0;
            while (start <= text->size()) {
                std::size_t end = text->find('\n', start);
                if (end == std::string::npos) end = text->size();
                ++number;
                std::string_view line(text->data() + start, end - start);
                start = end + 1;
                while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
                while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
                if (line.starts_with("#")) continue;
                for (const CommandLineTool& tool : commandLineTools) {
                    if (bypasses(line, tool.command)) {
                        hits.add("~/" + std::string(file) + ":" + std::to_string(number) + " (" +
                                       std::string(tool.command) + ")");
                    }
                }
            }
        }
        if (hits.empty()) return;
        add("aliases", Level::warning, "A shell alias or function bypasses Veerline", hits.joined(", "),
            "Remove or rename the alias so `claude` and `codex` reach the Veerline shim.");
    }

    static bool bypasses(std::string_view line, std::string_view tool) {
        const std::string name(tool);
        for (const std::string& start : {"alias " + name + "=", "function " + name + " ", "function " + name + "(",
                                         name + "()", name + " ()"}) {
            if (line.starts_with(start)) return true;
        }
        return false;
    }

    struct Question {
        const ToolAdapter* adapter = nullptr;
        const Profile* profile = nullptr;
        std::string label;  // "Work · Claude Code"
        ToolStatus answer;
    };

    void signIns(const ProfileDocument& document) {
        auto adapters = ToolRegistry::cliAdapters(doctor_.context);
        std::vector<Question> questions;
        for (const auto& adapter : adapters) {
            for (const Profile& profile : document.profiles) {
                if (!profile.uses(adapter->kind()) || !document.isUsable(profile.id)) continue;
                questions.push_back({adapter.get(), &profile, profile.name + " · " + displayName(adapter->kind()), {}});
            }
        }
        ask(questions);

        std::size_t next = 0;
        for (const auto& adapter : adapters) {
            const ToolKind kind = adapter->kind();
            const std::string raw(toolkind::rawValue(kind));
            // Keys in the order first seen, each with the names of the profiles signed in to it.
            std::vector<std::pair<std::string, std::vector<std::string>>> accounts;
            for (; next < questions.size() && questions[next].adapter == adapter.get(); ++next) {
                const Question& question = questions[next];
                const ToolStatus& status = question.answer;
                std::string id = "status." + question.profile->id.rawValue + "." + raw;
                std::string title = question.label + ": " + std::string(status.label());
                switch (status.kind) {
                    case ToolStatus::Kind::signedIn: {
                        const AccountInfo& account = status.account;
                        std::vector<std::string> facts;
                        for (const auto* fact : {&account.email, &account.organizationName, &account.plan,
                                                 &account.method}) {
                            if (*fact) facts.push_back(**fact);
                        }
                        add(std::move(id), Level::ok, std::move(title),
                            facts.empty() ? std::nullopt : std::optional(joined(facts, " · ")));
                        if (auto key = account.sameAccountKey()) {
                            auto known = std::find_if(accounts.begin(), accounts.end(),
                                                      [&](const auto& entry) { return entry.first == *key; });
                            if (known == accounts.end()) {
                                accounts.push_back({*key, {question.profile->name}});
                            } else {
                                known->second.push_back(question.profile->name);
                            }
                        }
                        break;
                    }
                    case ToolStatus::Kind::ready:
                        add(std::move(id), Level::ok, std::move(title));
                        break;
                    case ToolStatus::Kind::needsAttention:
                        add(std::move(id), Level::warning, std::move(title), status.text,
                            "Sign in again: `veerline login " + ShellQuote::quote(question.profile->name) + " " + raw +
                                "`.");
                        break;
                    case ToolStatus::Kind::notInstalled:
                    case ToolStatus::Kind::notSetUp:
                        add(std::move(id), Level::info, std::move(title));
                        break;
                }
            }
            for (const auto& [key, names] : accounts) {
                if (names.size() < 2) continue;
                add("account.same." + raw, Level::warning,
                    joined(names, " and ") + " use the same " + displayName(kind) + " account",
                    "Profiles are meant to keep separate accounts apart.",
                    "Sign one of them in to a different account, or merge the profiles.");
            }
        }
    }

    // Asks every question, a few at a time; each answer lands in its own question.
    void ask(std::vector<Question>& questions) {
        if (questions.empty()) return;
        std::mutex progressLock;
        std::vector<bool> asking(questions.size(), false);
        std::size_t answered = 0;
        auto report = [&](std::size_t index, bool nowAsking) {
            if (!doctor_.onProgress) return;
            std::lock_guard lock(progressLock);
            asking[index] = nowAsking;
            if (!nowAsking) ++answered;
            Doctor::Progress progress{answered, questions.size(), {}};
            for (std::size_t i = 0; i < questions.size(); ++i) {
                if (asking[i]) progress.waitingOn.push_back(questions[i].label);
            }
            try {
                doctor_.onProgress(progress);
            } catch (...) {
            }
        };
        std::atomic<std::size_t> next{0};
        auto work = [&] {
            for (std::size_t index; (index = next.fetch_add(1)) < questions.size();) {
                report(index, true);
                questions[index].answer = questions[index].adapter->status(*questions[index].profile);
                report(index, false);
            }
        };
        const std::size_t threads = std::clamp<std::size_t>(doctor_.concurrentQuestions, 1, questions.size());
        std::vector<std::jthread> workers;
        try {
            for (std::size_t i = 1; i < threads; ++i) workers.emplace_back(work);
        } catch (const std::system_error&) {
            // Fewer helpers: the questions left are asked on this thread below.
        }
        work();
    }

    const Doctor& doctor_;
    bool deep_;
    const Paths& paths_;
    std::vector<DoctorCheck> checks_;
};

}  // namespace

std::vector<DoctorCheck> Doctor::run(bool deep) const {
    return Run(*this, deep).checks();
}

}  // namespace veerline
