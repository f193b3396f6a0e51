#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace veerline {

// Pulls the string and integer values at a fixed set of key paths out of one line of JSON
// without building a tree. Tolerant and single-pass: it checks only the structure it needs to find
// its way and skips, by counting brackets, every member whose key cannot lead to a wanted path.
// Built once per set of paths and shared; immutable, so any number of threads may scan at once.
class JSONFieldScanner {
public:
    using KeyPath = std::vector<std::string>;

    struct Value {
        std::variant<std::string, std::int64_t> payload;

        static Value string(std::string text) { return Value{std::move(text)}; }
        static Value integer(std::int64_t number) { return Value{number}; }
        const std::string* asString() const noexcept { return std::get_if<std::string>(&payload); }
        const std::int64_t* asInt() const noexcept { return std::get_if<std::int64_t>(&payload); }
        bool operator==(const Value&) const = default;
    };

    using Result = std::map<KeyPath, Value>;

    // A captured value still as the line's bytes, for callers that scan millions of lines and
    // want no allocation per line. Valid while the line is.
    struct RawValue {
        enum class Kind : std::uint8_t { none, string, integer };
        Kind kind = Kind::none;
        std::string_view bytes;  // a string's bytes between its quotes
        bool plain = true;       // ASCII without escapes: the bytes are the text
        std::int64_t number = 0;

        // The text `scan` would give for a string: UTF-8 repaired, \" and \\ decoded.
        std::string text() const;
    };

    explicit JSONFieldScanner(std::set<KeyPath> wanted);

    // One scan's position in its line; the helpers in the implementation file work on it.
    struct State;

    const std::set<KeyPath>& paths() const noexcept { return paths_; }
    const std::set<KeyPath>& prefixes() const noexcept { return prefixes_; }

    // The values found in `bytes` (one line, without its line break), or nothing when the line is
    // not one well-formed object. Never reads outside the range.
    std::optional<Result> scan(std::string_view bytes) const;

    // The same scan into `slots`, one per wanted path in the order of `paths()`: false when the
    // line is rejected.
    bool scan(std::string_view bytes, std::vector<RawValue>& slots) const;
    // The slot of a wanted path, or -1.
    int slotOf(const KeyPath& path) const;

private:
    // `prefixes` as a tree, so that a member's key is looked up without building its path.
    struct Node {
        std::vector<std::pair<std::string, int>> children;
        int slot = -1;
    };

    int child(int node, std::string_view key) const;
    bool parseValue(State& state, int node, std::vector<RawValue>& slots) const;
    bool parseObject(State& state, int node, std::vector<RawValue>& slots) const;

    std::set<KeyPath> paths_;
    std::set<KeyPath> prefixes_;
    std::vector<Node> nodes_;
};

}  // namespace veerline
