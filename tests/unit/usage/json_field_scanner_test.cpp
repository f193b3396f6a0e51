// The field scanner against lines shaped like the tools' logs, including the malformed ones a
// crash or a concurrent write leaves behind.

#include <gtest/gtest.h>

#include "usage/json_field_scanner.h"

namespace veerline {
namespace {

using Value = JSONFieldScanner::Value;
using Result = JSONFieldScanner::Result;

const JSONFieldScanner::KeyPath kTime{"timestamp"};
const JSONFieldScanner::KeyPath kInput{"message", "usage", "input_tokens"};

struct Case {
    const char* line;
    std::optional<Result> expected;
};

TEST(JSONFieldScannerTest, CapturesWantedFieldsAndRejectsMalformedLines) {
    const JSONFieldScanner scanner({kTime, kInput});
    const Result both{{kTime, Value::string("T")}, {kInput, Value::integer(12)}};
    const Result timeOnly{{kTime, Value::string("T")}};
    const Case cases[] = {
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":12}}})", both},
        {R"({"message":{"usage":{"input_tokens":12}},"timestamp":"T"})", both},
        // Skipped subtrees hide brackets and escaped quotes in strings; "{" may close with "]".
        {R"({"x":{"a":[1,{"b":"}]\"{["}],"c":"\\"},"timestamp":"T","y":[{]],"message":{"usage":{"input_tokens":12}}})", both},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":12.9}}})", both},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":-3e2}}})", Result{{kTime, Value::string("T")}, {kInput, Value::integer(-300)}}},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":"12"}}})", Result{{kTime, Value::string("T")}, {kInput, Value::string("12")}}},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":null}}})", timeOnly},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":true}}})", timeOnly},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":{"n":1}}}})", timeOnly},
        {R"({"timestamp":"T","message":[{"usage":{"input_tokens":12}}]})", timeOnly},
        {R"({"timestamp":"a\"b\\c\nd","message":{}})", Result{{kTime, Value::string("a\"b\\c\\nd")}}},
        {R"({"timestamp":"caf)" "\xC3\xA9" R"(\u00e9x)" "\xFF" R"("})", Result{{kTime, Value::string("caf\xC3\xA9\\u00e9x\xEF\xBF\xBD")}}},
        {" \t\r{ \"timestamp\" : \"T\" , \"message\" : { \"usage\" :{ \"input_tokens\" : 12 } } }\r\t ", both},
        {R"({"a":{},"b":[],"c":{ },"d":[ ],"timestamp":"T"})", timeOnly},
        {R"({})", Result{}},
        {R"({"timestamp":"first","timestamp":"T"})", timeOnly},
        {R"({"timestamp":"T",})", std::nullopt},
        {R"([{"timestamp":"T"}])", std::nullopt},
        {R"({"timestamp":"T"}{"timestamp":"U"})", std::nullopt},
        {R"({"timestamp":"T","message":{"usage":{"input_tok)", std::nullopt},
        {R"({"timestamp":"T","x":[1,2)", std::nullopt},
        {R"({"timestamp" "T"})", std::nullopt},
        {R"({"timestamp":"T" "x":1})", std::nullopt},
        {R"({timestamp:"T"})", std::nullopt},
        {"", std::nullopt},
        {"   ", std::nullopt},
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(scanner.scan(testCase.line), testCase.expected) << testCase.line;
    }
}

TEST(JSONFieldScannerTest, PrefixesLeadToEveryWantedPath) {
    const JSONFieldScanner scanner({kInput});
    const std::set<JSONFieldScanner::KeyPath> prefixes{{}, {"message"}, {"message", "usage"}, kInput};
    EXPECT_EQ(scanner.prefixes(), prefixes);
}

}  // namespace
}  // namespace veerline
