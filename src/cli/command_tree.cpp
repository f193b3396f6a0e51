#include "cli/command_tree.h"

#include <CLI/CLI.hpp>

namespace veerline::cli {

std::vector<const CLI::App*> visibleSubcommands(const CLI::App& command) {
    // An empty group is how a command is hidden from help.
    return command.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); });
}

std::string commandLine(const CLI::App& command) {
    std::string line = command.get_name();
    for (const CLI::App* parent = command.get_parent(); parent != nullptr; parent = parent->get_parent()) {
        line = parent->get_name() + " " + line;
    }
    return line;
}

const CLI::App* chosenCommand(const CLI::App& app) {
    const CLI::App* command = &app;
    for (;;) {
        auto parsed = command->get_subcommands();
        if (parsed.empty()) return command;
        command = parsed.back();
    }
}

const CLI::Option* optionNamedBy(const CLI::App& command, std::string_view word) {
    if (!word.starts_with('-') || word == "-" || word == "--") return nullptr;
    std::string name(word.substr(0, word.find('=')));
    for (const CLI::Option* option : command.get_options()) {
        if (!option->nonpositional()) continue;
        bool matches = name.starts_with("--") ? option->check_lname(name.substr(2))
                                              : name.size() == 2 && option->check_sname(name.substr(1));
        if (matches) return option;
    }
    return nullptr;
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::vector<const CLI::Option*> positionalsOf(const CLI::App& command) {
    return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

bool takesManyWords(const CLI::Option& positional) {
    return positional.get_items_expected_max() > 1;
}

}  // namespace veerline::cli
