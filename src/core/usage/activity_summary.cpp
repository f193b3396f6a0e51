#include "usage/activity_summary.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace veerline {

namespace {

std::string formatted(const char* format, double value) {
    // snprintf follows the C locale's "." unless the program changed LC_NUMERIC, which it never does.
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

}  // namespace

std::int64_t saturatingSum(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

std::int64_t ActivitySummary::workTokens() const noexcept {
    return saturatingSum(inputTokens, outputTokens);
}

std::int64_t ActivitySummary::totalTokens() const noexcept {
    return saturatingSum(workTokens(), cacheTokens);
}

std::string compactTokenCount(std::int64_t n) {
    const double value = static_cast<double>(n);
    if (n < 1000) return std::to_string(n);
    if (n < 10000) return formatted("%.1fk", value / 1000);
    if (n < 1000000) return formatted("%.0fk", value / 1000);
    if (n < 10000000) return formatted("%.1fM", value / 1000000);
    if (n < 1000000000) return formatted("%.0fM", value / 1000000);
    if (n < 10000000000) return formatted("%.1fB", value / 1000000000);
    return formatted("%.0fB", value / 1000000000);
}

std::string ActivitySummary::summary() const {
    std::string line = compactTokenCount(workTokens()) + " tokens \u00b7 " + std::to_string(sessions) + " session";
    if (sessions != 1) line += "s";
    if (cacheTokens >= 1) line += " (+" + compactTokenCount(cacheTokens) + " cached)";
    return line;
}

nlohmann::json ActivitySummary::toJSON() const {
    // Whole seconds are written without a fraction ("18000", not "18000.0").
    nlohmann::json seconds = window;
    if (std::trunc(window) == window && std::fabs(window) < 9e15) seconds = static_cast<std::int64_t>(window);
    return nlohmann::json{{"tool", std::string(toolkind::rawValue(tool))},
                          {"window", seconds},
                          {"sessions", sessions},
                          {"inputTokens", inputTokens},
                          {"outputTokens", outputTokens},
                          {"cacheTokens", cacheTokens}};
}

ActivitySummary ActivitySummary::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) throw std::invalid_argument("An activity summary must be an object.");
    auto member = [&](const char* key) -> const nlohmann::json& {
        auto found = json.find(key);
        if (found == json.end()) throw std::invalid_argument(std::string("The key \"") + key + "\" is missing.");
        return *found;
    };
    auto integer = [&](const char* key) {
        const nlohmann::json& value = member(key);
        if (!value.is_number_integer()) throw std::invalid_argument(std::string("\"") + key + "\" must be an integer.");
        return value.get<std::int64_t>();
    };
    const nlohmann::json& tool = member("tool");
    auto kind = tool.is_string() ? toolkind::fromRawValue(tool.get<std::string>()) : std::nullopt;
    if (!kind) throw std::invalid_argument("\"tool\" must be one of the tools' raw values.");
    const nlohmann::json& window = member("window");
    if (!window.is_number()) throw std::invalid_argument("\"window\" must be a number.");
    return ActivitySummary{*kind,           window.get<double>(),  integer("sessions"),
                           integer("inputTokens"), integer("outputTokens"), integer("cacheTokens")};
}

}  // namespace veerline
