#pragma once

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace veerline::testing {

// The names in `folder`, sorted; empty when it can't be read.
inline std::vector<std::string> entriesOf(const std::string& folder) {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) names.insert(entry.path().filename());
    return {names.begin(), names.end()};
}

// Every entry below `root` by its path from there, links not followed: a link as "-> target", a
// folder as "/", a regular file as its bytes, anything else (a pipe) as its type's number.
inline std::map<std::string, std::string> treeOf(const std::string& root) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const fs::file_type type = entry.symlink_status().type();
        entries[entry.path().lexically_relative(root).string()] =
            type == fs::file_type::symlink     ? "-> " + fs::read_symlink(entry.path()).string()
            : type == fs::file_type::directory ? "/"
            : type == fs::file_type::regular   ? readFile(entry.path())
                                               : std::to_string(int(type));
    }
    return entries;
}

}  // namespace veerline::testing
