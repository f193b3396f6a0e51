#include "base/unicode.h"

#include <utf8proc.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace veerline::unicode {

namespace {

// Reads one code point at `pos`; on invalid input returns -1 and advances one byte.
utf8proc_int32_t next(std::string_view text, std::size_t& pos) {
    utf8proc_int32_t codePoint = -1;
    auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + pos),
                                   static_cast<utf8proc_ssize_t>(text.size() - pos), &codePoint);
    if (length <= 0) {
        pos += 1;
        return -1;
    }
    pos += static_cast<std::size_t>(length);
    return codePoint;
}

template <typename Map>
std::string mapEach(std::string_view text, Map map) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t start = pos;
        auto codePoint = next(text, pos);
        if (codePoint < 0) {
            out.append(text.substr(start, pos - start));
        } else {
            map(out, codePoint);
        }
    }
    return out;
}

// utf8proc_map with the given options, or nothing usable on failure.
std::string mapWithOptions(std::string_view text, int options, bool& ok) {
    utf8proc_uint8_t* result = nullptr;
    auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                               static_cast<utf8proc_ssize_t>(text.size()), &result,
                               static_cast<utf8proc_option_t>(options));
    std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, &std::free);
    ok = length >= 0;
    if (!ok) return {};
    return std::string(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
}

// Most names and paths are plain ASCII; answering those without utf8proc keeps its large tables
// out of the resolver's start-up.
bool isASCII(std::string_view text) noexcept {
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
    return true;
}

char asciiLower(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isASCIISpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isSeparatorOrControlSpace(utf8proc_int32_t codePoint) {
    if (codePoint == '\t' || codePoint == '\n' || codePoint == '\v' || codePoint == '\f' ||
        codePoint == '\r' || codePoint == 0x85 || codePoint == 0x2028 || codePoint == 0x2029) {
        return true;
    }
    auto category = utf8proc_category(codePoint);
    return category == UTF8PROC_CATEGORY_ZS || category == UTF8PROC_CATEGORY_ZL ||
           category == UTF8PROC_CATEGORY_ZP;
}

}  // namespace

void appendUTF8(std::string& out, char32_t codePoint) {
    utf8proc_uint8_t buffer[4];
    auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(codePoint), buffer);
    if (length == 0) length = utf8proc_encode_char(0xFFFD, buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

std::string lowercased(std::string_view text) {
    if (isASCII(text)) {
        std::string out(text);
        for (char& c : out) c = asciiLower(c);
        return out;
    }
    return mapEach(text, [](std::string& out, utf8proc_int32_t c) {
        // utf8proc maps character by character; the one unconditional special case of full
        // lower-casing keeps its dot.
        if (c == 0x130) {
            out += "i\u0307";
            return;
        }
        appendUTF8(out, static_cast<char32_t>(utf8proc_tolower(c)));
    });
}

std::string uppercased(std::string_view text) {
    return mapEach(text, [](std::string& out, utf8proc_int32_t c) {
        // Where upper-casing expands ("ß" to "SS"), case folding spells the expansion out in
        // lower case ("ss"); upper-casing that letter by letter gives the full upper-case form.
        // Capitals that fold to several letters (U+1E9E, U+0130) are already upper case.
        if (utf8proc_category(c) != UTF8PROC_CATEGORY_LU) {
            std::string single;
            appendUTF8(single, static_cast<char32_t>(c));
            bool ok = false;
            std::u32string folded = decode(mapWithOptions(single, UTF8PROC_CASEFOLD, ok));
            if (ok && folded.size() > 1) {
                for (char32_t part : folded) {
                    appendUTF8(out, static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(part))));
                }
                return;
            }
        }
        appendUTF8(out, static_cast<char32_t>(utf8proc_toupper(c)));
    });
}

std::string foldedForSlug(std::string_view text) {
    std::string lower = lowercased(repairUTF8(text));
    bool ok = false;
    std::string stripped =
        mapWithOptions(lower, UTF8PROC_COMPOSE | UTF8PROC_STRIPMARK, ok);
    return ok ? stripped : lower;
}

std::vector<std::string> graphemeClusters(std::string_view text) {
    std::vector<std::string> clusters;
    std::size_t pos = 0;
    utf8proc_int32_t previous = -1;
    utf8proc_int32_t state = 0;
    while (pos < text.size()) {
        std::size_t start = pos;
        auto codePoint = next(text, pos);
        if (codePoint < 0) codePoint = 0xFFFD;
        if (clusters.empty() || previous < 0 ||
            utf8proc_grapheme_break_stateful(previous, codePoint, &state)) {
            clusters.emplace_back();
        }
        clusters.back().append(text.substr(start, pos - start));
        previous = codePoint;
    }
    return clusters;
}

std::size_t characterCount(std::string_view text) {
    // Plain ASCII is one character a byte, but for a CR LF pair.
    if (isASCII(text)) {
        std::size_t pairs = 0;
        for (std::size_t pos = text.find("\r\n"); pos != std::string_view::npos; pos = text.find("\r\n", pos + 2)) ++pairs;
        return text.size() - pairs;
    }
    // Counted without building the clusters: a name read from a file may be megabytes long.
    std::size_t count = 0;
    std::size_t pos = 0;
    utf8proc_int32_t previous = -1;
    utf8proc_int32_t state = 0;
    while (pos < text.size()) {
        auto codePoint = next(text, pos);
        if (codePoint < 0) codePoint = 0xFFFD;
        if (count == 0 || utf8proc_grapheme_break_stateful(previous, codePoint, &state)) ++count;
        previous = codePoint;
    }
    return count;
}

std::string trimmed(std::string_view text) {
    if (isASCII(text)) {
        std::size_t begin = 0;
        std::size_t end = text.size();
        while (begin < end && isASCIISpace(text[begin])) ++begin;
        while (end > begin && isASCIISpace(text[end - 1])) --end;
        return std::string(text.substr(begin, end - begin));
    }
    std::size_t pos = 0;
    std::size_t begin = text.size();
    std::size_t end = 0;
    while (pos < text.size()) {
        std::size_t start = pos;
        auto codePoint = next(text, pos);
        if (codePoint < 0 || !isSeparatorOrControlSpace(codePoint)) {
            if (begin == text.size()) begin = start;
            end = pos;
        }
    }
    if (begin >= end) return {};
    return std::string(text.substr(begin, end - begin));
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    if (a == b) return true;
    if (isASCII(a) && isASCII(b)) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (asciiLower(a[i]) != asciiLower(b[i])) return false;
        }
        return true;
    }
    return caseInsensitiveKey(a) == caseInsensitiveKey(b);
}

std::string caseInsensitiveKey(std::string_view text) {
    if (isASCII(text)) return lowercased(text);
    bool ok = false;
    // Case folding with canonical composition: NFC and NFD spellings fold alike.
    std::string folded = mapWithOptions(text, UTF8PROC_CASEFOLD | UTF8PROC_COMPOSE, ok);
    return ok ? folded : lowercased(text);
}

namespace {

// The character at `pos`: its length in bytes (1 for a byte that starts no valid UTF-8
// sequence) and its code point, -1 for such a byte.
struct Character {
    std::size_t length;
    utf8proc_int32_t codePoint;
};

Character characterAt(std::string_view text, std::size_t pos) noexcept {
    auto c = static_cast<unsigned char>(text[pos]);
    if (c < 0x80) return {1, c};
    std::size_t end = pos;
    utf8proc_int32_t codePoint = next(text, end);
    return {end - pos, codePoint};
}

// Whether the character moves the cursor, clears a screen, retitles a terminal or breaks a line:
// C0, DEL, C1, the line and paragraph separators, and a lone byte 0x80 to 0x9F, which a terminal
// in 8-bit mode takes for C1 (0x9B starts a sequence there as ESC [ does).
bool isControl(std::string_view text, std::size_t pos, const Character& character) noexcept {
    if (character.codePoint < 0) {
        auto c = static_cast<unsigned char>(text[pos]);
        return c >= 0x80 && c <= 0x9F;
    }
    const auto codePoint = character.codePoint;
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x2028 || codePoint == 0x2029;
}

}  // namespace

bool hasControlCharacter(std::string_view text) noexcept {
    for (std::size_t pos = 0; pos < text.size();) {
        Character character = characterAt(text, pos);
        if (isControl(text, pos, character)) return true;
        pos += character.length;
    }
    return false;
}

std::string escapingControlCharacters(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (std::size_t pos = 0; pos < text.size();) {
        Character character = characterAt(text, pos);
        if (!isControl(text, pos, character)) {
            out.append(text, pos, character.length);
            pos += character.length;
            continue;
        }
        // A lone byte is written as the byte it is; a character by its code point.
        const auto value = character.codePoint < 0 ? static_cast<unsigned char>(text[pos])
                                                   : static_cast<std::uint32_t>(character.codePoint);
        if (character.length == 1) {
            out += "\\x";
        } else {
            out += "\\u";
            out += hex[(value >> 12) & 15];
            out += hex[(value >> 8) & 15];
        }
        out += hex[(value >> 4) & 15];
        out += hex[value & 15];
        pos += character.length;
    }
    return out;
}

bool isLetterOrNumber(char32_t codePoint) {
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(codePoint))) {
        case UTF8PROC_CATEGORY_LU:
        case UTF8PROC_CATEGORY_LL:
        case UTF8PROC_CATEGORY_LT:
        case UTF8PROC_CATEGORY_LM:
        case UTF8PROC_CATEGORY_LO:
        case UTF8PROC_CATEGORY_ND:
        case UTF8PROC_CATEGORY_NL:
        case UTF8PROC_CATEGORY_NO:
            return true;
        default:
            return false;
    }
}

bool isMark(char32_t codePoint) {
    auto category = utf8proc_category(static_cast<utf8proc_int32_t>(codePoint));
    return category == UTF8PROC_CATEGORY_MN || category == UTF8PROC_CATEGORY_MC || category == UTF8PROC_CATEGORY_ME;
}

std::u32string decode(std::string_view text) {
    std::u32string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        auto codePoint = next(text, pos);
        out.push_back(codePoint < 0 ? U'\uFFFD' : static_cast<char32_t>(codePoint));
    }
    return out;
}

bool isValidUTF8(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (next(text, pos) < 0) return false;
    }
    return true;
}

std::string repairUTF8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        std::size_t start = pos;
        auto codePoint = next(bytes, pos);
        if (codePoint < 0) {
            appendUTF8(out, U'\uFFFD');
        } else {
            out.append(bytes.substr(start, pos - start));
        }
    }
    return out;
}

}  // namespace veerline::unicode
