#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "profiles/profile.h"

namespace veerline {

// Which profile applies inside a folder.
struct FolderRule {
    // As the user wrote it: starting with "/" or "~", optionally ending in "/**".
    std::string path;
    ProfileID profileID;

    // `path` without a final "/**" and trailing slashes; "/" when nothing is left. "~" stays.
    std::string folderPath() const;
    // The same without a copy; a view into `path`, or of "/".
    std::string_view folderView() const noexcept;
    // `folderPath` lower-cased: two rules with the same id are for the same folder.
    std::string id() const;

    bool operator==(const FolderRule&) const = default;
};

// Everything the user has configured; the content of the profiles file.
struct ProfileDocument {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t version = currentVersion;
    std::vector<Profile> profiles;
    std::vector<FolderRule> rules;
    // The terminal default.
    std::optional<ProfileID> cliDefault;

    // What a missing profiles file stands for.
    static ProfileDocument empty() { return {}; }

    // First profile with exactly this id.
    const Profile* profile(const ProfileID& id) const noexcept;
    Profile* profile(const ProfileID& id) noexcept;
    // First profile whose name equals `name` without case, `name` trimmed of blanks first (the
    // stored names are not trimmed).
    const Profile* profile(std::string_view name) const;
    Profile* profile(std::string_view name);
    // The rules pointing at `id`, in document order.
    std::vector<FolderRule> rulesFor(const ProfileID& id) const;

    // Throws VeerlineError (invalidProfile or invalidRule) for the first problem found.
    void validate() const;

    // Why `id` must not name a folder, a key or anything else of its own: it isn't valid, or more
    // than one profile holds it (they would share data). Nothing when it is safe to use. A loaded
    // document is not validated, so everything that turns an id into a path asks this first.
    std::optional<std::string> unusableIDReason(const ProfileID& id) const;
    bool isUsable(const ProfileID& id) const noexcept;

    bool operator==(const ProfileDocument&) const = default;
};

// Reading JSON that does not have the document's shape. what() says what was wrong and where,
// for example `profiles[1].color: "red" is not a colour`.
class DocumentDecodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The profiles file's format. Decoding applies the defaults, ignores unknown keys and checks no
// document rules; it throws DocumentDecodeError.
ProfileDocument decodeDocument(std::string_view json);
// Sorted keys, two-space indentation, plain slashes and one final line feed.
std::string encodeDocument(const ProfileDocument& document);

nlohmann::json profileToJSON(const Profile& profile);
Profile profileFromJSON(const nlohmann::json& json);
nlohmann::json ruleToJSON(const FolderRule& rule);
nlohmann::json documentToJSON(const ProfileDocument& document);
// The document from JSON already parsed; throws DocumentDecodeError.
ProfileDocument documentFromJSON(const nlohmann::json& root);

// Any JSON value laid out the way Veerline stores JSON files (as `encodeDocument` does).
std::string encodeStoredJSON(const nlohmann::json& json);

}  // namespace veerline
