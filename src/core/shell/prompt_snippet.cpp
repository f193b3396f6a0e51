#include "shell/shell_integration.h"

namespace veerline {

namespace {

// The shell expands $HOME when the snippet runs, so the text never names a fixed home folder.
constexpr std::string_view resolverPath = "$HOME/.veerline/libexec/veerline-resolve";

constexpr std::string_view updateTail = "\" --prompt 2>/dev/null)\"; }";

constexpr std::string_view zshHead =
    "# Veerline: show this folder's profile in your prompt, and export VEERLINE_PROFILE\n"
    "# for themes. Add to ~/.zshrc after your theme or oh-my-zsh is loaded.\n"
    "_veerline_update() { export VEERLINE_PROFILE=\"$(\"";

// zsh expands % sequences in the prompt after substituting the name: a "%" in a name is doubled.
constexpr std::string_view zshTail =
    "\n"
    "autoload -Uz add-zsh-hook && add-zsh-hook chpwd _veerline_update && _veerline_update\n"
    "setopt PROMPT_SUBST\n"
    "RPROMPT='${VEERLINE_PROFILE:+[${VEERLINE_PROFILE//\\%/%%}]}'\"$RPROMPT\"";

constexpr std::string_view bashHead =
    "# Veerline: show this folder's profile in your prompt. Add to ~/.bashrc.\n"
    "_veerline_update() { export VEERLINE_PROFILE=\"$(\"";

constexpr std::string_view bashTail =
    "\n"
    "PROMPT_COMMAND=\"_veerline_update${PROMPT_COMMAND:+; $PROMPT_COMMAND}\"\n"
    "PS1='${VEERLINE_PROFILE:+[$VEERLINE_PROFILE] }'\"$PS1\"";

constexpr std::string_view starship =
    "# Veerline: add to ~/.config/starship.toml\n"
    "[custom.veerline]\n"
    "command = \"~/.veerline/libexec/veerline-resolve --prompt\"\n"
    "when = \"test -x ~/.veerline/libexec/veerline-resolve\"\n"
    "format = \"[$output]($style) \"\n"
    "style = \"bold blue\"";

std::string assembled(std::string_view head, std::string_view tail) {
    std::string text;
    text.append(head).append(resolverPath).append(updateTail).append(tail);
    return text;
}

}  // namespace

std::optional<std::string> ShellIntegration::promptSnippet(std::string_view name) {
    if (name == "zsh" || name == "oh-my-zsh") return assembled(zshHead, zshTail);
    if (name == "bash") return assembled(bashHead, bashTail);
    if (name == "starship") return std::string(starship);
    return std::nullopt;
}

}  // namespace veerline
