#include "cli/man_page.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <memory>

#include "base/unicode.h"
#include "build_info.h"
#include "cli/command_tree.h"

namespace veerline::cli {

namespace {

// Text for the page as it reads: backslashes escaped, anything beyond ASCII named by its code
// point (so that no troff sees a byte it cannot place), and every line kept from starting a
// request. With `code`, hyphens are minus signs, as option names need to be to copy and paste.
std::string troff(std::string_view text, bool code = false) {
    std::string out;
    bool lineStart = true;
    for (char32_t c : unicode::decode(text)) {
        if (lineStart && (c == '.' || c == '\'')) out += "\\&";
        lineStart = c == '\n';
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-' && code) {
            out += "\\-";
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            char name[16];
            std::snprintf(name, sizeof name, "\\[u%04X]", static_cast<unsigned>(c));
            out += name;
        }
    }
    return out;
}

// Running text: a line break in a description or footer starts a new line on the page too.
std::string paragraph(std::string_view text) {
    std::string out = troff(text);
    for (std::size_t at = out.find('\n'); at != std::string::npos; at = out.find('\n', at + 5)) {
        out.replace(at, 1, "\n.br\n");
    }
    return out + "\n";
}

std::string valuePlaceholder(const CLI::Option& option) {
    std::string type = option.get_type_name();
    if (type.empty()) type = "VALUE";
    return option.get_items_expected_min() == 0 ? "[" + type + "]" : type;
}

std::string positionalPlaceholder(const CLI::Option& positional) {
    std::string name = unicode::uppercased(positional.get_name());
    if (takesManyWords(positional)) name += "...";
    return positional.get_required() ? name : "[" + name + "]";
}

// The options `command` shows in its help, without the --help every command has.
std::vector<const CLI::Option*> visibleOptions(const CLI::App& command) {
    return command.get_options([&command](const CLI::Option* option) {
        return option->nonpositional() && !option->get_group().empty() && option != command.get_help_ptr();
    });
}

void writeOptions(std::ostream& out, const CLI::App& command) {
    for (const CLI::Option* positional : positionalsOf(command)) {
        out << ".TP\n\\fI" << troff(positionalPlaceholder(*positional), true) << "\\fR\n"
            << paragraph(positional->get_description());
    }
    for (const CLI::Option* option : visibleOptions(command)) {
        std::string names;
        for (const std::string& name : option->get_snames()) names += (names.empty() ? "\\fB\\-" : ", \\fB\\-") + name + "\\fR";
        for (const std::string& name : option->get_lnames()) {
            names += (names.empty() ? "\\fB" : ", \\fB") + troff("--" + name, true) + "\\fR";
        }
        if (takesValue(*option)) names += " \\fI" + troff(valuePlaceholder(*option), true) + "\\fR";
        std::string description = option->get_description();
        if (!option->get_default_str().empty()) description += " (default: " + option->get_default_str() + ")";
        out << ".TP\n" << names << "\n" << paragraph(description);
    }
}

// One subsection per command, groups before the commands in them, in the order help lists them.
void writeCommand(std::ostream& out, const CLI::App& command) {
    std::string synopsis = commandLine(command);
    auto subcommands = visibleSubcommands(command);
    if (!subcommands.empty()) synopsis += " COMMAND";
    for (const CLI::Option* positional : positionalsOf(command)) synopsis += " " + positionalPlaceholder(*positional);
    if (!visibleOptions(command).empty()) synopsis += " [OPTIONS]";
    out << ".SS \"" << troff(synopsis, true) << "\"\n" << paragraph(command.get_description());
    writeOptions(out, command);
    if (!command.get_footer().empty()) out << ".PP\n" << paragraph(command.get_footer());
    for (const CLI::App* sub : subcommands) writeCommand(out, *sub);
}

const char* const kFilesEnvironmentAndStatus = R"(.SH FILES
.TP
.I ~/Library/Application\ Support/Veerline/profiles.json
The profiles, the folder rules and the terminal default.
Changes to it are serialised by the lock file
.I .profiles.lock
beside it; each profile's data folders are below the same folder, in
.I claude\-code/
and
.IR codex/ .
.TP
.I .veerline
In a project folder: a small text file whose first line that is neither blank nor a
.B #
comment names the profile for that folder and the folders inside it.
.TP
.I ~/.veerline/bin
The shims
.BR claude ,
.B codex
and
.BR veerline ,
put first on
.B PATH
by
.BR "veerline shell install" ;
they lead to the copies in
.IR ~/.veerline/libexec .
The backups of the start\-up files are kept in
.I ~/.veerline/backups
and what the install changed in
.IR ~/.veerline/install.json .
.TP
.IR ~/.zshrc " (or " $ZDOTDIR/.zshrc "), " ~/.bashrc ", " ~/.bash_profile
The start\-up files that hold Veerline's block, between the lines
.B "# >>> veerline >>>"
and
.BR "# <<< veerline <<<" .
.TP
.I $XDG_CACHE_HOME/veerline/usage\-cache.bin
What
.B veerline usage
has already read from the tools' logs
.RI ( ~/.cache/veerline
when
.B XDG_CACHE_HOME
is not set,
.I ~/Library/Caches/Veerline
on macOS); deleting it loses nothing.
.SH ENVIRONMENT
.TP
.B VEERLINE_DISABLE
When
.BR 1 ,
the shims run the tools without choosing a profile.
.TP
.BR VEERLINE_PROFILE ", " VEERLINE_MANAGED_VARS ", " VEERLINE_SHIM_DEPTH
Set by the shim for the tool it starts: the profile in use, the variables it set, and how deep
shims are nested.
.TP
.BR CLAUDE_CONFIG_DIR ", " CODEX_HOME
The tools' data folders. Exported by you, they win: Veerline then leaves that tool alone, and
.B veerline doctor
says so.
.TP
.BR CLAUDE_CODE_OAUTH_TOKEN ", " ANTHROPIC_API_KEY ", " ANTHROPIC_AUTH_TOKEN ", " OPENAI_API_KEY ", " CODEX_API_KEY
Override every profile's sign\-in;
.B veerline doctor
reports them.
.TP
.BR HOME ", " PWD ", " PATH
Where the user's files are, the working folder as the shell names it, and where the real tools
are looked for.
.TP
.BR ZDOTDIR ", " SHELL
Which start\-up files the shell integration changes.
.TP
.BR NO_COLOR ", " TERM
Colour is used only on a terminal, with
.B NO_COLOR
unset or empty and
.B TERM
other than
.BR dumb .
.SH EXIT STATUS
.TP
.B 0
Success.
.TP
.B 1
The work failed; the reason follows
.B "veerline: "
on standard error.
.B veerline doctor
also exits with 1 when a check fails.
.TP
.B 2
The command was typed wrongly.
.SH SEE ALSO
.BR veerline\-resolve (1)
)";

std::string headerLine(std::string_view name) {
    return ".TH " + unicode::uppercased(name) + " 1 \"\" \"Veerline " VEERLINE_VERSION "\" \"User Commands\"\n";
}

void writeVeerlinePage(std::ostream& out, const CLI::App& app) {
    out << headerLine("veerline") << ".SH NAME\n"
        << "veerline \\- keep several accounts of the claude and codex command\\-line tools apart\n"
        << ".SH SYNOPSIS\n.B veerline\n.I COMMAND\n.RI [ OPTIONS ]\n.br\n.B veerline \\-\\-version\n"
        << ".SH DESCRIPTION\n"
        << paragraph(app.get_description())
        << ".PP\nEvery command also takes \\fB\\-h\\fR, \\fB\\-\\-help\\fR, which prints its usage.\n"
        << ".SH OPTIONS\n";
    writeOptions(out, app);
    out << ".SH COMMANDS\n";
    for (const CLI::App* sub : visibleSubcommands(app)) writeCommand(out, *sub);
    out << kFilesEnvironmentAndStatus;
}

const char* const kResolverPage = R"(.SH NAME
veerline\-resolve \- the shim that starts claude and codex with the profile of the working folder
.SH SYNOPSIS
.B claude
.RI [ ARGS ...]
.br
.B codex
.RI [ ARGS ...]
.br
.B veerline\-resolve \-\-prompt
.br
.B veerline\-resolve \-\-version
.SH DESCRIPTION
.B veerline shell install
copies
.B veerline\-resolve
into
.I ~/.veerline/libexec
and links
.B claude
and
.B codex
in
.IR ~/.veerline/bin ,
first on
.BR PATH ,
to it. Started under a tool's name, it works out which profile applies to the working folder
(the deepest folder rule, a
.I .veerline
file inside it, else the terminal default), points the tool at the profile's data folder through
.B CLAUDE_CONFIG_DIR
or
.BR CODEX_HOME ,
unless you exported that variable yourself, and replaces itself with the real tool found further
along
.BR PATH ,
passing the arguments through unchanged.
.SH OPTIONS
.TP
.B \-\-prompt
Print the name of the profile that applies to the working folder, or nothing; for a shell prompt
.RB ( "veerline prompt" ).
.TP
.B \-\-version
Print the version and the commit it was built from.
.SH ENVIRONMENT
.TP
.B VEERLINE_DISABLE
When
.BR 1 ,
the tool runs with the environment unchanged.
.TP
.B VEERLINE_SHIM_DEPTH
How deeply shims are nested; past 3 the shim refuses to run, which ends a loop of shims.
.TP
.BR VEERLINE_PROFILE ", " VEERLINE_MANAGED_VARS
Set for the tool: the profile in use and the variables the shim set.
.SH EXIT STATUS
Under a tool's name, the tool's own. Otherwise:
.TP
.B 0
Success.
.TP
.B 2
Started under its own name without
.B \-\-prompt
or
.BR \-\-version .
.TP
.B 126
The real tool could not be started.
.TP
.B 127
The real tool was not found, or shims were nested too deeply.
.SH SEE ALSO
.BR veerline (1)
)";

}  // namespace

void addManPageCommand(CLI::App& app, const Context&, Action& chosen) {
    auto page = std::make_shared<std::string>("veerline");
    CLI::App* command = app.add_subcommand("help-man", "")->group("");
    command->add_option("page", *page, "")->check(CLI::IsMember({"veerline", "veerline-resolve"}));
    onSelected(command, chosen, [&app, page] {
        if (*page == "veerline") {
            writeVeerlinePage(std::cout, app);
        } else {
            std::cout << headerLine(*page) << kResolverPage;
        }
        return 0;
    });
}

}  // namespace veerline::cli
