#include "base/environment.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

extern "C" char** environ;

namespace veerline {

Environment currentEnvironment() {
    Environment environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* equals = std::strchr(*entry, '=');
        if (equals == nullptr) continue;
        // The first definition wins, as getenv does.
        environment.emplace(std::string(static_cast<const char*>(*entry), equals), std::string(equals + 1));
    }
    return environment;
}

Environment currentEnvironment(const std::vector<std::string>& names) {
    Environment environment;
    for (const auto& name : names) {
        if (const char* value = std::getenv(name.c_str())) environment.emplace(name, value);
    }
    return environment;
}

ChildEnvironment::ChildEnvironment(char** source, const std::vector<std::string>& replaced,
                                   const Environment& added) {
    std::vector<std::string_view> dropped(replaced.begin(), replaced.end());
    for (const auto& entry : added) dropped.emplace_back(entry.first);
    std::size_t count = 0;
    while (source != nullptr && source[count] != nullptr) ++count;

    std::vector<std::pair<std::string_view, std::size_t>> names;  // each entry's name and place
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const char* equals = std::strchr(source[i], '=');
        if (equals == nullptr) continue;
        std::string_view name(source[i], static_cast<std::size_t>(equals - source[i]));
        if (std::find(dropped.begin(), dropped.end(), name) == dropped.end()) names.emplace_back(name, i);
    }
    // Sorted by name, then place: every entry after the first of its name is a repeat.
    std::vector<std::pair<std::string_view, std::size_t>> sorted;  // (name, position in `names`)
    sorted.reserve(names.size());
    for (std::size_t k = 0; k < names.size(); ++k) sorted.emplace_back(names[k].first, k);
    std::sort(sorted.begin(), sorted.end());
    std::vector<bool> repeat(names.size(), false);
    for (std::size_t k = 1; k < sorted.size(); ++k) {
        if (sorted[k].first == sorted[k - 1].first) repeat[sorted[k].second] = true;
    }

    entries_.reserve(names.size() + added.size() + 1);
    for (std::size_t k = 0; k < names.size(); ++k) {
        if (!repeat[k]) entries_.push_back(source[names[k].second]);
    }
    added_.reserve(added.size());
    for (const auto& [name, value] : added) {
        std::string& entry = added_.emplace_back();
        entry.reserve(name.size() + 1 + value.size());
        entry.append(name).append(1, '=').append(value);
        entries_.push_back(entry.data());
    }
    entries_.push_back(nullptr);
}

}  // namespace veerline
