#include "usage/json_field_scanner.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>

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

// Only the two escapes that can hide a quote or a backslash are decoded; the logs' figures and
// identifiers never use the others, and leaving them as written keeps the scan cheap.
std::string decodeString(std::string_view raw, bool escaped) {
    bool ascii = true;
    for (char byte : raw) {
        if (static_cast<unsigned char>(byte) >= 0x80) {
            ascii = false;
            break;
        }
    }
    std::string text = ascii ? std::string(raw) : unicode::repairUTF8(raw);
    if (escaped) {
        replaceAll(text, "\\\"", "\"");
        replaceAll(text, "\\\\", "\\");
    }
    return text;
}

// With the position on the opening quote. Nothing when the string does not close.
bool readString(State& state, bool capture, std::string* out) {
    std::size_t start = ++state.position;
    bool escaped = false;
    while (true) {
        if (state.atEnd()) {
            state.complete = false;
            return false;
        }
        char byte = state.current();
        if (byte == '"') break;
        if (byte == '\\') {
            escaped = true;
            // The escaped byte may be the last one: the next check then finds the end.
            state.position += 2;
            continue;
        }
        ++state.position;
    }
    std::string_view raw(state.bytes + start, state.position - start);
    ++state.position;
    if (capture && out != nullptr) *out = decodeString(raw, escaped);
    return true;
}

bool skipValue(State& state) {
    skipWhitespace(state);
    if (state.atEnd()) return false;
    char first = state.current();
    if (first == '"') return readString(state, false, nullptr);
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
            ++state.position;
            while (true) {
                if (state.atEnd()) {
                    state.complete = false;
                    return false;
                }
                char inner = state.current();
                if (inner == '"') break;
                state.position += inner == '\\' ? 2 : 1;
            }
        } else if (byte == '{' || byte == '[') {
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
        // from_chars takes no "+"; the sign is re-applied by reading the digits after it.
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
    if (end != copy.c_str() + copy.size() || !std::isfinite(number)) return std::nullopt;
    double truncated = std::trunc(number);
    // 2^63 is exact in a double; anything at or beyond it does not fit.
    if (truncated >= 9223372036854775808.0 || truncated < -9223372036854775808.0) return std::nullopt;
    return static_cast<std::int64_t>(truncated);
}

}  // namespace

JSONFieldScanner::JSONFieldScanner(std::set<KeyPath> wanted) : paths_(std::move(wanted)) {
    prefixes_.insert(KeyPath{});
    for (const KeyPath& path : paths_) {
        for (std::size_t length = 1; length <= path.size(); ++length) {
            prefixes_.insert(KeyPath(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(length)));
        }
    }
}

std::optional<JSONFieldScanner::Result> JSONFieldScanner::scan(std::string_view bytes) const {
    if (bytes.empty()) return std::nullopt;
    State state{bytes.data(), bytes.size()};
    skipWhitespace(state);
    if (state.atEnd() || state.current() != '{') return std::nullopt;
    KeyPath path;
    Result result;
    if (!parseValue(state, path, result)) return std::nullopt;
    skipWhitespace(state);
    if (!state.atEnd()) return std::nullopt;
    return result;
}

bool JSONFieldScanner::parseValue(State& state, KeyPath& path, Result& result) const {
    skipWhitespace(state);
    if (state.atEnd()) return false;
    char first = state.current();
    bool wanted = paths_.contains(path);
    if (first == '"') {
        std::string text;
        if (!readString(state, wanted, &text)) return false;
        if (wanted) result.insert_or_assign(path, Value::string(std::move(text)));
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
    if (first == '{') return parseObject(state, path, result);

    std::size_t start = state.position;
    while (!state.atEnd()) {
        char byte = state.current();
        if (byte == ',' || byte == '}' || byte == ']' || isWhitespace(byte)) break;
        ++state.position;
    }
    if (state.position == start) return false;
    if (wanted) {
        if (auto number = integerValue(std::string_view(state.bytes + start, state.position - start))) {
            result.insert_or_assign(path, Value::integer(*number));
        }
    }
    return true;
}

bool JSONFieldScanner::parseObject(State& state, KeyPath& path, Result& result) const {
    ++state.position;
    skipWhitespace(state);
    if (!state.atEnd() && state.current() == '}') {
        ++state.position;
        return true;
    }
    while (true) {
        skipWhitespace(state);
        if (state.atEnd() || state.current() != '"') return false;
        std::string key;
        if (!readString(state, true, &key)) return false;
        skipWhitespace(state);
        if (state.atEnd() || state.current() != ':') return false;
        ++state.position;

        path.push_back(std::move(key));
        bool ok = prefixes_.contains(path) ? parseValue(state, path, result) : skipValue(state);
        path.pop_back();
        if (!ok) return false;

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
