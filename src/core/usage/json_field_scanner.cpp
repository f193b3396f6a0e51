#include "usage/json_field_scanner.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/unicode.h"

namespace veerline {

struct JSONFieldScanner::State {
    const char* bytes;
    std::size_t length;
    std::size_t position = 0;
    // Cleared when a string runs past the end: the line was cut off.
    bool complete = true;

    bool atEnd() const noexcept { return position >= length; }
    char current() const noexcept { return bytes[position]; }
};

namespace {

using State = JSONFieldScanner::State;
using RawValue = JSONFieldScanner::RawValue;

bool isWhitespace(char byte) noexcept {
    return byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r';
}

void skipWhitespace(State& state) noexcept {
    while (!state.atEnd() && isWhitespace(state.current())) ++state.position;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    std::string out;
    out.reserve(text.size());
    std::size_t start = 0;
    for (std::size_t found; (found = text.find(from, start)) != std::string::npos; start = found + from.size()) {
        out.append(text, start, found - start);
        out.append(to);
    }
    out.append(text, start, std::string::npos);
    text = std::move(out);
}

bool isPlain(std::string_view raw) noexcept {
    for (char byte : raw) {
        if (static_cast<unsigned char>(byte) >= 0x80 || byte == '\\') return false;
    }
    return true;
}

// Only the two escapes that can hide a quote or a backslash are decoded; the logs' figures and
// identifiers never use the others, and leaving them as written keeps the scan cheap.
std::string decodeString(std::string_view raw) {
    std::string text = unicode::repairUTF8(raw);
    if (raw.find('\\') != std::string_view::npos) {
        replaceAll(text, "\\\"", "\"");
        replaceAll(text, "\\\\", "\\");
    }
    return text;
}

// With the position on the opening quote: steps past the closing one and gives the bytes between.
// A backslash escapes the byte after it, so a quote ends the string when an even number of
// backslashes precede it; memchr finds the candidates, which keeps long texts cheap to pass.
bool passString(State& state, std::string_view* raw) noexcept {
    std::size_t start = ++state.position;
    std::size_t from = start;
    while (true) {
        const void* found = from < state.length ? std::memchr(state.bytes + from, '"', state.length - from) : nullptr;
        if (found == nullptr) {
            state.position = state.length;
            state.complete = false;
            return false;
        }
        std::size_t quote = static_cast<std::size_t>(static_cast<const char*>(found) - state.bytes);
        std::size_t backslashes = 0;
        while (quote - backslashes > start && state.bytes[quote - backslashes - 1] == '\\') ++backslashes;
        if (backslashes % 2 == 0) {
            if (raw != nullptr) *raw = std::string_view(state.bytes + start, quote - start);
            state.position = quote + 1;
            return true;
        }
        from = quote + 1;
    }
}

bool skipValue(State& state) noexcept {
    skipWhitespace(state);
    if (state.atEnd()) return false;
    char first = state.current();
    if (first == '"') return passString(state, nullptr);
    if (first != '{' && first != '[') {
        std::size_t start = state.position;
        while (!state.atEnd()) {
            char byte = state.current();
            if (byte == ',' || byte == '}' || byte == ']') break;
            ++state.position;
        }
        return state.atEnd() || state.position > start;
    }
    int depth = 0;
    while (!state.atEnd()) {
        char byte = state.current();
        if (byte == '"') {
            if (!passString(state, nullptr)) return false;
            continue;
        }
        if (byte == '{' || byte == '[') {
            ++depth;
        } else if (byte == '}' || byte == ']') {
            if (--depth == 0) {
                ++state.position;
                return true;
            }
        }
        ++state.position;
    }
    return false;
}

std::optional<std::int64_t> integerValue(std::string_view token) {
    std::string_view digits = token;
    if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) digits.remove_prefix(1);
    bool allDigits = !digits.empty();
    for (char byte : digits) allDigits = allDigits && byte >= '0' && byte <= '9';
    if (allDigits) {
        // from_chars takes no "+"; the digits after it read the same.
        std::string_view text = token.front() == '+' ? digits : token;
        std::int64_t value = 0;
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc() && end == text.data() + text.size()) return value;
    }
    // Decimal fractions and exponents. strtod wants a terminated string; tokens are short.
    std::string copy(token);
    bool plain = !copy.empty();
    for (char byte : copy) {
        plain = plain && ((byte >= '0' && byte <= '9') || byte == '+' || byte == '-' || byte == '.' ||
                          byte == 'e' || byte == 'E');
    }
    if (!plain) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    double number = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || std::isnan(number)) return std::nullopt;
    // A number past the 64-bit range is held at its limit rather than dropped, so that a caller
    // can still tell an absurd count from a missing one. 2^63 is exact in a double.
    double truncated = std::trunc(number);
    if (truncated >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
    if (truncated < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(truncated);
}

}  // namespace

std::string JSONFieldScanner::RawValue::text() const {
    return plain ? std::string(bytes) : decodeString(bytes);
}

JSONFieldScanner::JSONFieldScanner(std::set<KeyPath> wanted) : paths_(std::move(wanted)) {
    prefixes_.insert(KeyPath{});
    for (const KeyPath& path : paths_) {
        for (std::size_t length = 1; length <= path.size(); ++length) {
            prefixes_.insert(KeyPath(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(length)));
        }
    }
    nodes_.emplace_back();
    int slot = 0;
    for (const KeyPath& path : paths_) {
        int node = 0;
        for (const std::string& key : path) {
            int next = child(node, key);
            if (next < 0) {
                next = static_cast<int>(nodes_.size());
                nodes_[static_cast<std::size_t>(node)].children.emplace_back(key, next);
                nodes_.emplace_back();
            }
            node = next;
        }
        nodes_[static_cast<std::size_t>(node)].slot = slot++;
    }
}

int JSONFieldScanner::child(int node, std::string_view key) const {
    for (const auto& [name, index] : nodes_[static_cast<std::size_t>(node)].children) {
        if (name == key) return index;
    }
    return -1;
}

int JSONFieldScanner::slotOf(const KeyPath& path) const {
    int node = 0;
    for (const std::string& key : path) {
        node = child(node, key);
        if (node < 0) return -1;
    }
    return nodes_[static_cast<std::size_t>(node)].slot;
}

std::optional<JSONFieldScanner::Result> JSONFieldScanner::scan(std::string_view bytes) const {
    std::vector<RawValue> slots;
    if (!scan(bytes, slots)) return std::nullopt;
    Result result;
    std::size_t slot = 0;
    for (const KeyPath& path : paths_) {
        const RawValue& value = slots[slot++];
        if (value.kind == RawValue::Kind::string) result.emplace(path, Value::string(value.text()));
        if (value.kind == RawValue::Kind::integer) result.emplace(path, Value::integer(value.number));
    }
    return result;
}

bool JSONFieldScanner::scan(std::string_view bytes, std::vector<RawValue>& slots) const {
    slots.assign(paths_.size(), RawValue{});
    if (bytes.empty()) return false;
    State state{bytes.data(), bytes.size()};
    skipWhitespace(state);
    if (state.atEnd() || state.current() != '{') return false;
    if (!parseValue(state, 0, slots)) return false;
    skipWhitespace(state);
    return state.atEnd();
}

bool JSONFieldScanner::parseValue(State& state, int node, std::vector<RawValue>& slots) const {
    skipWhitespace(state);
    if (state.atEnd()) return false;
    char first = state.current();
    int slot = nodes_[static_cast<std::size_t>(node)].slot;
    if (first == '"') {
        std::string_view raw;
        if (!passString(state, &raw)) return false;
        if (slot >= 0) {
            RawValue& value = slots[static_cast<std::size_t>(slot)];
            value.kind = RawValue::Kind::string;
            value.bytes = raw;
            value.plain = isPlain(raw);
        }
        return true;
    }
    if (first == '[') {
        ++state.position;
        skipWhitespace(state);
        if (!state.atEnd() && state.current() == ']') {
            ++state.position;
            return true;
        }
        if (!skipValue(state)) return false;
        while (true) {
            skipWhitespace(state);
            if (state.atEnd()) return false;
            if (state.current() != ',') break;
            ++state.position;
            if (!skipValue(state)) return false;
        }
        if (state.current() != ']') return false;
        ++state.position;
        return true;
    }
    if (first == '{') return parseObject(state, node, slots);

    std::size_t start = state.position;
    while (!state.atEnd()) {
        char byte = state.current();
        if (byte == ',' || byte == '}' || byte == ']' || isWhitespace(byte)) break;
        ++state.position;
    }
    if (state.position == start) return false;
    if (slot >= 0) {
        if (auto number = integerValue(std::string_view(state.bytes + start, state.position - start))) {
            RawValue& value = slots[static_cast<std::size_t>(slot)];
            value.kind = RawValue::Kind::integer;
            value.number = *number;
        }
    }
    return true;
}

bool JSONFieldScanner::parseObject(State& state, int node, std::vector<RawValue>& slots) const {
    ++state.position;
    skipWhitespace(state);
    if (!state.atEnd() && state.current() == '}') {
        ++state.position;
        return true;
    }
    while (true) {
        skipWhitespace(state);
        if (state.atEnd() || state.current() != '"') return false;
        std::string_view key;
        if (!passString(state, &key)) return false;
        skipWhitespace(state);
        if (state.atEnd() || state.current() != ':') return false;
        ++state.position;

        int next = -1;
        if (!nodes_[static_cast<std::size_t>(node)].children.empty()) {
            next = isPlain(key) ? child(node, key) : child(node, decodeString(key));
        }
        // A repeated key replaces an earlier value only where it stores one of its own: a second
        // "message" holding just an id leaves the first one's usage counted.
        if (!(next >= 0 ? parseValue(state, next, slots) : skipValue(state))) return false;

        skipWhitespace(state);
        if (state.atEnd()) return false;
        if (state.current() != ',') break;
        ++state.position;
        skipWhitespace(state);
        if (state.atEnd()) return false;
    }
    if (state.current() != '}') return false;
    ++state.position;
    return true;
}

}  // namespace veerline
