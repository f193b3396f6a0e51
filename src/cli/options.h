#pragma once

// Turning option values the user typed into the library's types. A bad value is a UsageError
// that lists what would have been accepted.

#include <string>
#include <vector>

#include "profiles/profile.h"

namespace veerline::cli {

ProfileColor parseColor(const std::string& text);
Profile::Storage parseStorage(const std::string& text);
// Comma-separated tool words ("claude, codex", "desktop"); "" or "none" is no tool at all.
std::vector<ToolKind> parseTools(const std::string& text);
// One tool word.
ToolKind parseTool(const std::string& text);

// Tools as their raw values joined by ", "; "all" for every tool and "none" for no tool.
std::string describeTools(const std::vector<ToolKind>& tools);

}  // namespace veerline::cli
