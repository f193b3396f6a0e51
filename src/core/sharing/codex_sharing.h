#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace veerline::sharing {

// A profile's Codex config.toml with the shared MCP servers in it. Which servers Veerline put
// there is known from the sharing record, never from the file: Codex rewrites config.toml (`codex
// mcp add`) and drops comments. The servers Veerline adds go at the end between two comment
// lines, for whoever reads the file.
struct CodexConfig {
    static constexpr std::string_view blockStart =
        "# >>> veerline share: MCP servers of the shared setup, rewritten by `veerline share sync` >>>";
    static constexpr std::string_view blockEnd = "# <<< veerline share <<<";

    struct Merge {
        std::string text;                // the new config.toml
        nlohmann::ordered_json written;  // each server Veerline put in, by name, as JSON
        bool lineBreakAdded = false;     // a line break went before the block
        std::vector<std::string> ownServers;  // servers of this profile that the source lacks
    };

    // `text` (the profile's file, `ownPath` as shown) with the servers Veerline wrote before taken
    // out (a server counts as Veerline's while it equals what `isVeerlines(name, json)` says
    // was written; its table is taken out wherever Codex moved it) and each [mcp_servers.NAME]
    // table of `sourceText` that the profile doesn't define itself added. Without `sourceText`
    // only the taking out happens. Throws VeerlineError::io naming the file that isn't TOML, or
    // whose own text doesn't allow the change.
    static Merge merge(const std::string& text, const std::string& ownPath, bool lineBreakAddedBefore,
                       const std::string* sourceText, const std::string& sourcePath,
                       const std::function<bool(const std::string&, const nlohmann::json&)>& isVeerlines);

    // The top-level keys of the source that sign in or pick an account (never shared).
    static std::vector<std::string> signInKeys(const std::string& sourceText, const std::string& sourcePath);

};

}  // namespace veerline::sharing
