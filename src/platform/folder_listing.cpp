#include <algorithm>

#include "platform/platform.h"

namespace veerline::platform {

FolderListing::FolderListing(std::unique_ptr<char[]> storage, std::vector<std::pair<std::string_view, Kind>> entries)
    : storage_(std::move(storage)), entries_(std::move(entries)) {
    std::sort(entries_.begin(), entries_.end());
}

FolderListing::Kind FolderListing::find(std::string_view name) const {
    auto found = std::lower_bound(entries_.begin(), entries_.end(), name,
                                  [](const auto& entry, std::string_view wanted) { return entry.first < wanted; });
    return found != entries_.end() && found->first == name ? found->second : Kind::missing;
}

}  // namespace veerline::platform
