#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "usage/codex_line_reader.h"

namespace veerline::testing {
namespace {

// The reader must answer as the parsed document would, wherever a key repeats or a value has
// another type than expected.
TEST(CodexLineReaderTest, AnswersAsTheParsedDocumentWould) {
    auto line = [](const std::string& usage, const std::string& tail = "") {
        return R"({"timestamp":"t1","type":"event_msg","payload":{"type":"token_count","info":{"last_token_usage":)" +
               usage + "}}" + tail + "}";
    };
    struct Case {
        std::string line;
        std::optional<CodexTokenCount> expected;
    };
    const Case cases[] = {
        {line(R"({"input_tokens":120,"cached_input_tokens":20,"output_tokens":7.9,"cache_write_input_tokens":-3})"),
         CodexTokenCount{"t1", 120, 20, 7, -3}},
        // Past the signed range, integers and fractions alike are clamped, so they still read as absurd.
        {line(R"({"input_tokens":18446744073709551615,"output_tokens":1e19,"cached_input_tokens":"5","cache_write_input_tokens":-1e300})"),
         CodexTokenCount{"t1", 9223372036854775807, 0, 9223372036854775807, -9223372036854775807 - 1}},
        // The last of a repeated key counts, and a repeated object replaces the whole earlier one.
        {line(R"({"input_tokens":1,"input_tokens":2,"output_tokens":{"input_tokens":9}})",
              R"(,"timestamp":"t2","payload":{"info":{"last_token_usage":{}},"type":"token_count"})"),
         CodexTokenCount{"t2", 0, 0, 0, 0}},
        {line("{}", R"(,"type":"other")"), std::nullopt},
        {line("{}", R"(,"payload":{"type":"token_count","info":null})"), std::nullopt},
        {line("{}", R"(,"timestamp":7)"), std::nullopt},
        {line("[]"), std::nullopt},
        {line("{}") + " x", std::nullopt},
        {"[" + line("{}") + "]", std::nullopt},
        {R"({"type":"event_msg","payload":[{"type":"token_count"}]})", std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(readCodexTokenCount(c.line), c.expected) << c.line;
}

}  // namespace
}  // namespace veerline::testing
