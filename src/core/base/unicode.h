#pragma once

// Unicode text operations, all through utf8proc. Invalid UTF-8 is passed through byte for byte
// where a result must still be produced.

#include <string>
#include <string_view>
#include <vector>

namespace veerline::unicode {

// Full lower-casing, independent of locale: "İ" (U+0130) gives "i" and a combining dot above, as
// Unicode's special casing says, not a bare "i".
std::string lowercased(std::string_view text);

// Full upper-casing: characters without a simple upper-case mapping expand where Unicode says
// so ("ß" gives "SS").
std::string uppercased(std::string_view text);

// Lower-cases and removes diacritics ("Café Ärger" gives "cafe arger").
std::string foldedForSlug(std::string_view text);

// The extended grapheme clusters (user-perceived characters) of the text.
std::vector<std::string> graphemeClusters(std::string_view text);

// Number of extended grapheme clusters.
std::size_t characterCount(std::string_view text);

// Trims white space and line breaks (every Unicode space separator, tabs, newlines) at both ends.
std::string trimmed(std::string_view text);

// Case-insensitive comparison by full case folding.
bool equalIgnoringCase(std::string_view a, std::string_view b);

// The text case-folded and in composed form (NFC): two texts are equal ignoring case, and
// however their accents were typed, exactly when their keys are equal.
std::string caseInsensitiveKey(std::string_view text);

// Whether the text holds a control character (C0, DEL, C1) or a line or paragraph separator:
// what can move the cursor, clear a screen, retitle a terminal or break a line.
bool hasControlCharacter(std::string_view text) noexcept;

// The text with each such character written out as an escape ("\x1B", "\u009B", "\u2028"),
// safe to show on a terminal. Everything else is left byte for byte.
std::string escapingControlCharacters(std::string_view text);

// Unicode category tests on a code point.
bool isLetterOrNumber(char32_t codePoint);
// A combining mark (Mn, Mc, Me).
bool isMark(char32_t codePoint);

// Decodes UTF-8 into code points; invalid bytes become U+FFFD.
std::u32string decode(std::string_view text);

// True when the bytes are valid UTF-8.
bool isValidUTF8(std::string_view text);

// Replaces every invalid UTF-8 sequence with U+FFFD.
std::string repairUTF8(std::string_view bytes);

void appendUTF8(std::string& out, char32_t codePoint);

}  // namespace veerline::unicode
