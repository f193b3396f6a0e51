#include "profiles/quick_document_decoder.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace veerline {

namespace {

using nlohmann::json;

// nlohmann's event interface, fed the document's fixed shape: a root object holding the
// version, an array of profile objects (one optional array of tools inside each), an array of
// rule objects and the terminal default. Values under unknown keys are skipped whatever they
// hold. Any event that does not fit the shape answers false, which ends the parse.
class Reader {
public:
    bool null() { return skipping() || (place_ != Place::tools && takeNull()); }
    bool boolean(bool) { return skipping() || ignored(); }
    bool number_integer(json::number_integer_t value) { return skipping() || takeVersion(value); }
    bool number_unsigned(json::number_unsigned_t value) {
        constexpr auto largest = static_cast<json::number_unsigned_t>(INT64_MAX);
        return skipping() || takeVersion(static_cast<std::int64_t>(value > largest ? largest : value));
    }
    // 1.0 would be the version 1, but the full decoder judges such rarities.
    bool number_float(json::number_float_t, const std::string&) { return skipping() || ignored(); }
    bool binary(json::binary_t&) { return skipping() || ignored(); }
    bool string(std::string& value) { return skipping() || takeString(value); }

    bool start_object(std::size_t) {
        if (enterSkipped()) return true;
        switch (place_) {
            case Place::outside: place_ = Place::root; return true;
            case Place::profiles: item_ = {}; place_ = Place::profile; return true;
            case Place::rules: item_ = {}; place_ = Place::rule; return true;
            default: return false;
        }
    }

    bool end_object() {
        if (skipDepth_ > 0) return --skipDepth_, true;
        switch (place_) {
            case Place::root:
                place_ = Place::finished;
                return (rootSeen_ & (version | profiles | rules)) == (version | profiles | rules);
            case Place::profile:
                if ((item_.seen & (id | name)) != (id | name)) return false;
                document_.profiles.emplace_back(ProfileID(std::move(item_.id)), std::move(item_.name),
                                                item_.color, std::move(item_.badge), takeTools(),
                                                item_.storage);
                place_ = Place::profiles;
                return true;
            case Place::rule:
                if ((item_.seen & (path | profileID)) != (path | profileID)) return false;
                document_.rules.push_back(FolderRule{std::move(item_.path), ProfileID(std::move(item_.id))});
                place_ = Place::rules;
                return true;
            default: return false;
        }
    }

    bool start_array(std::size_t) {
        if (enterSkipped()) return true;
        Key key = pending_;
        pending_ = none;
        if (place_ == Place::root && key == profiles) return place_ = Place::profiles, true;
        if (place_ == Place::root && key == rules) return place_ = Place::rules, true;
        if (place_ == Place::profile && key == tools) {
            item_.tools.emplace();
            place_ = Place::tools;
            return true;
        }
        return false;
    }

    bool end_array() {
        if (skipDepth_ > 0) return --skipDepth_, true;
        if (place_ == Place::profiles || place_ == Place::rules) return place_ = Place::root, true;
        if (place_ == Place::tools) return place_ = Place::profile, true;
        return false;
    }

    bool key(std::string& text) {
        if (skipDepth_ > 0) return true;
        Key key = keyNamed(text);
        unsigned& seen = place_ == Place::root ? rootSeen_ : item_.seen;
        if (key != unknown) {
            if ((seen & key) != 0) return false;  // the full decoder would keep the last one
            seen |= key;
        }
        pending_ = key;
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) { return false; }

    std::optional<ProfileDocument> result() {
        if (place_ != Place::finished) return std::nullopt;
        return std::move(document_);
    }

private:
    enum class Place { outside, root, profiles, profile, tools, rules, rule, finished };
    enum Key : unsigned {
        none = 0,
        unknown = 1u << 0,
        version = 1u << 1,
        profiles = 1u << 2,
        rules = 1u << 3,
        cliDefault = 1u << 4,
        id = 1u << 5,
        name = 1u << 6,
        color = 1u << 7,
        badge = 1u << 8,
        tools = 1u << 9,
        storage = 1u << 10,
        path = 1u << 11,
        profileID = 1u << 12,
    };

    // The profile or rule being read.
    struct Item {
        unsigned seen = 0;
        std::string id;  // the profile's id, or the rule's profileID
        std::string name;
        ProfileColor color = ProfileColor::graphite;
        std::optional<std::string> badge;
        std::optional<std::vector<ToolKind>> tools;
        Profile::Storage storage = Profile::Storage::managed;
        std::string path;
    };

    Key keyNamed(std::string_view text) const {
        switch (place_) {
            case Place::root:
                if (text == "version") return version;
                if (text == "profiles") return profiles;
                if (text == "rules") return rules;
                if (text == "cliDefault") return cliDefault;
                return unknown;
            case Place::profile:
                if (text == "id") return id;
                if (text == "name") return name;
                if (text == "color") return color;
                if (text == "badge") return badge;
                if (text == "tools") return tools;
                if (text == "storage") return storage;
                return unknown;
            case Place::rule:
                if (text == "path") return path;
                if (text == "profileID") return profileID;
                return unknown;
            default:
                return unknown;
        }
    }

    bool skipping() const { return skipDepth_ > 0; }

    // An object or array inside a skipped value, or under an unknown key: skip everything up to
    // its end.
    bool enterSkipped() {
        if (skipDepth_ > 0) return ++skipDepth_, true;
        if (pending_ != unknown) return false;
        pending_ = none;
        skipDepth_ = 1;
        return true;
    }

    // A scalar nobody asked for is fine only under an unknown key.
    bool ignored() {
        Key key = pending_;
        pending_ = none;
        return key == unknown && place_ != Place::tools;
    }

    // Null stands for "not given", which only the optional keys may be.
    bool takeNull() {
        Key key = pending_;
        pending_ = none;
        return key == unknown || key == cliDefault || key == color || key == badge || key == tools || key == storage;
    }

    bool takeVersion(std::int64_t value) {
        Key key = pending_;
        pending_ = none;
        if (key == unknown) return true;
        if (key != version || value > ProfileDocument::currentVersion) return false;
        document_.version = value;
        return true;
    }

    bool takeString(std::string& value) {
        if (place_ == Place::tools) {
            auto tool = toolkind::fromRawValue(value);
            if (!tool) return false;
            item_.tools->push_back(*tool);
            return true;
        }
        Key key = pending_;
        pending_ = none;
        switch (key) {
            case unknown: return true;
            case cliDefault: document_.cliDefault = ProfileID(std::move(value)); return true;
            case id:
            case profileID: item_.id = std::move(value); return true;
            case name: item_.name = std::move(value); return true;
            case badge: item_.badge = std::move(value); return true;
            case path: item_.path = std::move(value); return true;
            case color:
                if (auto parsed = profilecolor::fromRawValue(value)) return item_.color = *parsed, true;
                return false;
            case storage:
                if (auto parsed = Profile::storageFromRawValue(value)) return item_.storage = *parsed, true;
                return false;
            default: return false;
        }
    }

    std::vector<ToolKind> takeTools() {
        if (item_.tools) return std::move(*item_.tools);
        return std::vector<ToolKind>(toolkind::allCases.begin(), toolkind::allCases.end());
    }

    ProfileDocument document_;
    Place place_ = Place::outside;
    Key pending_ = none;
    unsigned rootSeen_ = 0;
    int skipDepth_ = 0;
    Item item_;
};

}  // namespace

std::optional<ProfileDocument> decodeDocumentQuickly(std::string_view text) noexcept {
    try {
        Reader reader;
        if (!json::sax_parse(text.begin(), text.end(), &reader)) return std::nullopt;
        return reader.result();
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace veerline
