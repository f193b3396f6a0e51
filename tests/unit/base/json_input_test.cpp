// The one parse of outside JSON: nesting bounded, keys kept in order, the last of a repeated key wins.

#include <gtest/gtest.h>

#include "base/error.h"
#include "base/json_input.h"

namespace veerline {
namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonInputTest, ParsesWhatIsJsonAndNamesWhatIsNot) {
    using Problem = JsonInput::Problem;
    const struct {
        const char* name;
        std::string text;
        Problem problem;
    } rows[] = {
        {"deepest allowed", nested(JsonInput::maxDepth), Problem::none},
        {"one level deeper", nested(JsonInput::maxDepth + 1), Problem::tooDeep},
        {"far deeper", "{\"a\": " + nested(150000) + "}", Problem::tooDeep},
        {"not JSON", "{\"a\": }", Problem::invalid},
        {"trailing text", "{} x", Problem::invalid},
        {"number past a double", "[1e999]", Problem::invalid},
        {"scalar", "\"text\"", Problem::none},
    };
    for (const auto& row : rows) {
        Problem plain = Problem::none, ordered = Problem::none;
        EXPECT_EQ(JsonInput::parse(row.text, &plain).has_value(), row.problem == Problem::none) << row.name;
        EXPECT_EQ(JsonInput::parseOrdered(row.text, &ordered).has_value(), row.problem == Problem::none) << row.name;
        EXPECT_EQ(plain, row.problem) << row.name;
        EXPECT_EQ(ordered, row.problem) << row.name;
    }
}

TEST(JsonInputTest, KeepsKeyOrderAndTheLastOfARepeatedKey) {
    const std::string text = R"({"b": 1, "a": {"y": [1, {"z": null}], "x": true}, "b": 2, "c": "s"})";
    EXPECT_EQ(JsonInput::parseOrdered(text)->dump(), R"({"b":2,"a":{"y":[1,{"z":null}],"x":true},"c":"s"})");
    EXPECT_EQ(*JsonInput::parse(text), nlohmann::json::parse(text));
    try {
        JsonInput::objectOrThrow(nested(600), "~/x.json");
        ADD_FAILURE() << "too deep was read";
    } catch (const VeerlineError& error) {
        EXPECT_EQ(error.errorDescription(), "Couldn't read ~/x.json: it is too deeply nested (more than 512 levels).");
    }
}

}  // namespace
}  // namespace veerline
