#include "core/environment.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

extern char** environ;

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
    // Repeats are found through a hash of each name: sorting numbers is cheap, and only names
    // with equal hashes (nearly always true repeats) are compared. The first of a name stays.
    std::vector<std::pair<std::uint64_t, std::size_t>> hashes;  // (hash, position in `names`)
    hashes.reserve(names.size());
    for (std::size_t k = 0; k < names.size(); ++k) {
        std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
        for (char c : names[k].first) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        hashes.emplace_back(hash, k);
    }
    std::sort(hashes.begin(), hashes.end());
    std::vector<bool> repeat(names.size(), false);
    for (std::size_t run = 0; run < hashes.size();) {
        std::size_t end = run + 1;
        while (end < hashes.size() && hashes[end].first == hashes[run].first) ++end;
        for (std::size_t a = run; a < end; ++a) {
            for (std::size_t b = run; b < a; ++b) {
                if (!repeat[hashes[b].second] && names[hashes[a].second].first == names[hashes[b].second].first) {
                    repeat[hashes[a].second] = true;  // positions sort ascending within a run
                    break;
                }
            }
        }
        run = end;
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
