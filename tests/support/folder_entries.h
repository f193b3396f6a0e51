#pragma once

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

namespace veerline::testing {

// The names in `folder`, sorted, without "." and ".."; empty when it can't be read.
inline std::vector<std::string> entriesOf(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace veerline::testing
