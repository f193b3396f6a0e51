// `veerline profile ...`: list, add, rename, change and remove profiles. Every change goes
// through ProfileStore::update, so the document is validated by the library before it is saved.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <set>

#include "cli/cli.h"
#include "cli/options.h"
#include "cli/output.h"
#include "base/error.h"
#include "profiles/profile_store.h"
#include "shell/shell_quote.h"
#include "base/unicode.h"

namespace veerline::cli {

namespace {

struct ProfileOptions {
    std::string name;
    std::string newName;
    std::optional<std::string> color;
    std::optional<std::string> badge;
    std::optional<std::string> tools;
    std::optional<std::string> storage;
    bool json = false;
    bool keepData = false;
};

// New profiles take the first colour no other profile wears, so that they are told apart.
ProfileColor freeColor(const ProfileDocument& document) {
    for (ProfileColor color : profilecolor::allCases) {
        bool taken = std::any_of(document.profiles.begin(), document.profiles.end(),
                                 [color](const Profile& profile) { return profile.color == color; });
        if (!taken) return color;
    }
    return profilecolor::allCases[document.profiles.size() % profilecolor::allCases.size()];
}

int listProfiles(const Context& context, const ProfileOptions& options) {
    ProfileDocument document = ProfileStore(context.paths).load();
    if (options.json) {
        nlohmann::json profiles = nlohmann::json::array();
        for (const Profile& profile : document.profiles) profiles.push_back(profileToJSON(profile));
        std::cout << encodeStoredJSON(profiles);
        return 0;
    }
    if (document.profiles.empty()) {
        std::cout << "No profiles yet. Add one with `veerline profile add NAME`.\n";
        return 0;
    }
    Table table({"NAME", "ID", "BADGE", "COLOR", "TOOLS", "STORAGE"});
    for (const Profile& profile : document.profiles) {
        table.addRow({swatch(profile.color, context.colour) + printable(profile.name), printable(profile.id.rawValue),
                      printable(profile.badge),
                      std::string(profilecolor::rawValue(profile.color)), describeTools(profile.tools()),
                      std::string(Profile::storageRawValue(profile.storage))});
    }
    table.print(std::cout);
    if (document.cliDefault) {
        const Profile* fallback = document.profile(*document.cliDefault);
        std::cout << "\nTerminal default: " << printable(fallback ? fallback->name : document.cliDefault->rawValue)
                  << "\n";
    }
    return 0;
}

int addProfile(const Context& context, const ProfileOptions& options) {
    std::string name = unicode::trimmed(options.name);
    std::optional<ProfileColor> color;
    if (options.color) color = parseColor(*options.color);
    std::optional<std::vector<ToolKind>> tools;
    if (options.tools) tools = parseTools(*options.tools);
    auto storage = options.storage ? parseStorage(*options.storage) : Profile::Storage::managed;

    ProfileID id = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        std::set<ProfileID> taken;
        for (const Profile& profile : document.profiles) taken.insert(profile.id);
        Profile profile(ProfileID::generate(name, taken), name, color.value_or(freeColor(document)), options.badge,
                        tools.value_or(std::vector<ToolKind>(toolkind::allCases.begin(), toolkind::allCases.end())),
                        storage);
        document.profiles.push_back(profile);
        return profile.id;
    });
    std::cout << id.rawValue << "\n";
    shareSetupWith(context, id);
    return 0;
}

int renameProfile(const Context& context, const ProfileOptions& options) {
    std::string newName = unicode::trimmed(options.newName);
    std::string oldName = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        Profile& profile = findProfile(document, options.name);
        std::string previous = profile.name;
        // A badge that was only ever the default follows the new name.
        if (profile.badge == Profile::defaultBadge(profile.name)) profile.badge = Profile::defaultBadge(newName);
        profile.name = newName;
        return previous;
    });
    std::cout << "Renamed " << curlyQuoted(oldName) << " to " << curlyQuoted(newName) << ".\n";
    return 0;
}

int setProfile(const Context& context, const ProfileOptions& options) {
    if (!options.color && !options.badge && !options.tools && !options.storage) {
        throw UsageError("Nothing to change. Give --color, --badge, --tools or --storage.");
    }
    std::optional<ProfileColor> color;
    if (options.color) color = parseColor(*options.color);
    std::optional<std::vector<ToolKind>> tools;
    if (options.tools) tools = parseTools(*options.tools);
    std::optional<Profile::Storage> storage;
    if (options.storage) storage = parseStorage(*options.storage);

    Profile updated = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        Profile& profile = findProfile(document, options.name);
        if (color) profile.color = *color;
        if (options.badge) profile.badge = *options.badge;
        if (tools) profile.setTools(*tools);
        if (storage) profile.storage = *storage;
        return profile;
    });
    std::cout << "Updated " << curlyQuoted(updated.name) << ".\n";
    // A tool the profile now covers, or a data folder of its own, starts with the shared setup.
    if (tools || storage) shareSetupWith(context, updated.id);
    return 0;
}

struct Removal {
    Profile profile;
    std::size_t rules = 0;
    bool wasDefault = false;
    bool missing = false;  // only the rules and default of an id no profile holds
};

// `profile remove ID` for an id no profile holds any more: takes the rules and the terminal
// default that still point at it, which keep every other change from being saved.
std::optional<Removal> removeLeftovers(ProfileDocument& document, const std::string& typed) {
    const ProfileID id(typed);
    if (document.profile(id) != nullptr) return std::nullopt;
    Removal result{Profile(id, typed)};
    result.rules = std::erase_if(document.rules, [&](const FolderRule& rule) { return rule.profileID == id; });
    result.wasDefault = document.cliDefault == id;
    if (result.rules == 0 && !result.wasDefault) return std::nullopt;
    if (result.wasDefault) document.cliDefault.reset();
    result.missing = true;
    return result;
}

int removeProfile(const Context& context, const ProfileOptions& options) {
    Removal removal = ProfileStore(context.paths).update([&](ProfileDocument& document) {
        if (document.profile(std::string_view(options.name)) == nullptr) {
            if (std::optional<Removal> leftovers = removeLeftovers(document, options.name)) return *leftovers;
        }
        // A profile with an unusable id can still leave the document, which repairs it, as long
        // as nothing is deleted by that id.
        const Profile& found = options.keepData ? findAnyProfile(document, options.name)
                                                : findProfile(document, options.name);
        Removal result{found};
        const ProfileID id = found.id;
        document.profiles.erase(document.profiles.begin() + (&found - document.profiles.data()));
        // Rules and the default of an id another profile still holds are that profile's.
        if (document.profile(id) == nullptr) {
            result.rules = std::erase_if(document.rules, [&](const FolderRule& rule) { return rule.profileID == id; });
            if (document.cliDefault == id) {
                document.cliDefault.reset();
                result.wasDefault = true;
            }
        }
        return result;
    });

    if (removal.missing) {
        std::cout << "No profile has the id " << curlyQuoted(options.name) << ".";
        if (removal.rules > 0) {
            std::cout << " Removed its " << (removal.rules == 1 ? "folder rule" : std::to_string(removal.rules) + " folder rules")
                      << ".";
        }
        std::cout << "\n";
        if (removal.wasDefault) std::cout << "There's no terminal default now.\n";
        return 0;
    }
    std::cout << "Removed " << curlyQuoted(removal.profile.name);
    if (removal.rules > 0) {
        std::cout << " and its " << removal.rules << (removal.rules == 1 ? " folder rule" : " folder rules");
    }
    std::cout << ".\n";
    if (removal.wasDefault) std::cout << "There's no terminal default now.\n";
    if (options.keepData) return 0;
    removeProfileData(context, removal.profile);
    return removeProfileSecrets(removal.profile);
}

}  // namespace

VeerlineError unusableProfileError(const Profile& profile, const std::string& reason) {
    return VeerlineError::invalidProfile(reason + " Veerline won't make folders or keys of it: remove " +
                                         curlyQuoted(profile.name) + " with `veerline profile remove " +
                                         ShellQuote::quote(profile.name) + " --keep-data` and add it again.");
}

void addProfileCommands(CLI::App& app, const Context& context, Action& chosen) {
    CLI::App* group = app.add_subcommand("profile", "List, add, rename, change and remove profiles");
    group->require_subcommand(0, 1);
    auto options = std::make_shared<ProfileOptions>();
    const std::string nameHelp = "The profile's name (any case) or id";

    CLI::App* list = group->add_subcommand("list", "List the profiles");
    list->add_flag("--json", options->json, "Print the profiles as a JSON array, as they are stored");
    onSelected(list, chosen, [&context, options] { return listProfiles(context, *options); });

    auto addAppearance = [&](CLI::App* command) {
        command->add_option("--color", options->color, "blue, green, orange, purple, pink or graphite");
        command->add_option("--badge", options->badge, "A short label for prompts, such as W");
        command->add_option("--tools", options->tools,
                            "The tools the profile covers, comma-separated: claude-code, codex, claude-desktop, "
                            "chatgpt-app (or claude, desktop, chatgpt, codex-app); \"none\" for none");
        command->add_option("--storage", options->storage,
                            "managed (a data folder of the profile's own) or system (the tools' default setup)");
    };

    CLI::App* add = group->add_subcommand("add", "Add a profile and print its new id");
    add->add_option("name", options->name, "The new profile's name")->required();
    addAppearance(add);
    add->footer("Defaults: the first colour no other profile has, the name's initials as badge, all tools, "
                "managed storage.");
    onSelected(add, chosen, [&context, options] { return addProfile(context, *options); });

    CLI::App* rename = group->add_subcommand("rename", "Give a profile a new name (its id stays)");
    rename->add_option("name", options->name, nameHelp)->required()->type_name("PROFILE");
    rename->add_option("new-name", options->newName, "The new name")->required();
    onSelected(rename, chosen, [&context, options] { return renameProfile(context, *options); });

    CLI::App* set = group->add_subcommand("set", "Change a profile's colour, badge, tools or storage");
    set->add_option("name", options->name, nameHelp)->required()->type_name("PROFILE");
    addAppearance(set);
    onSelected(set, chosen, [&context, options] { return setProfile(context, *options); });

    CLI::App* remove = group->add_subcommand(
        "remove", "Remove a profile, its folder rules and, unless --keep-data, its tools' data folders and keys");
    remove->add_option("name", options->name, nameHelp)->required()->type_name("PROFILE");
    remove->add_flag("--keep-data", options->keepData, "Keep the profile's data folders and stored keys");
    onSelected(remove, chosen, [&context, options] { return removeProfile(context, *options); });
}

}  // namespace veerline::cli
