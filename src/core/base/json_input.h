#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace veerline {

// Every JSON text Veerline takes from outside (the tools' files, its own files that anyone may
// edit, other programs' answers) is parsed here. The parse never recurses, refuses nesting
// deeper than any real file has (a value nested a hundred thousand deep would otherwise crash
// whatever walks it next), and builds objects in time linear in their number of keys, key order
// kept for the ordered form. A key given twice keeps its last value, as nlohmann does.
struct JsonInput {
    static constexpr std::size_t maxDepth = 512;

    enum class Problem { none, invalid, tooDeep };

    // The value, or nothing with `problem` saying why.
    static std::optional<nlohmann::json> parse(std::string_view text, Problem* problem = nullptr) noexcept;
    static std::optional<nlohmann::ordered_json> parseOrdered(std::string_view text,
                                                              Problem* problem = nullptr) noexcept;

    // For a message after "Couldn't read PATH: ": "it isn't valid JSON", "it is too deeply
    // nested (more than 512 levels)".
    static std::string describe(Problem problem);

    // The object in `text`; throws VeerlineError::io "Couldn't read SHOWN: WHY." when it isn't
    // JSON, nests too deeply or isn't an object.
    static nlohmann::ordered_json objectOrThrow(std::string_view text, const std::string& shown);
};

}  // namespace veerline
