// A quoted word reads back as the original in a POSIX shell: left as it is only when no byte of it
// is special to the shell, otherwise single-quoted with each inner quote written as '\''.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "shell/shell_quote.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string word = ShellQuote::quote(text);
    if (word == text) {
        auto special = [](unsigned char c) { return c < 0x80 && !std::isalnum(c) && (!c || !std::strchr("-_./:=@%+,", c)); };
        if (word.empty() || std::any_of(word.begin(), word.end(), special)) std::abort();
        return 0;
    }
    // Read the word back as sh does: quoted runs taken literally, a backslash escaping one character.
    std::string read;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] == '\\' && i + 1 < word.size()) {
            read += word[++i];
        } else if (word[i] == '\'') {
            std::size_t close = word.find('\'', i + 1);
            if (close == std::string::npos) std::abort();
            read.append(word, i + 1, close - i - 1);
            i = close;
        } else {
            std::abort();
        }
    }
    if (read != text) std::abort();
    return 0;
}
