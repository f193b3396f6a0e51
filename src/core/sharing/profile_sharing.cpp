#include "sharing/profile_sharing.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "base/json_input.h"
#include "sharing/codex_sharing.h"
#include "sharing/share_files.h"
#include "sharing/sign_in_keys.h"
#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"

namespace veerline {

using Json = nlohmann::ordered_json;
using sharing::EntryKind;
using sharing::entryKind;

namespace {

std::optional<std::string> linkTarget(const std::string& path) {
    std::string target(4096, '\0');
    ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return std::nullopt;
    target.resize(static_cast<std::size_t>(length));
    return target;
}

std::string encoded(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// The members of an object, to append to without ordered_map's search for an existing key:
// every key added here is known to be new, and that search made merging quadratic.
Json::object_t::Container& members(Json& object) {
    return object.get_ref<Json::object_t&>();
}

const Json::object_t& membersOf(const Json& object) {
    static const Json::object_t none;
    return object.is_object() ? object.get_ref<const Json::object_t&>() : none;
}

// Equal values, whatever order their keys were written in: a tool may rewrite its file.
bool sameValue(const nlohmann::json& a, const nlohmann::json& b) {
    return a == b;
}

// The values Veerline wrote under one record key, by entry name: those of the record, and those of
// writes recorded as about to happen that may not have finished.
class Written {
public:
    Written(const Json& record, const char* key) {
        if (const auto current = record.find(key); current != record.end()) add(*current);
        if (const auto previous = record.find("previous"); previous != record.end() && previous->is_object()) {
            if (const auto older = previous->find(key); older != previous->end() && older->is_array()) {
                for (const Json& generation : *older) add(generation);
            }
        }
    }

    bool holds(const std::string& name, const nlohmann::json& value) const {
        auto found = values_.find(name);
        if (found == values_.end()) return false;
        return std::any_of(found->second.begin(), found->second.end(),
                           [&](const Json* written) { return sameValue(nlohmann::json(*written), value); });
    }

private:
    std::unordered_map<std::string, std::vector<const Json*>> values_;

    void add(const Json& generation) {
        for (const auto& [name, value] : membersOf(generation)) values_[name].push_back(&value);
    }
};

struct Merged {
    Json entries = Json::object();
    Json written = Json::object();
    bool changed = false;
    std::vector<std::string> ownOnly;  // the profile's entries the shared setup lacks
};

// Merges `shared` into `target`: an entry of `target` still equal to what Veerline wrote is
// Veerline's, to update or drop; any other entry is the profile's own and wins. Linear in the
// number of entries.
Merged mergeEntries(const Json& target, const Written& written, const Json& shared) {
    Merged merged;
    std::unordered_map<std::string_view, const Json*> offered;
    for (const auto& [name, value] : membersOf(shared)) offered.emplace(name, &value);
    std::unordered_set<std::string_view> present;
    auto& out = members(merged.entries);
    auto& now = members(merged.written);
    for (const auto& [name, value] : membersOf(target)) {
        present.insert(name);
        auto found = offered.find(name);
        if (!written.holds(name, nlohmann::json(value))) {
            if (found == offered.end()) merged.ownOnly.push_back(name);
            out.emplace_back(name, value);
            continue;
        }
        if (found == offered.end()) {
            merged.changed = true;
            continue;
        }
        if (!sameValue(nlohmann::json(value), nlohmann::json(*found->second))) merged.changed = true;
        out.emplace_back(name, *found->second);
        now.emplace_back(name, *found->second);
    }
    for (const auto& [name, value] : membersOf(shared)) {
        if (present.contains(name)) continue;
        out.emplace_back(name, value);
        now.emplace_back(name, value);
        merged.changed = true;
    }
    return merged;
}

// The source's settings without what signs in or picks an account; `kept` names what was left out.
Json sharedSettings(const Json& source, std::vector<std::string>& kept) {
    Json shared = Json::object();
    for (const auto& [key, value] : membersOf(source)) {
        if (sharing::SignInKeys::isClaudeSetting(key)) {
            kept.push_back(key);
            continue;
        }
        if (key == "env" && value.is_object()) {
            Json variables = Json::object();
            for (const auto& [name, variable] : membersOf(value)) {
                if (sharing::SignInKeys::isClaudeVariable(name)) {
                    kept.push_back("env." + name);
                } else {
                    members(variables).emplace_back(name, variable);
                }
            }
            if (!variables.empty() || value.empty()) members(shared).emplace_back(key, std::move(variables));
            continue;
        }
        members(shared).emplace_back(key, value);
    }
    return shared;
}

void removeOrThrow(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw ioErrorFromErrno("remove " + path, errno);
}

void moveOrThrow(const std::string& from, const std::string& to) {
    if (int error = moveIntoPlace(from, to); error != 0) throw ioErrorFromErrno("move " + from + " to " + to, error);
}

// Thrown from a write's last check when someone changed the file since it was read.
struct ChangedMeanwhile {};

}  // namespace

struct ProfileSharing::Run {
    const ProfileSharing& sharing;
    bool dryRun;
    std::string folder;
    Json record = Json::object();
    Json saved = Json::object();  // the record as it is on disk
    std::string recordedSource;
    ShareReport report;

    Run(const ProfileSharing& owner, bool onlyLooking, const Profile& profile)
        : sharing(owner), dryRun(onlyLooking), folder(owner.paths_.dataDirectory(owner.tool_, profile.id)) {
        report.tool = owner.tool_;
        report.profileName = profile.name;
        report.folder = folder;
    }

    std::string shown(const std::string& path) const { return sharing.paths_.abbreviate(path); }
    std::string recordPath() const { return folder + "/" + std::string(recordName); }
    void change(std::string item) { report.changes.push_back(std::move(item)); }

    // A source file that must hold a JSON object; nothing when it is absent.
    std::optional<Json> readSourceObject(const std::string& path) const {
        auto text = readRegularFile(path, sharing::maxSharedFileSize);
        if (!text) return std::nullopt;
        return JsonInput::objectOrThrow(*text, shown(path));
    }

    void loadRecord() {
        if (auto text = sharing::readOwnFile(recordPath())) record = JsonInput::objectOrThrow(*text, shown(recordPath()));
        saved = record;
        if (auto source = record.find("source"); source != record.end() && source->is_string()) {
            recordedSource = source->get<std::string>();
        }
    }

    void saveRecord() {
        if (dryRun || record == saved) return;
        sharing::replaceFile(recordPath(), encoded(record), 0600);
        saved = record;
    }

    // Before a file changes, the record on disk says what it will hold now and still what it
    // held before, so that a write that fails or is killed halfway never leaves Veerline's
    // entries looking like the profile's own.
    void writing(const char* key, Json now) {
        // A copy: adding "previous" to the record may move its members.
        Json current = record.contains(key) ? record[key] : Json();
        if (current != now && current.is_object() && !current.empty()) {
            Json& previous = record["previous"];
            if (!previous.is_object()) previous = Json::object();
            if (!previous[key].is_array()) previous[key] = Json::array();
            previous[key].push_back(std::move(current));
        }
        record[key] = std::move(now);
        saveRecord();
    }

    // After the file is written: only what it holds now is Veerline's.
    void written(const char* key) {
        auto previous = record.find("previous");
        if (previous == record.end()) return;
        if (previous->is_object()) previous->erase(key);
        if (!previous->is_object() || previous->empty()) record.erase(previous);
    }

    bool lineBreakAdded() const {
        auto found = record.find("lineBreakAdded");
        return found != record.end() && found->is_boolean() && found->get<bool>();
    }

    bool created(const std::string& item, bool add = false) {
        Json& list = record["created"];
        if (!list.is_array()) list = Json::array();
        bool found = std::find(list.begin(), list.end(), item) != list.end();
        if (add && !found) list.push_back(item);
        return found;
    }

    // The links into the source, with the profile's own item moved aside first; without
    // `sharing`, or where the source no longer has the item, the link goes and the own item
    // comes back.
    void links(bool sharingOn) {
        for (const std::string& name : linkedNames(sharing.tool_)) {
            const std::string item = folder + "/" + name;
            const std::string aside = item + std::string(asideSuffix);
            const std::string wanted = sharing.source_ + "/" + name;
            const EntryKind kind = entryKind(item);
            auto target = kind == EntryKind::link ? linkTarget(item) : std::nullopt;
            const bool current = target && *target == wanted;
            const bool ours = current || (target && !recordedSource.empty() && *target == recordedSource + "/" + name);
            const bool offered = sharingOn && entryKind(wanted) != EntryKind::missing;
            const bool restore = !offered && entryKind(aside) != EntryKind::missing && (ours || kind == EntryKind::missing);
            if (offered && !current) {
                change(name);
                if (!dryRun) {
                    if (kind != EntryKind::missing && !ours) {
                        if (entryKind(aside) != EntryKind::missing) {
                            throw VeerlineError::io("Couldn't move " + shown(item) + " aside: " + shown(aside) +
                                                    " is already there. Move one of them away, then try again.");
                        }
                        moveOrThrow(item, aside);
                    }
                    if (int error = placeLinkAtomically(item, wanted); error != 0) throw ioErrorFromErrno("link " + item, error);
                }
            } else if (!offered && (ours || restore)) {
                change(name);
                if (!dryRun && ours) removeOrThrow(item);
                if (!dryRun && restore) moveOrThrow(aside, item);
            }
            if (entryKind(aside) != EntryKind::missing) report.keptAside.push_back(name + std::string(asideSuffix));
        }
    }

    // Merges `shared` into the object of the profile's JSON file `name` (or its member
    // `within`), the record's `recordKey` saying what Veerline wrote there before. The file is
    // read again right before it is replaced: if anyone changed it meanwhile, the merge starts over.
    void mergeInto(const std::string& name, const std::string& within, const char* recordKey, const Json& shared,
                   const std::string& label, const char* ownLabel) {
        const std::string path = folder + "/" + name;
        // Claude Code rewrites .claude.json all the time, under a lock of its own.
        std::optional<sharing::ClaudeStateLock> lock;
        if (!dryRun && name == ".claude.json") lock.emplace(path, shown(path));
        const std::size_t changes = report.changes.size(), onlyHere = report.onlyHere.size();
        for (int attempt = 1;; ++attempt) {
            report.changes.resize(changes);
            report.onlyHere.resize(onlyHere);
            std::optional<std::string> text = sharing::readOwnFile(path);
            const auto identity = FileIdentity::of(path);
            try {
                if (mergeOnce(path, text, within, recordKey, shared, label, ownLabel, [&] {
                        if (sharing::readOwnFile(path) != text || FileIdentity::of(path) != identity) throw ChangedMeanwhile{};
                    })) {
                    return;
                }
            } catch (const ChangedMeanwhile&) {
                if (attempt == 5) {
                    throw VeerlineError::io("Couldn't update " + shown(path) +
                                            ": it kept changing while Veerline merged it. Try again.");
                }
            }
        }
    }

    template <typename Check>
    bool mergeOnce(const std::string& path, const std::optional<std::string>& text, const std::string& within,
                   const char* recordKey, const Json& shared, const std::string& label, const char* ownLabel,
                   Check&& unchanged) {
        Json file = text ? JsonInput::objectOrThrow(*text, shown(path)) : Json::object();
        Json::iterator member = within.empty() ? file.end() : file.find(within);
        const bool hadEntries = within.empty() || member != file.end();
        static const Json none = Json::object();
        const Json& entries = within.empty() ? file : (hadEntries ? *member : none);
        if (!entries.is_object()) {
            throw VeerlineError::io("Couldn't read " + shown(path) + ": its \"" + within + "\" isn't a JSON object.");
        }
        Merged merged = mergeEntries(entries, Written(record, recordKey), shared);
        for (const std::string& own : merged.ownOnly) {
            if (within.empty() && sharing::SignInKeys::isClaudeSetting(own)) continue;
            report.onlyHere.push_back(std::string(ownLabel) + " " + own);
        }
        if (!merged.changed) {
            record[recordKey] = std::move(merged.written);
            if (!dryRun) written(recordKey);
            return true;
        }
        change(label);
        if (dryRun) return true;
        const std::string name = path.substr(folder.size() + 1);
        if (within.empty()) {
            file = std::move(merged.entries);
        } else if (merged.entries.empty() && created(name + " " + within)) {
            file.erase(member);
        } else {
            if (!hadEntries) created(name + " " + within, true);
            if (hadEntries) {
                *member = std::move(merged.entries);
            } else {
                members(file).emplace_back(within, std::move(merged.entries));
            }
        }
        if (!text) created(name, true);
        writing(recordKey, merged.written);
        if (file.empty() && created(name)) {
            unchanged();
            removeOrThrow(path);
        } else {
            // Indented by two like the tools write them; a file without a final line break keeps none.
            std::string content = encoded(file);
            if (text && !text->ends_with('\n')) content.pop_back();
            sharing::replaceFile(path, content, sharing::fileModeOr(path, 0600), unchanged);
        }
        written(recordKey);
        return true;
    }

    void claudeFiles(bool sharingOn) {
        Json settings = Json::object();
        Json servers = Json::object();
        if (sharingOn) {
            if (auto source = readSourceObject(sharing.source_ + "/settings.json")) {
                settings = sharedSettings(*source, report.signInKept);
            }
            if (auto state = readSourceObject(sharing.claudeStateFile())) {
                if (auto found = state->find("mcpServers"); found != state->end() && found->is_object()) servers = *found;
            }
        }
        mergeInto("settings.json", "", "settings", settings, "settings.json", "setting");
        mergeInto(".claude.json", "mcpServers", "mcpServers", servers, "MCP servers", "MCP server");
    }

    void codexConfig(bool sharingOn) {
        const std::string path = folder + "/config.toml";
        const std::string sourcePath = sharing.source_ + "/config.toml";
        std::optional<std::string> source;
        if (sharingOn) source = readRegularFile(sourcePath, sharing::maxSharedFileSize);
        if (source) report.signInKept = sharing::CodexConfig::signInKeys(*source, shown(sourcePath));
        const Written veerlines(record, "mcpServers");
        // Records of the first version listed the names only: those servers sat in Veerline's block.
        std::set<std::string> listed;
        if (auto names = record.find("mcpServers"); names != record.end() && names->is_array()) {
            for (const Json& name : *names) {
                if (name.is_string()) listed.insert(name.get<std::string>());
            }
        }
        std::optional<std::string> existing = sharing::readOwnFile(path);
        const std::string text = existing.value_or("");
        auto merged = sharing::CodexConfig::merge(
            text, shown(path), lineBreakAdded(), source ? &*source : nullptr, shown(sourcePath),
            [&](const std::string& name, const nlohmann::json& value) {
                return listed.contains(name) || veerlines.holds(name, value);
            });
        for (const std::string& own : merged.ownServers) report.onlyHere.push_back("MCP server " + own);
        if (merged.text == text) {
            record["mcpServers"] = std::move(merged.written);
            record["lineBreakAdded"] = merged.lineBreakAdded;
            return;
        }
        change("MCP servers");
        if (dryRun) return;
        record["lineBreakAdded"] = merged.lineBreakAdded;
        writing("mcpServers", std::move(merged.written));
        sharing::replaceFile(path, merged.text, sharing::fileModeOr(path, 0600), [&] {
            if (sharing::readOwnFile(path) != existing) {
                throw VeerlineError::io("Couldn't update " + shown(path) + ": it changed while Veerline merged it. "
                                        "Run `veerline share sync` again.");
            }
        });
        written("mcpServers");
    }

    void files(bool sharingOn) {
        links(sharingOn);
        if (sharing.tool_ == ToolKind::codex) {
            codexConfig(sharingOn);
        } else {
            claudeFiles(sharingOn);
        }
    }
};

const std::vector<std::string>& ProfileSharing::linkedNames(ToolKind tool) {
    static const std::vector<std::string> claude = {"CLAUDE.md", "commands", "agents", "skills", "plugins", "output-styles"};
    static const std::vector<std::string> codex = {"AGENTS.md", "prompts"};
    return tool == ToolKind::codex ? codex : claude;
}

std::string ProfileSharing::claudeStateFile() const {
    if (source_ == ShareSettings::defaultSource(ToolKind::claudeCode, paths_)) return paths_.home + "/.claude.json";
    return source_ + "/.claude.json";
}

void ProfileSharing::checkSource() const {
    std::vector<std::string> read = tool_ == ToolKind::codex ? std::vector<std::string>{"config.toml"}
                                                              : std::vector<std::string>{"settings.json", ".claude.json"};
    read.insert(read.end(), linkedNames(tool_).begin(), linkedNames(tool_).end());
    std::vector<std::string> roots;
    for (const std::string& own : {paths_.supportDirectory(), paths_.home + "/.veerline"}) {
        roots.push_back(PathUtil::realPath(own).value_or(own));
    }
    auto refuse = [&](const std::string& path, const std::string& what) {
        auto resolved = PathUtil::realPath(path);
        if (!resolved) return;
        for (const std::string& root : roots) {
            if (!PathUtil::isSameOrInside(*resolved, root, false)) continue;
            throw VeerlineError::io("Veerline won't share " + paths_.abbreviate(source_) + ": " + what + " leads into " +
                                    paths_.abbreviate(*resolved) +
                                    ", among Veerline's own files, where each profile keeps its sign-in. Share a "
                                    "folder of your own.");
        }
    };
    refuse(source_, "it");
    for (const std::string& name : read) {
        const std::string path = name == ".claude.json" ? claudeStateFile() : source_ + "/" + name;
        refuse(path, path == source_ + "/" + name ? "its " + name : paths_.abbreviate(path));
    }
}

ShareReport ProfileSharing::apply(const Profile& profile, bool dryRun) const {
    Run run(*this, dryRun, profile);
    const std::string& folder = run.folder;
    if (entryKind(folder) == EntryKind::link || entryKind(PathUtil::parent(folder)) == EntryKind::link) {
        run.report.skipped = "its folder " + run.shown(folder) + " is reached through a symbolic link, so it was left alone";
        return run.report;
    }
    auto identity = FileIdentity::of(folder);
    if (identity && identity == FileIdentity::of(source_)) {
        run.report.skipped = "its folder is the shared folder itself";
        return run.report;
    }
    if (!dryRun) {
        if (tool_ == ToolKind::codex) {
            CodexAdapter::prepareIn(paths_, profile);
        } else {
            ClaudeCodeAdapter::prepareIn(paths_, profile);
        }
    }
    run.loadRecord();
    run.record["source"] = source_;
    run.record["version"] = 2;
    run.files(true);
    run.saveRecord();
    return run.report;
}

ShareReport ProfileSharing::undo(const Profile& profile) const {
    Run run(*this, false, profile);
    if (entryKind(run.folder) != EntryKind::folder) return run.report;
    if (entryKind(PathUtil::parent(run.folder)) == EntryKind::link) return run.report;
    run.loadRecord();
    run.files(false);
    removeOrThrow(run.recordPath());
    return run.report;
}

std::vector<ShareReport> ProfileSharing::applyAll(const Paths& paths, const ProfileDocument& document,
                                                  const ShareSettings& settings, bool dryRun,
                                                  std::optional<ToolKind> only) {
    std::vector<ShareReport> reports;
    for (const auto& [tool, source] : settings.sources) {
        if (only && *only != tool) continue;
        ProfileSharing sharing(paths, tool, source);
        std::optional<std::string> refused;
        try {
            sharing.checkSource();
        } catch (const VeerlineError& error) {
            refused = error.errorDescription();
        }
        for (const Profile& profile : document.profiles) {
            if (profile.storage != Profile::Storage::managed || !profile.uses(tool) || !document.isUsable(profile.id)) {
                continue;
            }
            if (refused) {
                reports.push_back(ShareReport::failure(tool, profile.name, *refused));
                continue;
            }
            try {
                reports.push_back(sharing.apply(profile, dryRun));
            } catch (const VeerlineError& error) {
                reports.push_back(ShareReport::failure(tool, profile.name, error.errorDescription()));
            }
        }
    }
    return reports;
}

}  // namespace veerline
