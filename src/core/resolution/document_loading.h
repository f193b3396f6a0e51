#pragma once

#include <optional>

#include "base/environment.h"
#include "base/paths.h"
#include "profiles/profile_document.h"

namespace veerline {

// The profiles document as the resolver sees it: nothing when profile selection is switched off
// (VEERLINE_DISABLE=1, or the app that set the shims up is gone) or the file cannot be loaded.
std::optional<ProfileDocument> loadDocument(const Environment& environment, const Paths& paths) noexcept;

// False only when ~/.veerline/app-path names a path that no longer exists.
bool veerlineStillInstalled(const Paths& paths) noexcept;

}  // namespace veerline
