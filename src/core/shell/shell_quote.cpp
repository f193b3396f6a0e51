#include "shell/shell_quote.h"

#include "base/unicode.h"

namespace veerline::ShellQuote {

namespace {

bool isPlainWord(std::string_view text) {
    if (text.empty()) return false;
    static constexpr std::string_view allowedPunctuation = "-_./:=@%+,";
    // Every code point is judged, not each user-perceived character by its first one: a
    // "prepend" letter (U+0D4E) joins the ";" after it into one character. Combining marks may
    // stay, so an accent typed as a separate mark keeps a word plain; the shell sees no ASCII
    // in them.
    for (char32_t codePoint : unicode::decode(text)) {
        if (codePoint < 0x80) {
            bool alphanumeric = (codePoint >= 'a' && codePoint <= 'z') || (codePoint >= 'A' && codePoint <= 'Z') ||
                                (codePoint >= '0' && codePoint <= '9');
            if (!alphanumeric && allowedPunctuation.find(static_cast<char>(codePoint)) == std::string_view::npos) {
                return false;
            }
            continue;
        }
        if (codePoint == U'\uFFFD' || !(unicode::isLetterOrNumber(codePoint) || unicode::isMark(codePoint))) {
            return false;
        }
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
