#pragma once

// Questions about the parser's tree of commands, asked at run time so that every command added
// to it is covered: by completion and by the hints of usage errors.

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace veerline::cli {

// The commands below `command` that its help lists.
std::vector<const CLI::App*> visibleSubcommands(const CLI::App& command);

// The command as typed from the start: "veerline profile add".
std::string commandLine(const CLI::App& command);

// The deepest command the parser reached in `app`; `app` itself when none.
const CLI::App* chosenCommand(const CLI::App& app);

// The option of `command` that a word such as "--color", "--color=blue" or "-y" names, or null.
const CLI::Option* optionNamedBy(const CLI::App& command, std::string_view word);

// Whether the option takes a value (the next word unless written "--name=value").
bool takesValue(const CLI::Option& option);

// The positional arguments of `command`, in order.
std::vector<const CLI::Option*> positionalsOf(const CLI::App& command);

// Whether the positional takes all the words left.
bool takesManyWords(const CLI::Option& positional);

}  // namespace veerline::cli
