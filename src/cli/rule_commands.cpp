// `veerline rule ...`, `veerline default` and `veerline which`: where each profile applies, and
// which one applies here.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>
#include <optional>

#include "cli/cli.h"
#include "cli/output.h"
#include "base/error.h"
#include "profiles/profile_store.h"
#include "resolution/rule_resolver.h"
#include "base/unicode.h"

namespace veerline::cli {

namespace {

struct RuleOptions {
    std::string path;
    std::string profile;
    std::optional<std::string> defaultProfile;
    std::optional<std::string> whichPath;
    bool clear = false;
    bool json = false;
};

// A folder the user typed, absolute and normalised: "~" expanded, relative to the working
// folder, a "/**" (everything below) dropped since a rule always covers its whole folder.
std::string absoluteFolder(const Context& context, std::string typed) {
    if (typed.ends_with("/**")) typed.resize(typed.size() - 3);
    return PathUtil::normalize(PathUtil::expandTilde(typed, context.paths.home), context.workingDirectory());
}

std::string ruleFolder(const Context& context, const FolderRule& rule) {
    return PathUtil::normalize(PathUtil::expandTilde(rule.folderPath(), context.paths.home));
}

std::string profileLabel(const ProfileDocument& document, const ProfileID& id) {
    const Profile* profile = document.profile(id);
    return printable(profile ? profile->name : "(no profile with id " + id.rawValue + ")");
}

int addRule(const Context& context, const RuleOptions& options) {
    std::string stored = context.paths.abbreviate(absoluteFolder(context, options.path));
    std::string name = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        const Profile& profile = findProfile(document, options.profile);
        document.rules.push_back(FolderRule{stored, profile.id});
        return profile.name;
    });
    std::cout << "Folders in " << printable(stored) << " now use " << curlyQuoted(name) << ".\n";
    return 0;
}

int removeRule(const Context& context, const RuleOptions& options) {
    std::string folder = absoluteFolder(context, options.path);
    std::string wanted = unicode::lowercased(folder);
    std::size_t removed = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        return std::erase_if(document.rules, [&](const FolderRule& rule) {
            return unicode::lowercased(ruleFolder(context, rule)) == wanted;
        });
    });
    if (removed == 0) {
        throw VeerlineError::invalidRule("There's no rule for " + context.paths.abbreviate(folder) +
                                         ". Run `veerline rule list` to see them.");
    }
    std::cout << "Removed the rule for " << printable(context.paths.abbreviate(folder)) << ".\n";
    return 0;
}

int listRules(const Context& context, const RuleOptions& options) {
    ProfileDocument document = ProfileStore(context.paths).load();
    if (options.json) {
        nlohmann::json rules = nlohmann::json::array();
        for (const FolderRule& rule : document.rules) rules.push_back(ruleToJSON(rule));
        std::cout << encodeStoredJSON(rules);
        return 0;
    }
    if (document.rules.empty()) {
        std::cout << "No folder rules yet. Add one with `veerline rule add FOLDER PROFILE`.\n";
        return 0;
    }
    Table table({"FOLDER", "PROFILE"});
    for (const FolderRule& rule : document.rules) {
        const Profile* profile = document.profile(rule.profileID);
        table.addRow({printable(rule.folderPath()), (profile ? swatch(profile->color, context.colour) : "") +
                                             profileLabel(document, rule.profileID)});
    }
    table.print(std::cout);
    return 0;
}

int terminalDefault(const Context& context, const RuleOptions& options) {
    ProfileStore store(context.paths);
    if (options.clear) {
        store.update([](ProfileDocument& document) { document.cliDefault.reset(); });
        std::cout << "There's no terminal default now.\n";
        return 0;
    }
    if (options.defaultProfile) {
        std::string name = store.update([&](ProfileDocument& document) {
            const Profile& profile = findProfile(document, *options.defaultProfile);
            document.cliDefault = profile.id;
            return profile.name;
        });
        std::cout << "The terminal default is now " << curlyQuoted(name) << ".\n";
        return 0;
    }
    ProfileDocument document = store.load();
    if (!document.cliDefault) {
        std::cout << "There's no terminal default. Set one with `veerline default PROFILE`.\n";
    } else {
        std::cout << profileLabel(document, *document.cliDefault) << "\n";
    }
    return 0;
}

nlohmann::json resolutionJSON(const Resolution& resolution) {
    nlohmann::json result;
    result["profile"] = resolution.profile ? nlohmann::json(resolution.profile->name) : nlohmann::json(nullptr);
    result["profileID"] =
        resolution.profile ? nlohmann::json(resolution.profile->id.rawValue) : nlohmann::json(nullptr);
    result["rule"] = nullptr;
    result["dotfile"] = nullptr;
    switch (resolution.source.kind) {
    case Resolution::Source::Kind::folderRule:
        result["source"] = "folderRule";
        if (resolution.source.rule) result["rule"] = ruleToJSON(*resolution.source.rule);
        break;
    case Resolution::Source::Kind::dotfile:
        result["source"] = "dotfile";
        result["dotfile"] = resolution.source.path;
        break;
    case Resolution::Source::Kind::cliDefault:
        result["source"] = "cliDefault";
        break;
    case Resolution::Source::Kind::none:
        result["source"] = "none";
        break;
    }
    result["warnings"] = resolution.warnings;
    return result;
}

int which(const Context& context, const RuleOptions& options) {
    ProfileDocument document = ProfileStore(context.paths).load();
    std::string cwd = context.workingDirectory();
    Resolution resolution = RuleResolver(document, context.paths.home).resolve(options.whichPath.value_or(cwd), cwd);
    if (resolution.profile) {
        if (auto reason = document.unusableIDReason(resolution.profile->id)) {
            resolution.warnings.push_back(*reason + " The shims pass " + curlyQuoted(resolution.profile->name) +
                                          " over, so the tools run with their default setup here.");
        }
    }
    if (options.json) {
        std::cout << encodeStoredJSON(resolutionJSON(resolution));
        return 0;
    }
    const Paths& paths = context.paths;
    if (!resolution.profile) {
        std::cout << "No profile applies here: no folder rule, dotfile or terminal default covers it.\n";
    } else {
        std::cout << printable(resolution.profile->name) << "  (";
        switch (resolution.source.kind) {
        case Resolution::Source::Kind::folderRule:
            std::cout << "folder rule for " << printable(resolution.source.rule ? resolution.source.rule->folderPath() : "?");
            break;
        case Resolution::Source::Kind::dotfile:
            std::cout << "dotfile " << printable(paths.abbreviate(resolution.source.path));
            break;
        case Resolution::Source::Kind::cliDefault:
        case Resolution::Source::Kind::none:
            std::cout << "terminal default";
            break;
        }
        std::cout << ")\n";
    }
    for (const std::string& warning : resolution.warnings) std::cout << "Warning: " << printable(warning) << "\n";
    return 0;
}

}  // namespace

void addRuleCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto options = std::make_shared<RuleOptions>();
    const std::string profileHelp = "The profile's name (any case) or id";

    CLI::App* group = app.add_subcommand("rule", "Folder rules: which profile applies inside which folder");
    group->require_subcommand(0, 1);

    CLI::App* add = group->add_subcommand("add", "Use a profile in a folder and everything below it");
    add->add_option("folder", options->path, "The folder; relative to here, or starting with ~ or /")->required();
    add->add_option("profile", options->profile, profileHelp)->required();
    add->footer("The folder is stored as a full path, written with ~ inside your home folder. The deepest "
                "matching rule wins.");
    onSelected(add, chosen, [&context, options] { return addRule(context, *options); });

    CLI::App* remove = group->add_subcommand("remove", "Remove the rule for a folder");
    remove->add_option("folder", options->path, "The rule's folder, compared without case")->required();
    onSelected(remove, chosen, [&context, options] { return removeRule(context, *options); });

    CLI::App* list = group->add_subcommand("list", "List the folder rules");
    list->add_flag("--json", options->json, "Print the rules as a JSON array, as they are stored");
    onSelected(list, chosen, [&context, options] { return listRules(context, *options); });

    CLI::App* fallback = app.add_subcommand("default", "Show, set or clear the terminal default profile");
    auto* profileOption =
        fallback->add_option("profile", options->defaultProfile, "The profile to use where no rule or dotfile applies");
    fallback->add_flag("--clear", options->clear, "Remove the terminal default")->excludes(profileOption);
    onSelected(fallback, chosen, [&context, options] { return terminalDefault(context, *options); });

    CLI::App* whichCommand = app.add_subcommand("which", "Say which profile applies to a folder, and why");
    whichCommand->add_option("folder", options->whichPath, "The folder (default: the working folder)");
    whichCommand->add_flag("--json", options->json,
                           "Print {profile, profileID, source, rule, dotfile, warnings} as JSON");
    whichCommand->footer("A .veerline file naming a profile wins over a folder rule when it lies deeper inside the "
                         "rule's folder; the terminal default covers everything else.");
    onSelected(whichCommand, chosen, [&context, options] { return which(context, *options); });
}

}  // namespace veerline::cli
