#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "usage/activity_summary.h"

namespace veerline {
namespace {

TEST(ActivitySummaryTest, CompactCountsSummaryLineAndJSON) {
    // The unit is picked before rounding: 9999 is "10.0k", not "10k".
    const std::pair<std::int64_t, const char*> table[] = {
        {0, "0"},        {999, "999"},       {-5, "-5"},          {1000, "1.0k"},       {1234, "1.2k"},
        {9999, "10.0k"}, {10000, "10k"},     {999999, "1000k"},   {1234567, "1.2M"},    {10000000, "10M"},
        {999999999, "1000M"}, {1000000000, "1.0B"}, {123456789012, "123B"},
    };
    for (const auto& [count, text] : table) EXPECT_EQ(compactTokenCount(count), text) << count;

    ActivitySummary summary{ToolKind::claudeCode, ActivitySummary::fiveHours, 1, 1234, 0, 0};
    EXPECT_EQ(summary.summary(), "1.2k tokens \u00b7 1 session");
    summary.sessions = 0;
    EXPECT_EQ(summary.summary(), "1.2k tokens \u00b7 0 sessions");
    summary = ActivitySummary{ToolKind::codex, 60, 2, 700, 500, 2500};
    EXPECT_EQ(summary.summary(), "1.2k tokens \u00b7 2 sessions (+2.5k cached)");
    EXPECT_EQ(summary.totalTokens(), 3700);

    nlohmann::json json = summary.toJSON();
    EXPECT_EQ(json.dump(), R"({"cacheTokens":2500,"inputTokens":700,"outputTokens":500,"sessions":2,"tool":"codex","window":60})");
    EXPECT_EQ(ActivitySummary::fromJSON(json), summary);
    for (const char* missing : {"cacheTokens", "tool"}) {
        nlohmann::json partial = json;
        partial.erase(missing);
        EXPECT_THROW(ActivitySummary::fromJSON(partial), std::invalid_argument) << missing;
    }
    json["tool"] = "claude";
    EXPECT_THROW(ActivitySummary::fromJSON(json), std::invalid_argument);
}

}  // namespace
}  // namespace veerline
