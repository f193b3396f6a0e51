#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "profiles/profile.h"

namespace veerline {

// A moment as seconds since the Unix epoch, fractions included.
using Moment = std::chrono::sys_time<std::chrono::duration<double>>;

// How much a profile used one tool within a time window ending at the moment asked about.
struct ActivitySummary {
    ToolKind tool = ToolKind::claudeCode;
    double window = 0;  // seconds
    std::int64_t sessions = 0;
    std::int64_t inputTokens = 0;  // not counting cached input
    std::int64_t outputTokens = 0;
    std::int64_t cacheTokens = 0;  // written and read

    static constexpr double fiveHours = 18000;
    static constexpr double sevenDays = 604800;

    // Saturate at the limit rather than wrap: a hostile log must not turn a huge count negative.
    std::int64_t workTokens() const noexcept;
    std::int64_t totalTokens() const noexcept;
    // "1.2k tokens · 1 session (+2.5k cached)"; cache tokens never count in the leading figure.
    std::string summary() const;

    nlohmann::json toJSON() const;
    // All six keys are required; throws std::invalid_argument saying what is wrong.
    static ActivitySummary fromJSON(const nlohmann::json& json);

    bool operator==(const ActivitySummary&) const = default;
};

// a + b, held at the signed 64-bit limits instead of wrapping around them.
std::int64_t saturatingSum(std::int64_t a, std::int64_t b) noexcept;

// "999", "1.2k", "10k", "1.2M", "123B": the unit is chosen before rounding, so 9999 gives "10.0k".
std::string compactTokenCount(std::int64_t count);

// A source of activity summaries. `activity` blocks while it reads; callers that want several
// answers at once run them on threads of their own.
class UsageProvider {
public:
    virtual ~UsageProvider() = default;

    virtual std::string displayName() const = 0;
    // Whether it can tell how close the account is to its plan's limits.
    virtual bool reportsPlanLimits() const = 0;
    virtual ActivitySummary activity(const Profile& profile, ToolKind tool, double window, Moment now) const = 0;
};

}  // namespace veerline
