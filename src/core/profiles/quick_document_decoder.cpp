#include "profiles/quick_document_decoder.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unicode.h"

namespace veerline {

namespace {

// Takes the parser's events for the document's fixed shape: a root object holding the
// version, an array of profile objects (one optional array of tools inside each), an array of
// rule objects and the terminal default. Values under unknown keys are skipped whatever they
// hold. Any event that does not fit the shape answers false, which ends the parse.
class Reader {
public:
    bool null() { return skipping() || (place_ != Place::tools && takeNull()); }
    bool boolean(bool) { return skipping() || ignored(); }
    bool number(std::int64_t value) { return skipping() || takeVersion(value); }
    // 1.0 would be the version 1, but the full decoder judges such rarities.
    bool otherNumber() { return skipping() || ignored(); }
    bool string(std::string_view value) { return skipping() || takeString(value); }

    bool startObject() {
        if (enterSkipped()) return true;
        switch (place_) {
            case Place::outside: place_ = Place::root; return true;
            case Place::profiles: item_ = {}; place_ = Place::profile; return true;
            case Place::rules: item_ = {}; place_ = Place::rule; return true;
            default: return false;
        }
    }

    bool endObject() {
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

    bool startArray() {
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

    bool endArray() {
        if (skipDepth_ > 0) return --skipDepth_, true;
        if (place_ == Place::profiles || place_ == Place::rules) return place_ = Place::root, true;
        if (place_ == Place::tools) return place_ = Place::profile, true;
        return false;
    }

    bool key(std::string_view text) {
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

    // By length first: every key is then one comparison of a known size.
    Key keyNamed(std::string_view text) const {
        auto is = [&](std::string_view word) { return std::memcmp(text.data(), word.data(), word.size()) == 0; };
        switch (place_) {
            case Place::root:
                switch (text.size()) {
                    case 5: return is("rules") ? rules : unknown;
                    case 7: return is("version") ? version : unknown;
                    case 8: return is("profiles") ? profiles : unknown;
                    case 10: return is("cliDefault") ? cliDefault : unknown;
                    default: return unknown;
                }
            case Place::profile:
                switch (text.size()) {
                    case 2: return is("id") ? id : unknown;
                    case 4: return is("name") ? name : unknown;
                    case 5: return is("color") ? color : is("badge") ? badge : is("tools") ? tools : unknown;
                    case 7: return is("storage") ? storage : unknown;
                    default: return unknown;
                }
            case Place::rule:
                switch (text.size()) {
                    case 4: return is("path") ? path : unknown;
                    case 9: return is("profileID") ? profileID : unknown;
                    default: return unknown;
                }
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

    bool takeString(std::string_view value) {
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
            case cliDefault: document_.cliDefault = ProfileID(std::string(value)); return true;
            case id:
            case profileID: item_.id = value; return true;
            case name: item_.name = value; return true;
            case badge: item_.badge = value; return true;
            case path: item_.path = value; return true;
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

// Reads JSON text strictly and hands its events to a Reader, at a few instructions a byte where
// the JSON library's lexer spends tens (it keeps every token's text for its error messages): the
// shim decodes the whole file on every tool start. It gives up on a byte-order mark and on deep
// nesting, and then the library decodes the text; it never accepts text the library refuses.
class Parser {
public:
    Parser(std::string_view text, Reader& reader) : at_(text.data()), end_(text.data() + text.size()), reader_(reader) {}

    bool document() {
        if (!value(0)) return false;
        skipBlanks();
        return at_ == end_;
    }

private:
    static constexpr int maxDepth = 64;

    static bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

    // The file is indented: spaces are passed eight at a time, the first other byte found from
    // the lowest set bit (bytes load in text order on little-endian machines).
    void skipBlanks() {
        for (;;) {
            if (littleEndian && end_ - at_ >= 8) {
                std::uint64_t others = load(at_) ^ repeated(' ');
                if (others == 0) {
                    at_ += 8;
                    continue;
                }
                at_ += std::countr_zero(others) >> 3;
            }
            if (at_ == end_ || !isBlank(*at_)) return;
            ++at_;
        }
    }

    static constexpr bool littleEndian = std::endian::native == std::endian::little;

    static std::uint64_t load(const char* at) {
        std::uint64_t word = 0;
        std::memcpy(&word, at, 8);
        return word;
    }
    static constexpr std::uint64_t repeated(unsigned char c) { return 0x0101010101010101ull * c; }

    // The high bit of each byte that is a quote, a backslash, a control character or not ASCII,
    // exact up to the first such byte (later ones may be marked falsely).
    static std::uint64_t specialBytes(std::uint64_t word) {
        constexpr std::uint64_t high = repeated(0x80);
        auto below = [](std::uint64_t x, unsigned char n) { return (x - repeated(n)) & ~x & high; };
        return below(word ^ repeated('"'), 1) | below(word ^ repeated('\\'), 1) | below(word, 0x20) | (word & high);
    }

    static bool isSpecial(char c) {
        auto byte = static_cast<unsigned char>(c);
        return byte == '"' || byte == '\\' || byte < 0x20 || byte >= 0x80;
    }

    // Moves to the end of the string's plain run: a quote, a backslash, a control character or the
    // end of the text. Bytes above ASCII are part of the run and make it `wide`.
    void skipPlain(bool& wide) {
        for (;;) {
            if (littleEndian && end_ - at_ >= 8) {
                std::uint64_t special = specialBytes(load(at_));
                if (special == 0) {
                    at_ += 8;
                    continue;
                }
                at_ += std::countr_zero(special) >> 3;
            } else if (at_ < end_ && !isSpecial(*at_)) {
                ++at_;
                continue;
            }
            if (at_ == end_ || static_cast<unsigned char>(*at_) < 0x80) return;
            wide = true;
            ++at_;
        }
    }

    // Skips blanks, then takes `c` if it comes next.
    bool take(char c) {
        skipBlanks();
        if (at_ == end_ || *at_ != c) return false;
        ++at_;
        return true;
    }

    bool value(int depth) {
        skipBlanks();
        if (at_ == end_) return false;
        switch (*at_) {
            case '{': return depth < maxDepth && object(depth + 1);
            case '[': return depth < maxDepth && array(depth + 1);
            case '"': return string() && reader_.string(token_);
            case 't': return literal("true") && reader_.boolean(true);
            case 'f': return literal("false") && reader_.boolean(false);
            case 'n': return literal("null") && reader_.null();
            default: return number();
        }
    }

    bool object(int depth) {
        ++at_;
        if (!reader_.startObject()) return false;
        if (take('}')) return reader_.endObject();
        do {
            skipBlanks();
            if (at_ == end_ || *at_ != '"' || !string() || !reader_.key(token_) || !take(':') || !value(depth)) {
                return false;
            }
        } while (take(','));
        return take('}') && reader_.endObject();
    }

    bool array(int depth) {
        ++at_;
        if (!reader_.startArray()) return false;
        if (take(']')) return reader_.endArray();
        do {
            if (!value(depth)) return false;
        } while (take(','));
        return take(']') && reader_.endArray();
    }

    bool literal(std::string_view word) {
        if (static_cast<std::size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) return false;
        at_ += word.size();
        return true;
    }

    // Integers up to 18 digits are read; any other number is checked and reported as one that
    // only an unknown key may hold.
    bool number() {
        const char* start = at_;
        if (at_ < end_ && *at_ == '-') ++at_;
        const char* digits = at_;
        std::uint64_t magnitude = 0;
        while (at_ < end_ && isDigit(*at_)) magnitude = magnitude * 10 + static_cast<unsigned>(*at_++ - '0');
        std::size_t count = static_cast<std::size_t>(at_ - digits);
        if (count == 0 || (count > 1 && *digits == '0')) return false;
        bool integer = count <= 18;
        if (at_ < end_ && *at_ == '.') {
            ++at_;
            if (!someDigits()) return false;
            integer = false;
        }
        if (at_ < end_ && (*at_ == 'e' || *at_ == 'E')) {
            ++at_;
            if (at_ < end_ && (*at_ == '+' || *at_ == '-')) ++at_;
            if (!someDigits()) return false;
            integer = false;
        }
        if (!integer) {
            // The library refuses a number past a double's range; one near zero is left to it too.
            double ignored = 0;
            return std::from_chars(start, at_, ignored).ec == std::errc() && reader_.otherNumber();
        }
        auto value = static_cast<std::int64_t>(magnitude);
        return reader_.number(*start == '-' ? -value : value);
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    bool someDigits() {
        const char* first = at_;
        while (at_ < end_ && isDigit(*at_)) ++at_;
        return at_ > first;
    }

    // Four hexadecimal digits of a \u escape.
    bool hex(char32_t& unit) {
        if (end_ - at_ < 4) return false;
        unit = 0;
        for (int i = 0; i < 4; ++i) {
            char c = *at_++;
            int digit = isDigit(c) ? c - '0' : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? (c | 0x20) - 'a' + 10 : -1;
            if (digit < 0) return false;
            unit = unit * 16 + static_cast<char32_t>(digit);
        }
        return true;
    }

    // A \u escape after its backslash and "u"; a surrogate must come in a high-low pair.
    bool escapedCodePoint() {
        char32_t unit = 0;
        if (!hex(unit) || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            char32_t low = 0;
            if (end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') return false;
            at_ += 2;
            if (!hex(low) || low < 0xDC00 || low > 0xDFFF) return false;
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        }
        unicode::appendUTF8(text_, unit);
        return true;
    }

    // A string's text into token_, its escapes undone; the opening quote is at at_. Without escapes
    // (nearly always) the token is the input's own bytes, copied only by whoever keeps it.
    bool string() {
        text_.clear();
        bool wide = false;
        bool escaped = false;
        const char* run = ++at_;
        for (;;) {
            skipPlain(wide);
            if (at_ == end_ || static_cast<unsigned char>(*at_) < 0x20) return false;
            if (*at_ == '"' && !escaped) {
                token_ = std::string_view(run, static_cast<std::size_t>(at_ - run));
                ++at_;
                return !wide || unicode::isValidUTF8(token_);
            }
            escaped = true;
            text_.append(run, at_);
            if (*at_++ == '"') {
                token_ = text_;
                return !wide || unicode::isValidUTF8(text_);
            }
            if (at_ == end_) return false;
            switch (*at_++) {
                case '"': text_ += '"'; break;
                case '\\': text_ += '\\'; break;
                case '/': text_ += '/'; break;
                case 'b': text_ += '\b'; break;
                case 'f': text_ += '\f'; break;
                case 'n': text_ += '\n'; break;
                case 'r': text_ += '\r'; break;
                case 't': text_ += '\t'; break;
                case 'u':
                    if (!escapedCodePoint()) return false;
                    break;
                default: return false;
            }
            run = at_;
        }
    }

    const char* at_;
    const char* end_;
    Reader& reader_;
    std::string text_;
    std::string_view token_;
};

}  // namespace

std::optional<ProfileDocument> decodeDocumentQuickly(std::string_view text) noexcept {
    try {
        Reader reader;
        if (!Parser(text, reader).document()) return std::nullopt;
        return reader.result();
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace veerline
