// What `veerline` says about a command typed wrongly.

#include <CLI/CLI.hpp>

#include <optional>

#include "cli/cli.h"
#include "cli/command_tree.h"
#include "shell/shell_quote.h"

namespace veerline::cli {

namespace {

// For a command whose last positional takes another program's words (`run`, `login`): where
// the words typed hold an option of neither, the same words with "--" before that program's
// part.
std::optional<std::string> withDashDash(const CLI::App& command, const std::vector<std::string>& words) {
    auto positionals = positionalsOf(command);
    if (positionals.empty() || !takesManyWords(*positionals.back())) return std::nullopt;
    std::size_t fixed = positionals.size() - 1;

    // The command's own name, after the names of the groups above it.
    std::vector<std::string> path;
    for (const CLI::App* at = &command; at->get_parent() != nullptr; at = at->get_parent()) {
        path.insert(path.begin(), at->get_name());
    }
    std::size_t index = 0;
    for (const auto& name : path) {
        while (index < words.size() && words[index] != name) ++index;
        if (index == words.size()) return std::nullopt;
        ++index;
    }

    std::optional<std::size_t> insertAt;
    bool strayOption = false;
    std::size_t counted = 0;
    for (; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "--") return std::nullopt;
        if (const CLI::Option* option = optionNamedBy(command, word)) {
            if (takesValue(*option) && word.find('=') == std::string::npos) ++index;
            continue;
        }
        bool isOption = word.starts_with('-') && word.size() > 1;
        if (counted < fixed && !isOption) {
            ++counted;
            continue;
        }
        if (!insertAt) insertAt = index;
        strayOption = strayOption || isOption;
    }
    if (!insertAt || !strayOption) return std::nullopt;
    // A required command must come first; an option alone can't stand in for it.
    if (positionals.back()->get_required() && words[*insertAt].starts_with('-')) return std::nullopt;

    std::string line = "veerline";
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i == *insertAt) line += " --";
        line += " " + ShellQuote::quote(words[i]);
    }
    return line;
}

}  // namespace

std::string usageErrorReport(const CLI::App& app, const std::string& message, const std::vector<std::string>& words) {
    const CLI::App* command = chosenCommand(app);
    std::string report = "veerline: " + message + "\n";
    if (auto corrected = withDashDash(*command, words)) {
        report += "Options for the other program go after `--`: " + *corrected + "\n";
    }
    return report + "Run `" + commandLine(*command) + " --help` for usage.\n";
}

}  // namespace veerline::cli
