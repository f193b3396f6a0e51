#include "profiles/profile_document.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "base/error.h"
#include "base/json_input.h"
#include "base/unicode.h"

namespace veerline {

using nlohmann::json;

namespace {

// Blanks for names: the space, the tab and the Unicode space separators, but not line breaks
// (unicode::trimmed would take those too). Matched as whole UTF-8 sequences.
constexpr std::array<std::string_view, 18> kBlanks = {
    " ",      "\t",     "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003", "\u2004",
    "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u202F", "\u205F", "\u3000"};

std::string trimBlanks(std::string_view text) {
    // Every blank starts with a space, a tab or a byte above ASCII and ends with one of those: text
    // whose ends are other ASCII keeps them.
    auto plain = [](char c) { return c != ' ' && c != '\t' && static_cast<unsigned char>(c) < 0x80; };
    if (!text.empty() && plain(text.front()) && plain(text.back())) return std::string(text);
    bool changed = true;
    while (changed && !text.empty()) {
        changed = false;
        for (std::string_view blank : kBlanks) {
            if (text.starts_with(blank)) {
                text.remove_prefix(blank.size());
                changed = true;
            }
            if (text.ends_with(blank)) {
                text.remove_suffix(blank.size());
                changed = true;
            }
        }
    }
    return std::string(text);
}

std::string curlyQuoted(std::string_view text) {
    return "\u201C" + std::string(text) + "\u201D";
}

// Our decoder's own description of what is wrong: where (a path such as `profiles[1].color`)
// and what.
[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw DocumentDecodeError((where.empty() ? std::string("top level") : where) + ": " + what);
}

std::string describeKind(const json& value) {
    switch (value.type()) {
        case json::value_t::null: return "null";
        case json::value_t::boolean: return "a boolean";
        case json::value_t::string: return "a string";
        case json::value_t::array: return "an array";
        case json::value_t::object: return "an object";
        case json::value_t::binary: return "binary data";
        case json::value_t::discarded: return "nothing";
        default: return "a number";
    }
}

std::string keyPath(const std::string& where, std::string_view key) {
    return where.empty() ? std::string(key) : where + "." + std::string(key);
}

std::string indexPath(const std::string& where, std::size_t index) {
    return where + "[" + std::to_string(index) + "]";
}

void expectObject(const json& value, const std::string& where) {
    if (!value.is_object()) fail(where, "expected an object, found " + describeKind(value));
}

// The member, or nullptr when the key is missing or null.
const json* optionalMember(const json& object, std::string_view key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) return nullptr;
    return &*found;
}

const json& requiredMember(const json& object, std::string_view key, const std::string& where) {
    auto found = object.find(key);
    if (found == object.end()) fail(where, "the key \"" + std::string(key) + "\" is missing");
    return *found;
}

std::string readString(const json& value, const std::string& where) {
    if (!value.is_string()) fail(where, "expected a string, found " + describeKind(value));
    return value.get<std::string>();
}

std::int64_t readInt64(const json& value, const std::string& where) {
    if (value.is_number_unsigned()) {
        auto number = value.get<std::uint64_t>();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            fail(where, "the number " + value.dump() + " is too large");
        }
        return static_cast<std::int64_t>(number);
    }
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_float()) {
        // 1.0 is still the integer 1; 1.5 is not.
        double number = value.get<double>();
        if (std::trunc(number) == number && number >= -9.2e18 && number <= 9.2e18) {
            return static_cast<std::int64_t>(number);
        }
        fail(where, "expected an integer, found " + value.dump());
    }
    fail(where, "expected an integer, found " + describeKind(value));
}

const json& readArray(const json& value, const std::string& where) {
    if (!value.is_array()) fail(where, "expected an array, found " + describeKind(value));
    return value;
}

Profile decodeProfile(const json& value, const std::string& where) {
    expectObject(value, where);
    ProfileID id(readString(requiredMember(value, "id", where), keyPath(where, "id")));
    std::string name = readString(requiredMember(value, "name", where), keyPath(where, "name"));

    ProfileColor color = ProfileColor::graphite;
    if (const json* member = optionalMember(value, "color")) {
        std::string raw = readString(*member, keyPath(where, "color"));
        auto parsed = profilecolor::fromRawValue(raw);
        if (!parsed) fail(keyPath(where, "color"), member->dump() + " is not a colour");
        color = *parsed;
    }

    std::optional<std::string> badge;
    if (const json* member = optionalMember(value, "badge")) {
        badge = readString(*member, keyPath(where, "badge"));
    }

    std::vector<ToolKind> tools(toolkind::allCases.begin(), toolkind::allCases.end());
    if (const json* member = optionalMember(value, "tools")) {
        std::string toolsPath = keyPath(where, "tools");
        tools.clear();
        std::size_t index = 0;
        for (const json& element : readArray(*member, toolsPath)) {
            std::string elementPath = indexPath(toolsPath, index++);
            auto parsed = toolkind::fromRawValue(readString(element, elementPath));
            if (!parsed) fail(elementPath, element.dump() + " is not a tool");
            tools.push_back(*parsed);
        }
    }

    Profile::Storage storage = Profile::Storage::managed;
    if (const json* member = optionalMember(value, "storage")) {
        auto parsed = Profile::storageFromRawValue(readString(*member, keyPath(where, "storage")));
        if (!parsed) fail(keyPath(where, "storage"), member->dump() + " is not a kind of storage");
        storage = *parsed;
    }

    return Profile(std::move(id), std::move(name), color, std::move(badge), std::move(tools), storage);
}

FolderRule decodeRule(const json& value, const std::string& where) {
    expectObject(value, where);
    FolderRule rule;
    rule.path = readString(requiredMember(value, "path", where), keyPath(where, "path"));
    rule.profileID =
        ProfileID(readString(requiredMember(value, "profileID", where), keyPath(where, "profileID")));
    return rule;
}

// Line and column (both from 1) of a byte offset, for parse errors.
std::string position(std::string_view text, std::size_t offset) {
    offset = std::min(offset, text.size());
    std::size_t line = 1;
    std::size_t column = 1;
    for (std::size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

std::string FolderRule::folderPath() const {
    return std::string(folderView());
}

std::string_view FolderRule::folderView() const noexcept {
    std::string_view result = path;
    if (result.ends_with("/**")) result.remove_suffix(3);
    while (result.size() >= 2 && result.back() == '/') result.remove_suffix(1);
    return result.empty() ? std::string_view("/") : result;
}

std::string FolderRule::id() const {
    return unicode::lowercased(folderPath());
}

const Profile* ProfileDocument::profile(const ProfileID& id) const noexcept {
    for (const Profile& candidate : profiles) {
        if (candidate.id == id) return &candidate;
    }
    return nullptr;
}

Profile* ProfileDocument::profile(const ProfileID& id) noexcept {
    return const_cast<Profile*>(std::as_const(*this).profile(id));
}

const Profile* ProfileDocument::profile(std::string_view name) const {
    std::string wanted = trimBlanks(name);
    for (const Profile& candidate : profiles) {
        if (unicode::equalIgnoringCase(candidate.name, wanted)) return &candidate;
    }
    return nullptr;
}

Profile* ProfileDocument::profile(std::string_view name) {
    return const_cast<Profile*>(std::as_const(*this).profile(name));
}

std::vector<FolderRule> ProfileDocument::rulesFor(const ProfileID& id) const {
    std::vector<FolderRule> result;
    for (const FolderRule& rule : rules) {
        if (rule.profileID == id) result.push_back(rule);
    }
    return result;
}

std::optional<std::string> ProfileDocument::unusableIDReason(const ProfileID& id) const {
    if (!id.isValid()) return curlyQuoted(id.rawValue) + " isn't a valid profile id.";
    auto holders = std::count_if(profiles.begin(), profiles.end(), [&](const Profile& each) { return each.id == id; });
    if (holders > 1) return "Two profiles share the id " + curlyQuoted(id.rawValue) + ".";
    return std::nullopt;
}

bool ProfileDocument::isUsable(const ProfileID& id) const noexcept {
    try {
        return !unusableIDReason(id);
    } catch (...) {
        return false;
    }
}

namespace {

// The position of the first key equal to an earlier one, or npos: where a set filled in order
// would first refuse an insertion. Sorting views costs a fraction of a set's node per key.
std::size_t firstRepeat(const std::vector<std::string_view>& keys) {
    std::vector<std::pair<std::string_view, std::size_t>> sorted;
    sorted.reserve(keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) sorted.emplace_back(keys[i], i);
    std::sort(sorted.begin(), sorted.end());
    std::size_t first = std::string_view::npos;
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        if (sorted[i].first == sorted[i - 1].first) first = std::min(first, sorted[i].second);
    }
    return first;
}

}  // namespace

void ProfileDocument::validate() const {
    // Duplicates are found up front, and reported where checking the profiles and rules in order
    // first meets them.
    std::vector<std::string_view> idViews;
    std::vector<std::string> names, nameKeys;
    idViews.reserve(profiles.size());
    names.reserve(profiles.size());
    nameKeys.reserve(profiles.size());
    for (const Profile& candidate : profiles) {
        idViews.emplace_back(candidate.id.rawValue);
        names.push_back(trimBlanks(candidate.name));
        // The key of the look-up by name, so that every name saved can be found again.
        nameKeys.push_back(unicode::caseInsensitiveKey(names.back()));
    }
    const std::size_t repeatedID = firstRepeat(idViews);
    const std::size_t repeatedName = firstRepeat({nameKeys.begin(), nameKeys.end()});

    for (std::size_t i = 0; i < profiles.size(); ++i) {
        const Profile& candidate = profiles[i];
        if (!candidate.id.isValid()) {
            throw VeerlineError::invalidProfile(curlyQuoted(candidate.id.rawValue) +
                                                " isn't a valid profile id.");
        }
        const std::string& name = names[i];
        if (name.empty()) throw VeerlineError::invalidProfile("Profile names can't be empty.");
        // A name is printed on terminals and in prompts: an escape sequence in it would act there.
        if (unicode::hasControlCharacter(name)) {
            throw VeerlineError::invalidProfile(curlyQuoted(unicode::escapingControlCharacters(name)) +
                                                " holds a control character or line break. Use letters, "
                                                "numbers, spaces and punctuation.");
        }
        if (unicode::hasControlCharacter(candidate.badge)) {
            throw VeerlineError::invalidProfile("The badge " + curlyQuoted(unicode::escapingControlCharacters(candidate.badge)) +
                                                " holds a control character or line break. Use letters, numbers, "
                                                "spaces and punctuation.");
        }
        if (unicode::characterCount(name) > 40) {
            throw VeerlineError::invalidProfile(curlyQuoted(name) +
                                                " is too long. Use 40 characters or fewer.");
        }
        if (i == repeatedID) {
            throw VeerlineError::invalidProfile("Two profiles share the id " +
                                                curlyQuoted(candidate.id.rawValue) + ".");
        }
        if (i == repeatedName) {
            throw VeerlineError::invalidProfile("There's already a profile called " + curlyQuoted(name) + ".");
        }
    }

    int systemProfiles = 0;
    for (const Profile& candidate : profiles) {
        if (candidate.storage == Profile::Storage::system) ++systemProfiles;
    }
    if (systemProfiles > 1) {
        throw VeerlineError::invalidProfile("Only one profile can use the tools' default setup.");
    }

    std::sort(idViews.begin(), idViews.end());
    auto known = [&](const ProfileID& id) { return std::binary_search(idViews.begin(), idViews.end(), id.rawValue); };
    std::vector<std::string> folderKeys;
    folderKeys.reserve(rules.size());
    for (const FolderRule& rule : rules) folderKeys.push_back(rule.id());
    const std::size_t repeatedFolder = firstRepeat({folderKeys.begin(), folderKeys.end()});
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const FolderRule& rule = rules[i];
        if (!known(rule.profileID)) {
            throw VeerlineError::invalidRule("The rule for " + rule.path +
                                             " points at a profile that doesn't exist.");
        }
        std::string_view folder = rule.folderView();
        if (!folder.starts_with("/") && !folder.starts_with("~")) {
            throw VeerlineError::invalidRule(curlyQuoted(rule.path) +
                                             " isn't a full path. Start it with / or ~.");
        }
        if (i == repeatedFolder) {
            throw VeerlineError::invalidRule("There's already a rule for " + std::string(folder) + ".");
        }
    }

    if (cliDefault && !known(*cliDefault)) {
        throw VeerlineError::invalidProfile(
            "The terminal default points at a profile that doesn't exist.");
    }
}

ProfileDocument decodeDocument(std::string_view text) {
    // The JSON reader takes a NUL byte for the end of the text, and valid JSON never holds one:
    // whatever follows must not pass unread.
    if (std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
        throw DocumentDecodeError("not valid JSON (a NUL byte at " + position(text, nul) + ")");
    }
    json root;
    JsonInput::Problem problem = JsonInput::Problem::none;
    if (std::optional<json> parsed = JsonInput::parse(text, &problem)) root = std::move(*parsed);
    if (problem == JsonInput::Problem::tooDeep) throw DocumentDecodeError("too deeply nested (more than " + std::to_string(JsonInput::maxDepth) + " levels)");
    try {
        if (problem != JsonInput::Problem::none) root = json::parse(text.begin(), text.end());
    } catch (const json::parse_error& error) {
        if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
            throw DocumentDecodeError("the file is empty");
        }
        std::size_t offset = error.byte > 0 ? error.byte - 1 : 0;
        throw DocumentDecodeError("not valid JSON (" + position(text, offset) + ")");
    } catch (const json::out_of_range&) {
        // Well-formed, but a number such as 1e999 is past what the reader can hold.
        throw DocumentDecodeError("not valid JSON (a number too large to read)");
    }
    return documentFromJSON(root);
}

ProfileDocument documentFromJSON(const json& root) {
    expectObject(root, "");
    ProfileDocument document;
    document.version = readInt64(requiredMember(root, "version", ""), "version");

    std::size_t index = 0;
    for (const json& element : readArray(requiredMember(root, "profiles", ""), "profiles")) {
        document.profiles.push_back(decodeProfile(element, indexPath("profiles", index++)));
    }
    index = 0;
    for (const json& element : readArray(requiredMember(root, "rules", ""), "rules")) {
        document.rules.push_back(decodeRule(element, indexPath("rules", index++)));
    }
    if (const json* member = optionalMember(root, "cliDefault")) {
        document.cliDefault = ProfileID(readString(*member, "cliDefault"));
    }
    return document;
}

json profileToJSON(const Profile& profile) {
    json tools = json::array();
    for (ToolKind tool : profile.tools()) tools.push_back(toolkind::rawValue(tool));
    return json{
        {"id", profile.id.rawValue},
        {"name", profile.name},
        {"color", profilecolor::rawValue(profile.color)},
        {"badge", profile.badge},
        {"tools", std::move(tools)},
        {"storage", Profile::storageRawValue(profile.storage)},
    };
}

Profile profileFromJSON(const json& value) {
    return decodeProfile(value, "");
}

json ruleToJSON(const FolderRule& rule) {
    return json{{"path", rule.path}, {"profileID", rule.profileID.rawValue}};
}

json documentToJSON(const ProfileDocument& document) {
    json profiles = json::array();
    for (const Profile& profile : document.profiles) profiles.push_back(profileToJSON(profile));
    json rules = json::array();
    for (const FolderRule& rule : document.rules) rules.push_back(ruleToJSON(rule));
    json root = json::object();
    root["version"] = document.version;
    root["profiles"] = std::move(profiles);
    root["rules"] = std::move(rules);
    if (document.cliDefault) root["cliDefault"] = document.cliDefault->rawValue;
    return root;
}

std::string encodeStoredJSON(const json& value) {
    // nlohmann's objects keep their keys sorted and it never escapes "/"; text that is not valid
    // UTF-8 (a name typed in a broken terminal) is replaced rather than refused.
    std::string text = value.dump(2, ' ', false, json::error_handler_t::replace);
    text += '\n';
    return text;
}

std::string encodeDocument(const ProfileDocument& document) {
    return encodeStoredJSON(documentToJSON(document));
}

}  // namespace veerline
