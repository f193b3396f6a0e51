#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veerline {

// The figures of one Codex "token_count" line: an "event_msg" whose payload of type
// "token_count" has an "info" object with a "last_token_usage" object. Figures that are missing
// or not numbers are 0, fractions are cut toward zero, and numbers past the signed 64-bit range
// are clamped to it.
struct CodexTokenCount {
    std::string timestamp;
    std::int64_t input = 0;  // "input_tokens", cached input included
    std::int64_t cachedInput = 0;
    std::int64_t output = 0;
    std::int64_t cacheWriteInput = 0;

    bool operator==(const CodexTokenCount&) const = default;
};

// Reads a line with the JSON library's event interface, so that no document tree is built for the
// tens of thousands of such lines a week of Codex sessions holds (building it took most of the
// time). The answer is the one the parsed document would give: a key given twice counts with its
// last value, and a line that isn't one whole JSON object gives nothing.
std::optional<CodexTokenCount> readCodexTokenCount(std::string_view line);

}  // namespace veerline
