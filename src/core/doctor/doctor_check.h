#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

#include "base/paths.h"

namespace veerline {

// One finding of a diagnostic run, as text for the user.
struct DoctorCheck {
    // By severity: a scoped enumeration compares in declaration order, so `ok` is the least.
    enum class Level { ok, info, warning, failure };

    std::string id;
    Level level = Level::ok;
    std::string title;
    std::optional<std::string> detail;
    std::optional<std::string> fix;

    DoctorCheck() = default;
    DoctorCheck(std::string checkID, Level checkLevel, std::string checkTitle,
                std::optional<std::string> checkDetail = std::nullopt,
                std::optional<std::string> checkFix = std::nullopt)
        : id(std::move(checkID)), level(checkLevel), title(std::move(checkTitle)), detail(std::move(checkDetail)),
          fix(std::move(checkFix)) {}

    // "ok", "info", "warning", "failure".
    static std::string_view rawValue(Level level) noexcept;
    static std::optional<Level> levelFromRawValue(std::string_view raw) noexcept;

    // "id", "level" (its raw value) and "title" always; "detail" and "fix" only when present.
    nlohmann::json toJSON() const;
    // Nothing when a required key is missing, any key has the wrong type or the level is unknown.
    static std::optional<DoctorCheck> fromJSON(const nlohmann::json& json);

    bool operator==(const DoctorCheck&) const = default;
};

// Where Claude Desktop is installed, as whoever makes the doctor found it.
struct DesktopInstall {
    static constexpr std::string_view bundleID = "com.anthropic.claudefordesktop";

    std::string path;
    // As the bundle declares it; nothing when it couldn't be read. Empty is not the same.
    std::optional<std::string> version;

    explicit DesktopInstall(std::string appPath, std::optional<std::string> appVersion = std::nullopt)
        : path(std::move(appPath)), version(std::move(appVersion)) {}

    // The app in the applications folder, else in ~/Applications; always nothing where the app
    // doesn't exist (Linux).
    static std::optional<DesktopInstall> detect(const Paths& paths);

    // "path" always, "version" only when present.
    nlohmann::json toJSON() const;
    // Nothing without a string "path" or with a "version" that isn't a string; other keys ignored.
    static std::optional<DesktopInstall> fromJSON(const nlohmann::json& json);

    bool operator==(const DesktopInstall&) const = default;
};

}  // namespace veerline
