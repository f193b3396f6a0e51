#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/environment.h"
#include "base/paths.h"

namespace veerline {

// Finds a tool's real executable along a search path, skipping given folders (the shim folder
// above all, so that a shim never finds itself).
struct BinaryLocator {
    std::string searchPath;
    std::vector<std::string> excludedDirectories;

    BinaryLocator(std::string path, std::vector<std::string> excluding)
        : searchPath(std::move(path)), excludedDirectories(std::move(excluding)) {}
    BinaryLocator(const Environment& environment, const Paths& paths);

    std::optional<std::string> find(const std::string& name) const;
    std::optional<std::string> findIncludingExcluded(const std::string& name) const;

private:
    std::optional<std::string> search(const std::string& name,
                                      const std::vector<std::string>& excluded) const;
};

}  // namespace veerline
