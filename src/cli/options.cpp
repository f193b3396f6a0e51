#include "cli/options.h"

#include "cli/cli.h"
#include "cli/output.h"
#include "base/unicode.h"

namespace veerline::cli {

namespace {

const char* const kToolWords =
    "claude-code, codex, claude-desktop or chatgpt-app (or the short words claude, code, desktop, chatgpt, codex-app)";

}  // namespace

ProfileColor parseColor(const std::string& text) {
    if (auto color = profilecolor::fromRawValue(unicode::lowercased(unicode::trimmed(text)))) return *color;
    throw UsageError(curlyQuoted(text) + " isn't a colour. Use blue, green, orange, purple, pink or graphite.");
}

Profile::Storage parseStorage(const std::string& text) {
    if (auto storage = Profile::storageFromRawValue(unicode::lowercased(unicode::trimmed(text)))) return *storage;
    throw UsageError(curlyQuoted(text) +
                     " isn't a storage kind. Use managed (a data folder of the profile's own) or system "
                     "(the tools' default setup).");
}

ToolKind parseTool(const std::string& text) {
    if (auto tool = toolkind::fromArgument(unicode::trimmed(text))) return *tool;
    throw UsageError(curlyQuoted(text) + " isn't a tool. Use " + kToolWords + ".");
}

std::vector<ToolKind> parseTools(const std::string& text) {
    std::vector<ToolKind> tools;
    std::string trimmedText = unicode::trimmed(text);
    if (trimmedText.empty() || unicode::lowercased(trimmedText) == "none") return tools;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        std::string word = unicode::trimmed(text.substr(start, comma - start));
        if (!word.empty()) tools.push_back(parseTool(word));
        start = comma + 1;
    }
    return tools;
}

std::string describeTools(const std::vector<ToolKind>& tools) {
    if (tools.empty()) return "none";
    if (tools.size() == toolkind::allCases.size()) return "all";
    std::string text;
    for (ToolKind tool : tools) {
        if (!text.empty()) text += ", ";
        text += toolkind::rawValue(tool);
    }
    return text;
}

}  // namespace veerline::cli
