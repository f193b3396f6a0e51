#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace veerline::testing {

// The names in `folder`, sorted; empty when it can't be read.
inline std::vector<std::string> entriesOf(const std::string& folder) {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) names.insert(entry.path().filename());
    return {names.begin(), names.end()};
}

}  // namespace veerline::testing
