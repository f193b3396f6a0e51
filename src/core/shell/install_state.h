#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veerline {

// What the shell integration changed in the user's shell files, kept in ~/.veerline/install.json
// so that uninstall can put them back.
struct InstallState {
    struct FileRecord {
        std::string path;                       // as planned, not symlink-resolved
        bool existedBefore = false;             // facts about the file before the first install
        std::optional<std::string> backupPath;
        bool addedNewline = false;
        std::string installedSHA256;            // of what the latest install left in the file

        bool operator==(const FileRecord&) const = default;
    };

    std::int64_t version = 1;
    std::optional<std::string> installedAt;     // ISO 8601, UTC, e.g. 2026-11-16T14:52:56Z
    std::vector<FileRecord> files;

    // Sorted keys, two-space indentation, unescaped slashes, a final line feed. A text that isn't
    // valid UTF-8 can't be encoded: that throws VeerlineError::io naming `displayPath`.
    std::string encoded(const std::string& displayPath) const;

    // Any JSON object with the required keys of the right types; anything else gives nothing.
    static std::optional<InstallState> decoded(std::string_view json) noexcept;

    // The first record for `path`, if any.
    const FileRecord* record(const std::string& path) const noexcept;

    bool operator==(const InstallState&) const = default;
};

}  // namespace veerline
