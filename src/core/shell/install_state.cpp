#include "shell/install_state.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/json_input.h"
#include "shell/shell_integration.h"

namespace veerline {

namespace {

using nlohmann::json;

// A missing key and a JSON null both mean "absent"; any other type makes the record unreadable.
bool optionalString(const json& object, const char* key, std::optional<std::string>& out) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) return true;
    if (!found->is_string()) return false;
    out = found->get<std::string>();
    return true;
}

bool requiredString(const json& object, const char* key, std::string& out) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return false;
    out = found->get<std::string>();
    return true;
}

bool requiredBool(const json& object, const char* key, bool& out) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_boolean()) return false;
    out = found->get<bool>();
    return true;
}

bool requiredInteger(const json& object, const char* key, std::int64_t& out) {
    auto found = object.find(key);
    if (found == object.end()) return false;
    if (found->is_number_unsigned()) {
        auto value = found->get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return false;
        out = static_cast<std::int64_t>(value);
        return true;
    }
    if (found->is_number_integer()) {
        out = found->get<std::int64_t>();
        return true;
    }
    // 1.0 is still a whole number.
    if (found->is_number_float()) {
        double value = found->get<double>();
        if (std::trunc(value) != value || value < -9.2e18 || value > 9.2e18) return false;
        out = static_cast<std::int64_t>(value);
        return true;
    }
    return false;
}

}  // namespace

std::string InstallState::encoded(const std::string& displayPath) const {
    json records = json::array();
    for (const FileRecord& file : files) {
        json record = {
            {"path", file.path},
            {"existedBefore", file.existedBefore},
            {"addedNewline", file.addedNewline},
            {"installedSHA256", file.installedSHA256},
        };
        if (file.backupPath) record["backupPath"] = *file.backupPath;
        records.push_back(std::move(record));
    }
    // nlohmann's object keeps its keys sorted.
    json document = {{"version", version}, {"files", std::move(records)}};
    if (installedAt) document["installedAt"] = *installedAt;
    try {
        return document.dump(2) + "\n";
    } catch (const json::exception&) {
        throw VeerlineError::io("Couldn't write " + displayPath + ": A path in it isn't valid UTF-8 text.");
    }
}

std::optional<InstallState> InstallState::decoded(std::string_view text) noexcept {
    try {
        json document = JsonInput::parse(text).value_or(nullptr);
        if (!document.is_object()) return std::nullopt;
        InstallState state;
        if (!requiredInteger(document, "version", state.version)) return std::nullopt;
        if (!optionalString(document, "installedAt", state.installedAt)) return std::nullopt;
        auto files = document.find("files");
        if (files == document.end() || !files->is_array()) return std::nullopt;
        for (const json& item : *files) {
            if (!item.is_object()) return std::nullopt;
            FileRecord record;
            if (!requiredString(item, "path", record.path) ||
                !requiredBool(item, "existedBefore", record.existedBefore) ||
                !optionalString(item, "backupPath", record.backupPath) ||
                !requiredBool(item, "addedNewline", record.addedNewline) ||
                !requiredString(item, "installedSHA256", record.installedSHA256)) {
                return std::nullopt;
            }
            state.files.push_back(std::move(record));
        }
        return state;
    } catch (...) {
        return std::nullopt;
    }
}

const InstallState::FileRecord* InstallState::record(const std::string& path) const noexcept {
    for (const FileRecord& file : files) {
        if (file.path == path) return &file;
    }
    return nullptr;
}

std::optional<InstallState> ShellIntegration::loadState() const noexcept {
    try {
        // The record is input, not instructions: it may name only the start-up files Veerline
        // manages, and backups only inside its own backups folder.
        constexpr std::size_t recordLimit = 1024 * 1024;
        std::optional<InstallState> state = InstallState::decoded(readBounded(stateFile(), recordLimit, false));
        if (!state) return std::nullopt;
        std::erase_if(state->files,
                      [&](const InstallState::FileRecord& record) { return !isManagedFile(record.path); });
        for (InstallState::FileRecord& record : state->files) {
            if (record.backupPath && !isOwnBackup(*record.backupPath)) record.backupPath.reset();
        }
        return state;
    } catch (...) {
        return std::nullopt;
    }
}

void ShellIntegration::saveState(const InstallState& state) const {
    replaceOwnFile(state.encoded(paths_.abbreviate(stateFile())), stateFile(), 0644);
}

}  // namespace veerline
