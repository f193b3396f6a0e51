// libFuzzer target for JSONFieldScanner: the scan must stay inside the bytes it is given, and on
// a line the JSON library reads as an object, every wanted field the library reads as a string or
// a number must be captured with that value.

#include "fuzz_support.h"
#include "usage/json_field_scanner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const veerline::JSONFieldScanner scanner({{"timestamp"}, {"requestId"}, {"message", "id"},
                                                     {"message", "usage", "input_tokens"},
                                                     {"message", "usage", "output_tokens"}, {"a"}, {"a", "b"}, {""}});
    auto bytes = exactCopy(data, size);
    std::string_view line(bytes.get(), size);
    auto result = scanner.scan(line);
    if (!result) return 0;
    nlohmann::json document = nlohmann::json::parse(line, nullptr, false);
    // The scanner decodes only the escapes \" and \\ (in keys too), the library all of them.
    if (!document.is_object() || line.find('\\') != std::string_view::npos) return 0;
    // Where the document ends with a string or a number, the scanner holds the same. Elsewhere it
    // may hold what an earlier member of a repeated key left, as a later one replaces a value only
    // where it stores one.
    for (const auto& path : scanner.paths()) {
        const nlohmann::json* node = &document;
        for (const std::string& key : path) {
            node = node->is_object() && node->contains(key) ? &(*node)[key] : nullptr;
            if (node == nullptr) break;
        }
        if (node == nullptr || !(node->is_string() || node->is_number())) continue;
        auto found = result->find(path);
        check(found != result->end());
        const veerline::JSONFieldScanner::Value& value = found->second;
        if (node->is_string()) {
            const std::string* text = value.asString();
            check(text != nullptr);
            check(node->get<std::string>() == *text);
            continue;
        }
        const std::int64_t* number = value.asInt();
        check(number != nullptr);
        check(*number == clampedInteger(*node));
    }
    return 0;
}
