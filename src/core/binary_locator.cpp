#include "core/binary_locator.h"

#include <algorithm>

namespace veerline {

BinaryLocator::BinaryLocator(const Environment& environment, const Paths& paths)
    : searchPath(lookup(environment, "PATH") ? *lookup(environment, "PATH")
                                             : "/usr/bin:/bin:/usr/sbin:/sbin"),
      excludedDirectories{paths.home + "/.veerline/bin"} {}

std::optional<std::string> BinaryLocator::find(const std::string& name) const {
    return search(name, excludedDirectories);
}

std::optional<std::string> BinaryLocator::findIncludingExcluded(const std::string& name) const {
    return search(name, {});
}

std::optional<std::string> BinaryLocator::search(const std::string& name,
                                                 const std::vector<std::string>& excluded) const {
    // Each excluded folder as written (normalised) and as it really is on disk, so that a link
    // to the shim folder or another spelling of it is skipped too.
    std::vector<std::string> skip;
    for (const auto& folder : excluded) {
        skip.push_back(PathUtil::normalize(folder));
        if (auto real = PathUtil::realPath(folder)) skip.push_back(std::move(*real));
    }
    auto skipped = [&skip](const std::string& folder) {
        return std::find(skip.begin(), skip.end(), folder) != skip.end();
    };

    std::string_view rest(searchPath);
    while (!rest.empty()) {
        auto colon = rest.find(':');
        std::string entry(rest.substr(0, colon));
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        if (entry.empty() || entry.front() != '/') continue;

        std::string folder = PathUtil::normalize(entry);
        if (skipped(folder)) continue;
        if (!skip.empty()) {
            if (auto real = PathUtil::realPath(entry); real && skipped(*real)) continue;
        }
        std::string candidate = folder == "/" ? "/" + name : folder + "/" + name;
        if (PathUtil::isExecutableFile(candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace veerline
