// `veerline completion SHELL`: a script that teaches bash, zsh or fish to complete veerline's
// words. The script asks `veerline __complete` at each press of Tab, which walks the parser's own
// tree of commands, so every command and option is offered as soon as it exists, and profile
// names come from the profiles file as it is then.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <optional>

#include "cli/cli.h"
#include "cli/command_tree.h"
#include "profiles/profile_store.h"

namespace veerline::cli {

namespace {

// Exit status of `__complete` meaning "complete file names here", for slots that take a path
// or another program's words.
constexpr int kCompletePaths = 3;

struct Candidate {
    std::string word;
    std::string description;
};

const char* const kBashScript = R"(# bash completion for veerline. Load it with:  source <(veerline completion bash)
_veerline() {
    local cur=${COMP_WORDS[COMP_CWORD]} output line
    COMPREPLY=()
    output=$(command veerline __complete -- "${COMP_WORDS[@]:1:COMP_CWORD-1}" "$cur" 2>/dev/null)
    if [[ $? -eq 3 ]]; then
        compopt -o default 2>/dev/null
        return
    fi
    # Compared as typed without its quoting; offered quoted, for names with spaces or quotes.
    cur=${cur//\\/}
    cur=${cur#[\"\']}
    while IFS= read -r line; do
        line=${line%%$'\t'*}
        [[ -n $line && $line == "$cur"* ]] && printf -v line '%q' "$line" && COMPREPLY+=("$line")
    done <<< "$output"
}
complete -F _veerline veerline
)";

const char* const kZshScript = R"(#compdef veerline
# zsh completion for veerline. Load it after compinit with:  source <(veerline completion zsh)
_veerline() {
    local -a described plain
    local output line answer
    output=$(command veerline __complete -- "${(@Q)words[2,CURRENT-1]}" "${(Q)words[CURRENT]}" 2>/dev/null)
    answer=$?
    if (( answer == 3 )); then
        _files
        return
    fi
    for line in "${(@f)output}"; do
        [[ -z $line ]] && continue
        if [[ $line == *$'\t'* ]]; then
            described+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}")
        else
            plain+=("$line")
        fi
    done
    local ret=1
    (( ${#described} )) && _describe -t veerline 'veerline' described && ret=0
    (( ${#plain} )) && compadd -a plain && ret=0
    return ret
}
if [[ $funcstack[1] == _veerline ]]; then
    _veerline "$@"
else
    compdef _veerline veerline
fi
)";

const char* const kFishScript = R"(# fish completion for veerline. Load it with:  veerline completion fish | source
function __veerline_complete
    set -l words (commandline -opc)
    set -e words[1]
    set -l current (commandline -ct)
    set -l output (command veerline __complete -- $words $current 2>/dev/null)
    if test $status -eq 3
        __fish_complete_path $current
        return
    end
    printf '%s\n' $output
end
complete -c veerline -f -a '(__veerline_complete)'
)";

std::string lowercase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The values a CLI::IsMember check accepts, which it describes as "{a,b,c}".
std::vector<std::string> choicesOf(const CLI::Option& option) {
    std::vector<std::string> choices;
    auto* validator = const_cast<CLI::Option&>(option).get_validator();
    std::string text = validator != nullptr ? validator->get_description() : "";
    if (text.size() < 2 || text.front() != '{' || text.back() != '}') return choices;
    std::size_t start = 1;
    while (start < text.size()) {
        std::size_t end = text.find_first_of(",}", start);
        if (end > start) choices.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return choices;
}

// What a slot takes, said by the name of its option or positional (or its type name): a
// profile, a tool or list of tools, a colour, a storage kind, a folder, or one of fixed choices.
std::optional<std::vector<Candidate>> valuesFor(const CLI::Option& option, const std::string& current,
                                                const Context& context) {
    std::string name = lowercase(option.get_single_name());
    std::string type = lowercase(option.get_type_name());
    std::vector<Candidate> values;
    if (name == "profile" || type == "profile") {
        try {
            for (const auto& profile : ProfileStore(context.paths).load().profiles) values.push_back({profile.name, ""});
        } catch (const std::exception&) {
            // Without a readable profiles file there is nothing to offer.
        }
    } else if (name == "tool") {
        values = {{"claude", "Claude Code"}, {"codex", "Codex"}};
    } else if (name == "tools") {
        // A comma-separated list: complete its last item.
        std::string head = current.substr(0, current.rfind(',') == std::string::npos ? 0 : current.rfind(',') + 1);
        for (ToolKind kind : toolkind::allCases) {
            std::string raw(toolkind::rawValue(kind));
            if (("," + head).find("," + raw + ",") == std::string::npos) values.push_back({head + raw, ""});
        }
        if (head.empty()) values.push_back({"none", ""});
    } else if (name == "color" || name == "colour") {
        for (ProfileColor color : profilecolor::allCases) values.push_back({std::string(profilecolor::rawValue(color)), ""});
    } else if (name == "storage") {
        values = {{"managed", "A data folder of the profile's own"}, {"system", "The tools' default setup"}};
    } else if (name == "folder" || name == "path" || type == "folder") {
        return std::nullopt;
    } else {
        for (auto& choice : choicesOf(option)) values.push_back({choice, ""});
    }
    return values;
}

// The candidates for the last of `words`, typed after "veerline" and the earlier words; nothing
// when file names should be offered instead.
std::optional<std::vector<Candidate>> complete(const CLI::App& app, const Context& context,
                                               const std::vector<std::string>& words) {
    const CLI::App* command = &app;
    const CLI::Option* pendingValue = nullptr;
    std::size_t positional = 0;
    bool afterDashDash = false;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        if (pendingValue != nullptr) {
            pendingValue = nullptr;
        } else if (afterDashDash) {
            ++positional;
        } else if (word == "--") {
            afterDashDash = true;
        } else if (word.size() > 1 && word.starts_with('-')) {
            const CLI::Option* option = optionNamedBy(*command, word);
            if (option != nullptr && takesValue(*option) && word.find('=') == std::string::npos) pendingValue = option;
        } else {
            const CLI::App* sub = nullptr;
            if (positional == 0) {
                for (const CLI::App* candidate : visibleSubcommands(*command)) {
                    if (candidate->check_name(word)) sub = candidate;
                }
            }
            if (sub != nullptr) {
                command = sub;
            } else {
                ++positional;
            }
        }
    }

    const std::string current = words.empty() ? "" : words.back();
    if (pendingValue != nullptr) return valuesFor(*pendingValue, current, context);
    // What follows "--" belongs to another program.
    if (afterDashDash) return std::nullopt;

    std::vector<Candidate> candidates;
    if (current.starts_with('-')) {
        for (const CLI::Option* option : command->get_options()) {
            if (!option->nonpositional() || option->get_group().empty()) continue;
            for (const auto& name : option->get_lnames()) candidates.push_back({"--" + name, option->get_description()});
        }
        return candidates;
    }
    if (positional == 0) {
        for (const CLI::App* sub : visibleSubcommands(*command)) {
            candidates.push_back({sub->get_name(), sub->get_description()});
        }
    }
    auto positionals = positionalsOf(*command);
    if (!positionals.empty()) {
        const CLI::Option* slot = positional < positionals.size()      ? positionals[positional]
                                  : takesManyWords(*positionals.back()) ? positionals.back()
                                                                        : nullptr;
        if (slot != nullptr) {
            auto values = valuesFor(*slot, current, context);
            if (!values) return std::nullopt;
            candidates.insert(candidates.end(), values->begin(), values->end());
        }
    }
    return candidates;
}

}  // namespace

void addCompletionCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto shell = std::make_shared<std::string>();
    CLI::App* completion = app.add_subcommand("completion", "Print a script that completes veerline's words in a shell");
    completion->add_option("shell", *shell, "bash, zsh or fish")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));
    completion->footer("Load it in bash with: source <(veerline completion bash)\n"
                       "zsh, after compinit: source <(veerline completion zsh)\n"
                       "fish: veerline completion fish > ~/.config/fish/completions/veerline.fish");
    onSelected(completion, chosen, [shell] {
        std::cout << (*shell == "bash" ? kBashScript : *shell == "zsh" ? kZshScript : kFishScript);
        return 0;
    });

    // Asked by those scripts: "veerline __complete -- WORDS... CURRENT".
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* helper = app.add_subcommand("__complete", "")->group("");
    helper->add_option("words", *words, "");
    onSelected(helper, chosen, [&app, &context, words] {
        auto candidates = complete(app, context, *words);
        if (!candidates) return kCompletePaths;
        for (const auto& [word, description] : *candidates) {
            std::cout << word;
            if (!description.empty()) {
                std::string oneLine = description;
                std::replace(oneLine.begin(), oneLine.end(), '\n', ' ');
                std::cout << "\t" << oneLine;
            }
            std::cout << "\n";
        }
        return 0;
    });
}

}  // namespace veerline::cli
