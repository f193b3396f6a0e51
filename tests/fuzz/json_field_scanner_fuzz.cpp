// libFuzzer target for JSONFieldScanner: the scan must stay inside the bytes it is given, and on
// a line the JSON library reads as an object, every field the scanner captures must hold what
// the library reads there.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include <nlohmann/json.hpp>

#include "usage/json_field_scanner.h"

static void check(bool condition) {
    if (!condition) std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const veerline::JSONFieldScanner scanner({{"timestamp"}, {"requestId"}, {"message", "id"},
                                                     {"message", "usage", "input_tokens"},
                                                     {"message", "usage", "output_tokens"}, {"a"}, {"a", "b"}, {""}});
    // An exact-size copy, so that AddressSanitizer sees any read past the end.
    std::unique_ptr<char[]> bytes(new char[std::max<std::size_t>(size, 1)]);
    std::copy(data, data + size, bytes.get());
    std::string_view line(bytes.get(), size);
    auto result = scanner.scan(line);
    if (!result) return 0;
    nlohmann::json document = nlohmann::json::parse(line, nullptr, false);
    if (!document.is_object()) return 0;
    for (const auto& [path, value] : *result) {
        const nlohmann::json* node = &document;
        for (const std::string& key : path) {
            check(node->is_object() && node->contains(key));
            node = &(*node)[key];
        }
        if (const std::string* text = value.asString()) {
            check(node->is_string());
            // Only \" and \\ are decoded; other escapes stay as written, with their backslash.
            if (text->find('\\') == std::string::npos) check(node->get<std::string>() == *text);
        } else if (const std::int64_t* number = value.asInt()) {
            check(node->is_number());
            if (node->is_number_unsigned()) check(node->get<std::uint64_t>() == static_cast<std::uint64_t>(*number));
            else if (node->is_number_integer()) check(node->get<std::int64_t>() == *number);
            else check(std::trunc(node->get<double>()) == static_cast<double>(*number));
        }
    }
    return 0;
}
