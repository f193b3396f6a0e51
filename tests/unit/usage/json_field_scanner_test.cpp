// The field scanner against lines shaped like the tools' logs, including the malformed ones a
// crash or a concurrent write leaves behind.

#include <gtest/gtest.h>

#include "usage/json_field_scanner.h"

namespace veerline {
namespace {

using Value = JSONFieldScanner::Value;
using Result = JSONFieldScanner::Result;

TEST(JSONFieldScannerTest, CapturesWantedFieldsAndRejectsMalformedLines) {
    const JSONFieldScanner::KeyPath time{"timestamp"}, input{"message", "usage", "input_tokens"};
    const JSONFieldScanner scanner({time, input});
    const Result both{{time, Value::string("T")}, {input, Value::integer(12)}};
    const Result timeOnly{{time, Value::string("T")}};
    const std::pair<const char*, Result> cases[] = {
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":12}}})", both},
        {R"({"message":{"usage":{"input_tokens":12}},"timestamp":"T"})", both},
        // Skipped subtrees hide brackets and escaped quotes in strings; "{" may close with "]".
        {R"({"x":{"a":[1,{"b":"}]\"{["}],"c":"\\"},"timestamp":"T","y":[{]],"message":{"usage":{"input_tokens":12}}})", both},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":12.9}}})", both},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":-3e2}}})", Result{{time, Value::string("T")}, {input, Value::integer(-300)}}},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":"12"}}})", Result{{time, Value::string("T")}, {input, Value::string("12")}}},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":null}}})", timeOnly},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":true}}})", timeOnly},
        {R"({"timestamp":"T","message":{"usage":{"input_tokens":{"n":1}}}})", timeOnly},
        {R"({"timestamp":"T","message":[{"usage":{"input_tokens":12}}]})", timeOnly},
        {R"({"timestamp":"a\"b\\c\nd","message":{}})", Result{{time, Value::string("a\"b\\c\\nd")}}},
        {R"({"timestamp":"caf)" "\xC3\xA9" R"(\u00e9x)" "\xFF" R"("})", Result{{time, Value::string("caf\xC3\xA9\\u00e9x\xEF\xBF\xBD")}}},
        {" \t\r{ \"timestamp\" : \"T\" , \"message\" : { \"usage\" :{ \"input_tokens\" : 12 } } }\r\t ", both},
        {R"({"a":{},"b":[],"c":{ },"d":[ ],"timestamp":"T"})", timeOnly},
        {R"({})", Result{}},
        {R"({"timestamp":"first","timestamp":"T"})", timeOnly},
    };
    for (const auto& [line, expected] : cases) EXPECT_EQ(scanner.scan(line), expected) << line;
    for (const char* malformed : {R"({"timestamp":"T",})", R"([{"timestamp":"T"}])", R"({"timestamp":"T"}{"timestamp":"U"})",
                                  R"({"timestamp":"T","message":{"usage":{"input_tok)", R"({"timestamp":"T","x":[1,2)",
                                  R"({"timestamp" "T"})", R"({"timestamp":"T" "x":1})", R"({timestamp:"T"})", "", "   "}) {
        EXPECT_EQ(scanner.scan(malformed), std::nullopt) << malformed;
    }
}

}  // namespace
}  // namespace veerline
