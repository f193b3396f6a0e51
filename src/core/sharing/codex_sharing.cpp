#include "sharing/codex_sharing.h"

#include <sstream>

#include <toml++/toml.h>

#include "base/error.h"

namespace veerline::sharing {

namespace {

toml::table parsed(const std::string& text, const std::string& path) {
    try {
        return toml::parse(text, path);
    } catch (const toml::parse_error& error) {
        throw VeerlineError::io("Couldn't read " + path + ": it isn't valid TOML (line " +
                                std::to_string(error.source().begin.line) + ": " + std::string(error.description()) +
                                ").");
    }
}

// Where the line equal to `line` starts, from `from` on; npos when there is none.
std::size_t findLine(std::string_view text, std::string_view line, std::size_t from = 0) {
    for (std::size_t at = text.find(line, from); at != std::string_view::npos; at = text.find(line, at + 1)) {
        bool starts = at == 0 || text[at - 1] == '\n';
        std::size_t after = at + line.size();
        if (starts && (after == text.size() || text[after] == '\n' || text[after] == '\r')) return at;
    }
    return std::string_view::npos;
}

}  // namespace

std::string CodexConfig::withoutBlock(std::string_view text, bool lineBreakAdded) {
    std::size_t start = findLine(text, blockStart);
    if (start == std::string_view::npos) return std::string(text);
    std::size_t end = findLine(text, blockEnd, start);
    std::size_t after = end == std::string_view::npos ? text.size() : text.find('\n', end);
    after = after == std::string_view::npos ? text.size() : after + 1;
    std::string before(text.substr(0, start));
    if (lineBreakAdded && before.ends_with('\n')) before.pop_back();
    return before + std::string(text.substr(after));
}

std::string CodexConfig::withSharedServers(const std::string& ownText, const std::string& ownPath,
                                           const std::string& sourceText, const std::string& sourcePath,
                                           std::vector<std::string>& servers, bool& lineBreakAdded) {
    servers.clear();
    lineBreakAdded = false;
    toml::table source = parsed(sourceText, sourcePath);
    toml::table own = parsed(ownText, ownPath);
    const toml::table* offered = source["mcp_servers"].as_table();
    const toml::table* defined = own["mcp_servers"].as_table();
    toml::table shared;
    if (offered) {
        for (const auto& [name, server] : *offered) {
            if (!server.is_table() || (defined && defined->contains(name.str()))) continue;
            shared.insert(name, server);
            servers.emplace_back(name.str());
        }
    }
    if (shared.empty()) return ownText;
    std::ostringstream block;
    block << toml::toml_formatter(toml::table{{"mcp_servers", std::move(shared)}});
    lineBreakAdded = !ownText.empty() && !ownText.ends_with('\n');
    std::string merged = ownText + (lineBreakAdded ? "\n" : "") + std::string(blockStart) + "\n" + block.str() + "\n" +
                         std::string(blockEnd) + "\n";
    try {
        (void)toml::parse(merged, ownPath);
    } catch (const toml::parse_error& error) {
        throw VeerlineError::io("Couldn't add the shared MCP servers to " + ownPath + ": its own text doesn't allow " +
                                "them (" + std::string(error.description()) + ").");
    }
    return merged;
}

}  // namespace veerline::sharing
