#include "sharing/share_settings.h"

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "base/json_input.h"
#include "profiles/profile_document.h"
#include "profiles/profile_store.h"
#include "sharing/share_files.h"

namespace veerline {

std::string ShareSettings::defaultSource(ToolKind tool, const Paths& paths) {
    return paths.home + (tool == ToolKind::codex ? "/.codex" : "/.claude");
}

bool ShareSettings::exists(const Paths& paths) noexcept {
    return sharing::entryKind(file(paths)) != sharing::EntryKind::missing;
}

ShareSettings ShareSettings::load(const Paths& paths) {
    const std::string path = file(paths);
    std::optional<std::string> text = readRegularFile(path, maxHintFileSize);
    ShareSettings settings;
    if (!text) return settings;
    auto damaged = [&](const std::string& why) {
        return VeerlineError::storeCorrupt(paths.abbreviate(path),
                                           why + ". Fix it, or delete it and run `veerline share on` again.");
    };
    JsonInput::Problem problem = JsonInput::Problem::none;
    nlohmann::json json = JsonInput::parse(*text, &problem).value_or(nullptr);
    if (problem == JsonInput::Problem::tooDeep) throw damaged(JsonInput::describe(problem));
    if (!json.is_object()) throw damaged("it isn't a JSON object");
    if (json.value("version", nlohmann::json()) != 1) throw damaged("its \"version\" isn't 1");
    const nlohmann::json& entries = json.contains("tools") ? json["tools"] : nlohmann::json();
    if (!entries.is_object()) throw damaged("it has no \"tools\" object");
    for (const auto& [key, entry] : entries.items()) {
        auto tool = toolkind::fromRawValue(key);
        if (!tool || toolkind::isApp(*tool)) throw damaged("\"" + key + "\" isn't a command-line tool");
        const nlohmann::json* source = entry.is_object() && entry.contains("source") ? &entry["source"] : nullptr;
        if (!source || !source->is_string() || !source->get<std::string>().starts_with("/")) {
            throw damaged("the \"source\" of \"" + key + "\" isn't an absolute path");
        }
        settings.sources[*tool] = source->get<std::string>();
    }
    return settings;
}

void ShareSettings::save(const Paths& paths) const {
    nlohmann::json entries = nlohmann::json::object();
    for (const auto& [tool, source] : sources) entries[std::string(toolkind::rawValue(tool))] = {{"source", source}};
    std::string text = encodeStoredJSON({{"tools", entries}, {"version", 1}});
    // Under the profiles lock, which also makes the support folder, so that two commands changing
    // the setting one after the other both count.
    ProfileStore(paths).update([&](ProfileDocument&) { sharing::replaceFile(file(paths), text, 0600); });
}

}  // namespace veerline
