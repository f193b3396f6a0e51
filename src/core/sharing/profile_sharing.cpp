#include "sharing/profile_sharing.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "sharing/codex_sharing.h"
#include "sharing/share_files.h"
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

// Equal values, whatever order their keys were written in: a tool may rewrite its file.
bool sameValue(const Json& a, const Json& b) {
    return nlohmann::json::parse(a.dump(-1, ' ', false, Json::error_handler_t::replace)) ==
           nlohmann::json::parse(b.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// Merges `shared` into `target`, into which Veerline wrote `written` last time: an entry of
// `target` still equal to what was written is Veerline's, to update or drop; any other entry is
// the profile's own and wins. `written` becomes what is written now. True when `target` changed.
bool mergeEntries(Json& target, Json& written, const Json& shared) {
    bool changed = false;
    Json now = Json::object();
    for (const auto& entry : written.items()) {
        auto current = target.find(entry.key());
        if (current == target.end() || !sameValue(*current, entry.value())) continue;
        auto offered = shared.find(entry.key());
        if (offered == shared.end()) {
            target.erase(entry.key());
            changed = true;
            continue;
        }
        if (!sameValue(*current, *offered)) {
            *current = *offered;
            changed = true;
        }
        now[entry.key()] = *offered;
    }
    for (const auto& entry : shared.items()) {
        if (target.contains(entry.key())) continue;
        target[entry.key()] = entry.value();
        now[entry.key()] = entry.value();
        changed = true;
    }
    written = std::move(now);
    return changed;
}

void removeOrThrow(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw ioErrorFromErrno("remove " + path, errno);
}

void renameOrThrow(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) throw ioErrorFromErrno("move " + from + " to " + to, errno);
}

}  // namespace

struct ProfileSharing::Run {
    const ProfileSharing& sharing;
    bool dryRun;
    std::string folder;
    Json record = Json::object();
    std::string recordedSource;
    ShareReport report;

    Run(const ProfileSharing& owner, bool onlyLooking, const Profile& profile)
        : sharing(owner), dryRun(onlyLooking), folder(owner.paths_.dataDirectory(owner.tool_, profile.id)) {
        report.tool = owner.tool_;
        report.profileName = profile.name;
        report.folder = folder;
    }

    std::string shown(const std::string& path) const { return sharing.paths_.abbreviate(path); }
    void change(std::string item) { report.changes.push_back(std::move(item)); }

    // A JSON file that must hold an object; nothing when it is absent.
    std::optional<Json> readObject(const std::string& path, bool own) const {
        auto text = own ? sharing::readOwnFile(path) : readRegularFile(path, sharing::maxSharedFileSize);
        if (!text) return std::nullopt;
        return parsedObject(*text, path);
    }

    Json parsedObject(const std::string& text, const std::string& path) const {
        Json json = Json::parse(text, nullptr, false);
        if (!json.is_object()) throw VeerlineError::io("Couldn't read " + shown(path) + ": it isn't a JSON object.");
        return json;
    }

    void loadRecord() {
        if (auto loaded = readObject(folder + "/" + std::string(recordName), true)) record = std::move(*loaded);
        if (auto source = record.find("source"); source != record.end() && source->is_string()) {
            recordedSource = source->get<std::string>();
        }
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
                    if (ours) {
                        removeOrThrow(item);
                    } else if (kind != EntryKind::missing) {
                        if (entryKind(aside) != EntryKind::missing) {
                            throw VeerlineError::io("Couldn't move " + shown(item) + " aside: " + shown(aside) +
                                                    " is already there. Move one of them away, then try again.");
                        }
                        renameOrThrow(item, aside);
                    }
                    if (::symlink(wanted.c_str(), item.c_str()) != 0) throw ioErrorFromErrno("link " + item, errno);
                }
            } else if (!offered && (ours || restore)) {
                change(name);
                if (!dryRun && ours) removeOrThrow(item);
                if (!dryRun && restore) renameOrThrow(aside, item);
            }
            if (entryKind(aside) != EntryKind::missing) report.keptAside.push_back(name + std::string(asideSuffix));
        }
    }

    // Merges `shared` into the object of the profile's JSON file `name` (or its member
    // `within`), the record's `recordKey` saying what Veerline wrote there before.
    void mergeInto(const std::string& name, const std::string& within, const char* recordKey, const Json& shared,
                   std::string label) {
        const std::string path = folder + "/" + name;
        std::optional<std::string> text = sharing::readOwnFile(path);
        std::optional<Json> existing = text ? std::optional(parsedObject(*text, path)) : std::nullopt;
        Json file = existing.value_or(Json::object());
        Json entries = within.empty() ? file : file.value(within, Json::object());
        if (!entries.is_object()) {
            throw VeerlineError::io("Couldn't read " + shown(path) + ": its \"" + within + "\" isn't a JSON object.");
        }
        const bool hadEntries = within.empty() || file.contains(within);
        Json& written = record[recordKey];
        if (!written.is_object()) written = Json::object();
        if (!mergeEntries(entries, written, shared)) return;
        change(std::move(label));
        if (dryRun) return;
        if (within.empty()) {
            file = std::move(entries);
        } else if (entries.empty() && created(name + " " + within)) {
            file.erase(within);
        } else {
            if (!hadEntries) created(name + " " + within, true);
            file[within] = std::move(entries);
        }
        if (file.empty() && created(name)) {
            removeOrThrow(path);
            return;
        }
        if (!existing) created(name, true);
        // Indented by two like the tools write them; a file without a final line break keeps none.
        std::string content = encoded(file);
        if (text && !text->ends_with('\n')) content.pop_back();
        sharing::replaceFile(path, content, sharing::fileModeOr(path, 0600));
    }

    void claudeFiles(bool sharingOn) {
        Json settings = Json::object();
        Json servers = Json::object();
        if (sharingOn) {
            if (auto source = readObject(sharing.source_ + "/settings.json", false)) settings = std::move(*source);
            // Sign-in belongs to each profile: a key helper never travels.
            settings.erase("apiKeyHelper");
            if (auto state = readObject(sharing.claudeStateFile(), false)) {
                if (auto found = state->find("mcpServers"); found != state->end() && found->is_object()) servers = *found;
            }
        }
        mergeInto("settings.json", "", "settings", settings, "settings.json");
        mergeInto(".claude.json", "mcpServers", "mcpServers", servers, "MCP servers");
    }

    void codexConfig(bool sharingOn) {
        const std::string path = folder + "/config.toml";
        std::string text = sharing::readOwnFile(path).value_or("");
        std::string own = sharing::CodexConfig::withoutBlock(text, record.value("lineBreakAdded", false));
        std::string wanted = own;
        std::vector<std::string> servers;
        bool lineBreakAdded = false;
        const std::string sourcePath = sharing.source_ + "/config.toml";
        if (sharingOn) {
            if (auto source = readRegularFile(sourcePath, sharing::maxSharedFileSize)) {
                wanted = sharing::CodexConfig::withSharedServers(own, shown(path), *source, shown(sourcePath), servers,
                                                                 lineBreakAdded);
            }
        }
        record["mcpServers"] = servers;
        record["lineBreakAdded"] = lineBreakAdded;
        if (wanted == text) return;
        change("MCP servers");
        if (!dryRun) sharing::replaceFile(path, wanted, sharing::fileModeOr(path, 0600));
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
    const std::string before = run.record.dump();
    run.record["source"] = source_;
    run.record["version"] = 1;
    run.files(true);
    if (!dryRun && run.record.dump() != before) {
        sharing::replaceFile(folder + "/" + std::string(recordName), encoded(run.record), 0600);
    }
    return run.report;
}

ShareReport ProfileSharing::undo(const Profile& profile) const {
    Run run(*this, false, profile);
    if (entryKind(run.folder) != EntryKind::folder) return run.report;
    if (entryKind(PathUtil::parent(run.folder)) == EntryKind::link) return run.report;
    run.loadRecord();
    run.files(false);
    removeOrThrow(run.folder + "/" + std::string(recordName));
    return run.report;
}

std::vector<ShareReport> ProfileSharing::applyAll(const Paths& paths, const ProfileDocument& document,
                                                  const ShareSettings& settings, bool dryRun,
                                                  std::optional<ToolKind> only) {
    std::vector<ShareReport> reports;
    for (const auto& [tool, source] : settings.sources) {
        if (only && *only != tool) continue;
        ProfileSharing sharing(paths, tool, source);
        for (const Profile& profile : document.profiles) {
            if (profile.storage != Profile::Storage::managed || !profile.uses(tool) || !document.isUsable(profile.id)) {
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
