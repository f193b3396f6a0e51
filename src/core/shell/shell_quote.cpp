#include "shell/shell_quote.h"

#include "base/unicode.h"

namespace veerline::ShellQuote {

namespace {

bool isPlainWord(std::string_view text) {
    if (text.empty()) return false;
    static constexpr std::string_view allowedPunctuation = "-_./:=@%+,";
    // A user-perceived character counts by its first code point, so an accented letter written
    // with a combining mark stays a letter. A prepended letter (U+0D4E) shares its cluster with the
    // next character, which may be ASCII: every ASCII character must be safe on its own.
    for (const std::string& character : unicode::graphemeClusters(text)) {
        std::u32string codePoints = unicode::decode(character);
        if (codePoints.empty()) return false;
        for (char32_t c : codePoints) {
            bool safe = c >= 0x80 || allowedPunctuation.find(static_cast<char>(c)) != std::string_view::npos ||
                        unicode::isLetterOrNumber(c);
            if (!safe) return false;
        }
        char32_t first = codePoints.front();
        if (first < 0x80 && allowedPunctuation.find(static_cast<char>(first)) != std::string_view::npos) {
            continue;
        }
        if (!unicode::isLetterOrNumber(first)) return false;
    }
    return true;
}

}  // namespace

std::string quote(std::string_view text) {
    if (isPlainWord(text)) return std::string(text);
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    quoted += '\'';
    return quoted;
}

}  // namespace veerline::ShellQuote
