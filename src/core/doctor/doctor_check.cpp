#include "doctor/doctor_check.h"

#include <nlohmann/json.hpp>

#include <array>

#include "platform/platform.h"

namespace veerline {

namespace {

constexpr std::array<std::string_view, 4> levelNames = {"ok", "info", "warning", "failure"};

// The member as a string; nothing when it is missing, and `wrongType` set when it isn't a string.
std::optional<std::string> stringMember(const nlohmann::json& object, const char* key, bool& wrongType) {
    auto found = object.find(key);
    if (found == object.end()) return std::nullopt;
    if (!found->is_string()) {
        wrongType = true;
        return std::nullopt;
    }
    return found->get<std::string>();
}

}  // namespace

std::string_view DoctorCheck::rawValue(Level level) noexcept {
    return levelNames[static_cast<std::size_t>(level)];
}

std::optional<DoctorCheck::Level> DoctorCheck::levelFromRawValue(std::string_view raw) noexcept {
    for (std::size_t index = 0; index < levelNames.size(); ++index) {
        if (levelNames[index] == raw) return static_cast<Level>(index);
    }
    return std::nullopt;
}

nlohmann::json DoctorCheck::toJSON() const {
    nlohmann::json json = {{"id", id}, {"level", rawValue(level)}, {"title", title}};
    if (detail) json["detail"] = *detail;
    if (fix) json["fix"] = *fix;
    return json;
}

std::optional<DoctorCheck> DoctorCheck::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    bool wrongType = false;
    auto id = stringMember(json, "id", wrongType);
    auto level = stringMember(json, "level", wrongType);
    auto title = stringMember(json, "title", wrongType);
    auto detail = stringMember(json, "detail", wrongType);
    auto fix = stringMember(json, "fix", wrongType);
    if (wrongType || !id || !level || !title) return std::nullopt;
    auto parsedLevel = levelFromRawValue(*level);
    if (!parsedLevel) return std::nullopt;
    return DoctorCheck{std::move(*id), *parsedLevel, std::move(*title), std::move(detail), std::move(fix)};
}

std::optional<DesktopInstall> DesktopInstall::detect(const Paths& paths) {
    auto found = platform::findApplication(bundleID, {paths.applicationsDirectory, paths.home + "/Applications"});
    if (!found) return std::nullopt;
    return DesktopInstall{std::move(found->path), std::move(found->version)};
}

nlohmann::json DesktopInstall::toJSON() const {
    nlohmann::json json = {{"path", path}};
    if (version) json["version"] = *version;
    return json;
}

std::optional<DesktopInstall> DesktopInstall::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    bool wrongType = false;
    auto path = stringMember(json, "path", wrongType);
    auto version = stringMember(json, "version", wrongType);
    if (wrongType || !path) return std::nullopt;
    return DesktopInstall{std::move(*path), std::move(version)};
}

}  // namespace veerline
