#include "sharing/codex_sharing.h"

#include <set>
#include <sstream>

#include <toml++/toml.h>

#include "base/error.h"
#include "base/json_input.h"
#include "sharing/sign_in_keys.h"

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

// A server's table as JSON, to compare with and keep in the sharing record; null for anything
// else, which Veerline never writes.
nlohmann::json asJson(const toml::node& node) {
    const toml::table* table = node.as_table();
    if (!table) return nullptr;
    std::ostringstream text;
    text << toml::json_formatter(*table);
    return JsonInput::parse(text.str()).value_or(nullptr);
}

std::string_view trimmed(std::string_view line) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

// The last line that isn't empty, trimmed.
std::string_view lastLine(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    std::size_t start = text.rfind('\n');
    return trimmed(start == std::string_view::npos ? text : text.substr(start + 1));
}

// The name of the server whose table (or subtable) a header line opens: "docs" for
// [mcp_servers.docs] or [mcp_servers.docs.env]; "" for another header; nothing for a line that
// isn't a header (a line of a multi-line array, say).
std::optional<std::string> serverOfHeader(std::string_view line) {
    if (!line.starts_with('[')) return std::nullopt;
    toml::table table;
    try {
        table = toml::parse(std::string(line), std::string_view("header"));
    } catch (const toml::parse_error&) {
        return std::nullopt;
    }
    if (table.size() != 1 || table.cbegin()->first.str() != "mcp_servers") return std::string();
    const toml::table* servers = table.cbegin()->second.as_table();
    if (!servers || servers->size() != 1) return std::string();
    return std::string(servers->cbegin()->first.str());
}

// `text` without the tables of `servers` and without the block's comment lines. Comments and
// blank lines after a table that goes stay with whatever comes next.
std::string withoutServers(std::string_view text, const std::set<std::string>& servers) {
    std::string kept;
    std::string held;
    bool removing = false;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        end = end == std::string_view::npos ? text.size() : end + 1;
        std::string_view line = text.substr(start, end - start);
        start = end;
        std::string_view bare = trimmed(line.ends_with('\n') ? line.substr(0, line.size() - 1) : line);
        if (bare == CodexConfig::blockStart || bare == CodexConfig::blockEnd) continue;
        if (std::optional<std::string> server = serverOfHeader(bare)) {
            bool goes = !server->empty() && servers.contains(*server);
            if (!goes) kept += held;
            held.clear();
            removing = goes;
            if (!removing) kept += line;
            continue;
        }
        if (!removing) {
            kept += line;
        } else if (bare.empty() || bare.starts_with('#')) {
            held += line;
        }
    }
    // What a removed table at the end leaves: its comments stay, its blank lines go.
    std::size_t from = 0;
    while (from < held.size()) {
        std::size_t end = held.find('\n', from);
        end = end == std::string::npos ? held.size() : end + 1;
        std::string_view line(held.data() + from, end - from);
        if (!trimmed(line.substr(0, line.ends_with('\n') ? line.size() - 1 : line.size())).empty()) kept += line;
        from = end;
    }
    return kept;
}

}  // namespace

CodexConfig::Merge CodexConfig::merge(const std::string& text, const std::string& ownPath, bool lineBreakAddedBefore,
                                      const std::string* sourceText, const std::string& sourcePath,
                                      const std::function<bool(const std::string&, const nlohmann::json&)>& isVeerlines) {
    Merge result;
    result.written = nlohmann::ordered_json::object();
    toml::table own = parsed(text, ownPath);
    std::set<std::string> veerlines;
    if (const toml::table* servers = own["mcp_servers"].as_table()) {
        for (const auto& [name, server] : *servers) {
            if (isVeerlines(std::string(name.str()), asJson(server))) veerlines.insert(std::string(name.str()));
        }
    }
    std::string stripped = withoutServers(text, veerlines);
    // The line break put before a block at the end of a file that had none goes with the block.
    if (lineBreakAddedBefore && lastLine(text) == blockEnd && stripped.ends_with('\n')) stripped.pop_back();
    toml::table remaining = parsed(stripped, ownPath);
    toml::table expected = own;
    // An [mcp_servers] left empty is the same as none.
    for (toml::table* table : {&expected, &remaining}) {
        toml::table* servers = (*table)["mcp_servers"].as_table();
        if (!servers) continue;
        if (table == &expected) {
            for (const std::string& name : veerlines) servers->erase(name);
        }
        if (servers->empty()) table->erase("mcp_servers");
    }
    if (remaining != expected) {
        throw VeerlineError::io("Couldn't take the shared MCP servers out of " + ownPath +
                                ": they are no longer written as tables of their own. Move them back under "
                                "[mcp_servers.NAME] headers, then try again.");
    }
    const toml::table* defined = remaining["mcp_servers"].as_table();
    toml::table shared;
    std::set<std::string> offeredNames;
    if (sourceText) {
        toml::table source = parsed(*sourceText, sourcePath);
        if (const toml::table* offered = source["mcp_servers"].as_table()) {
            for (const auto& [name, server] : *offered) {
                if (!server.is_table()) continue;
                offeredNames.insert(std::string(name.str()));
                if (defined && defined->contains(name.str())) continue;
                shared.insert(name, server);
                result.written[std::string(name.str())] = asJson(server);
            }
        }
    }
    if (defined) {
        for (const auto& [name, server] : *defined) {
            if (!offeredNames.contains(std::string(name.str()))) result.ownServers.emplace_back(name.str());
        }
    }
    if (shared.empty()) {
        result.text = std::move(stripped);
        return result;
    }
    std::ostringstream block;
    block << toml::toml_formatter(toml::table{{"mcp_servers", std::move(shared)}});
    result.lineBreakAdded = !stripped.empty() && !stripped.ends_with('\n');
    result.text = stripped + (result.lineBreakAdded ? "\n" : "") + std::string(blockStart) + "\n" + block.str() +
                  "\n" + std::string(blockEnd) + "\n";
    try {
        (void)toml::parse(result.text, ownPath);
    } catch (const toml::parse_error& error) {
        throw VeerlineError::io("Couldn't add the shared MCP servers to " + ownPath + ": its own text doesn't allow " +
                                "them (" + std::string(error.description()) + ").");
    }
    return result;
}

std::vector<std::string> CodexConfig::signInKeys(const std::string& sourceText, const std::string& sourcePath) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : parsed(sourceText, sourcePath)) {
        if (SignInKeys::isCodexSetting(key.str())) keys.emplace_back(key.str());
    }
    return keys;
}

}  // namespace veerline::sharing
