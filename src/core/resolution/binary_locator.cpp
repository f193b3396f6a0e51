#include "resolution/binary_locator.h"

#include <algorithm>

namespace veerline {

namespace {

// The identities of the folders of both lists, each distinct spelling looked up once (the shim's
// own folder is often listed twice); folders that do not exist have none.
std::vector<FileIdentity> identitiesOf(const std::vector<std::string>& first, const std::vector<std::string>& second) {
    std::vector<std::string_view> asked;
    std::vector<FileIdentity> identities;
    for (const std::vector<std::string>* list : {&first, &second}) {
        for (const std::string& folder : *list) {
            if (std::find(asked.begin(), asked.end(), folder) != asked.end()) continue;
            asked.push_back(folder);
            if (auto identity = FileIdentity::of(folder)) identities.push_back(*identity);
        }
    }
    return identities;
}

}  // namespace

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
    // Each excluded folder as written (normalised), and the folder it really is on disk, so that
    // a link to the shim folder or another spelling of it is skipped too. Folders on disk are
    // compared by device and inode, looked up only once a candidate turns up.
    std::vector<std::string> skip;
    for (const auto& folder : excluded) skip.push_back(PathUtil::normalize(folder));
    std::optional<std::vector<FileIdentity>> skipIdentities;
    auto identityExcluded = [&](const std::string& folder) {
        if (!skipIdentities) skipIdentities = identitiesOf(excluded, skip);
        auto identity = FileIdentity::of(folder);
        return identity &&
               std::find(skipIdentities->begin(), skipIdentities->end(), *identity) != skipIdentities->end();
    };

    std::string_view rest(searchPath);
    while (!rest.empty()) {
        auto colon = rest.find(':');
        std::string entry(rest.substr(0, colon));
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        if (entry.empty() || entry.front() != '/') continue;

        std::string folder = PathUtil::normalize(entry);
        if (std::find(skip.begin(), skip.end(), folder) != skip.end()) continue;
        std::string candidate = folder == "/" ? "/" + name : folder + "/" + name;
        if (!PathUtil::isExecutableFile(candidate)) continue;
        if (!excluded.empty() && identityExcluded(entry)) continue;
        return candidate;
    }
    return std::nullopt;
}

}  // namespace veerline
