#pragma once

// The manual pages veerline(1) and veerline-resolve(1), written from the parser's own tree of
// commands when Veerline is built, so that the manual lists exactly the commands and options that
// exist.

#include "cli/cli.h"

namespace veerline::cli {

// The hidden `veerline help-man [veerline|veerline-resolve]`, which prints a page in man(7) markup.
// It reads the whole tree, so `app` must hold every group of commands when it runs.
void addManPageCommand(CLI::App& app, const Context& context, Action& chosen);

}  // namespace veerline::cli
