#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace veerline::sharing {

// A profile's Codex config.toml with the shared MCP servers in a block of Veerline's own at its
// end, between two marker lines; everything outside the block stays as the user or Veerline wrote it.
struct CodexConfig {
    static constexpr std::string_view blockStart =
        "# >>> veerline share: MCP servers of the shared setup, rewritten by `veerline share sync` >>>";
    static constexpr std::string_view blockEnd = "# <<< veerline share <<<";

    // The text without the block; the line break put before the block is taken off again when
    // `lineBreakAdded`.
    static std::string withoutBlock(std::string_view text, bool lineBreakAdded);
    // `ownText` (no block in it) with a block holding each [mcp_servers.NAME] table of
    // `sourceText` that `ownText` doesn't define itself; their names go to `servers`, and
    // `lineBreakAdded` says whether a line break had to go before the block. Throws
    // VeerlineError::io naming `sourcePath` or `ownPath` when either isn't TOML, or when the
    // result wouldn't be.
    static std::string withSharedServers(const std::string& ownText, const std::string& ownPath,
                                         const std::string& sourceText, const std::string& sourcePath,
                                         std::vector<std::string>& servers, bool& lineBreakAdded);
};

}  // namespace veerline::sharing
