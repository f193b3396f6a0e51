// What Veerline hands to shells, run in real bash, zsh, dash and fish: the managed block, the prompt
// snippets (also checked by shellcheck) and `veerline completion`, where Tab offers commands,
// options, profile names and tools.

#include <unistd.h>

#include <gtest/gtest.h>

#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

using Args = std::vector<std::string>;

class ShellScriptsTest : public ::testing::Test {
protected:
    // Spaces and glob characters in the home folder must not confuse the block.
    TempDir root{"veerline-shells"};
    std::string home = root / "h o*me[1]";
    std::string bin = root / "bin";

    void SetUp() override {
        makeDirs(home);
        makeSymlink(VEERLINE_CLI_BINARY, bin + "/veerline");
    }

    // Runs command[0] with the rest as its arguments, in the temporary folder.
    RunResult shell(Args command) const {
        const std::string program = command[0];
        command.erase(command.begin());
        return run(program, command,
                   {{{"HOME", home}, {"PATH", bin + ":" + systemPath() + ":/usr/bin:/bin"}, {"TERM", "dumb"}},
                    root.path(), "", std::nullopt, {}});
    }

    // A file in the temporary folder for a shell to source.
    std::string script(const std::string& name, const std::string& text) const {
        writeFile(root / name, text);
        return root / name;
    }
};

TEST_F(ShellScriptsTest, BlockPutsTheShimFolderFirstExactlyOnceAndShellcheckAcceptsIt) {
    const std::string block = script("block.sh", ShellIntegration::block());
    const std::string test =
        "PATH=$2; . \"$1\"; printf 'once=%s\\n' \"$PATH\"; printf 'left=%s%s\\n' \"${_vl+_vl}\" \"${_vlp+_vlp}\"; "
        ". \"$1\"; printf 'twice=%s\\n' \"$PATH\"";
    const std::string s = home + "/.veerline/bin";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/usr/bin:/bin", s + ":/usr/bin:/bin"},      {s + ":/usr/bin:/bin", s + ":/usr/bin:/bin"},
        {"/usr/bin:" + s + ":/bin", s + ":/usr/bin:/bin"},
        {s + ":/usr/bin:" + s + ":" + s + ":/bin:" + s, s + ":/usr/bin:/bin"},
        {s, s}, {s + ":" + s, s}, {"", s}, {"/usr/bin::/bin", s + ":/usr/bin::/bin"},
        // Look-alikes of the shim folder stay where they are.
        {s + "2:/x" + s + ":" + s + "/:/usr/bin", s + ":" + s + "2:/x" + s + ":" + s + "/:/usr/bin"},
    };
    for (const Args& interpreter :
         {Args{"/bin/bash", "--norc", "--noprofile"}, Args{"/bin/zsh", "-f"}, Args{"/bin/dash"}}) {
        for (const auto& [path, expected] : cases) {
            SCOPED_TRACE(interpreter[0] + " with PATH " + path);
            // PATH is set inside the shell: zsh replaces an empty PATH it inherits with its own default.
            Args command = interpreter;
            command.insert(command.end(), {"-c", test, "sh", block, path});
            RunResult result = shell(command);
            ASSERT_EQ(result.exitCode, 0) << result.err;
            EXPECT_EQ(result.out, "once=" + expected + "\nleft=\ntwice=" + expected + "\n");
            EXPECT_EQ(result.err, "");
        }
    }

    RunResult found = shell({"/bin/sh", "-c", "command -v shellcheck"});
    if (found.exitCode != 0) GTEST_SKIP() << "shellcheck is not installed";
    const std::string snippet = script("snippet.bash", *ShellIntegration::promptSnippet("bash") + "\n");
    // SC2155: the snippet ignores the resolver's exit status on purpose; a failed look-up just
    // shows no profile.
    const std::string shellcheck = found.out.substr(0, found.out.size() - 1);
    for (const Args& check : {Args{shellcheck, "-s", "sh", block}, Args{shellcheck, "-s", "bash", block},
                              Args{shellcheck, "-s", "dash", block},
                              Args{shellcheck, "-s", "bash", "-e", "SC2155", snippet}}) {
        RunResult result = shell(check);
        EXPECT_EQ(result.exitCode, 0) << check[2] << ":\n" << result.out << result.err;
    }
}

TEST_F(ShellScriptsTest, PromptSnippetsShowTheProfileEvenWithPercentSigns) {
    // A stand-in resolver that names the profile after the working folder's last component.
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\n[ \"$1\" = --prompt ] && basename \"$PWD\"\n",
              0755);
    const std::string folder = "R&D 100%";
    makeDirs(root / folder);
    const std::string rootName = root.path().substr(root.path().rfind('/') + 1);
    const std::vector<std::tuple<Args, std::string, std::string>> cases = {
        {{"/bin/bash", "--norc", "--noprofile", "-c",
          "PS1='$ '; PROMPT_COMMAND='echo earlier'; . \"$1\"; cd \"$2\"; eval \"$PROMPT_COMMAND\"; "
          "printf '%s|%s\\n' \"$VEERLINE_PROFILE\" \"${PS1@P}\""},
         "bash", "earlier\n" + folder + "|[" + folder + "] $ \n"},
        {{"/bin/zsh", "-f", "-c",
          "RPROMPT='%%'; . \"$1\"; printf '%s\\n' \"$VEERLINE_PROFILE\"; cd \"$2\"; "
          "printf '%s|' \"$VEERLINE_PROFILE\"; print -rP -- \"$RPROMPT\""},
         "zsh", rootName + "\n" + folder + "|[" + folder + "]%\n"}};
    for (auto [command, name, expected] : cases) {
        const std::string snippet = script("snippet." + name, *ShellIntegration::promptSnippet(name));
        command.insert(command.end(), {name, snippet, folder});
        RunResult result = shell(command);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, expected);
    }
}

TEST_F(ShellScriptsTest, CompletionOffersCommandsOptionsProfilesAndTools) {
    for (const char* name : {"Work", "Bob's Home"}) {
        ASSERT_EQ(shell({bin + "/veerline", "profile", "add", name}).exitCode, 0);
    }
    RunResult bash = shell({"/bin/bash", "--norc", "--noprofile", "-c", R"(
        source <(veerline completion bash) && complete -p veerline
        tab() { COMP_WORDS=("$@"); COMP_CWORD=$(( $# - 1 )); _veerline; printf '<%s>' "${COMPREPLY[@]}"; echo; }
        tab veerline lo; tab veerline login B; tab veerline profile set --co; tab veerline login Work ''
        tab veerline completion z; tab veerline rule add '')"});
    EXPECT_EQ(bash.out, "complete -F _veerline veerline\n<login>\n<Bob\\'s\\ Home>\n<--color>\n<claude><codex>\n<zsh>\n<>\n")
        << bash.err;

    writeFile(home + "/zdot/.zshrc", R"(
        autoload -Uz compinit && compinit -u -d "$ZDOTDIR/.zcompdump"
        source <(veerline completion zsh)
        record() { print -r -- "$BUFFER" >> "$ZDOTDIR/lines"; BUFFER= }
        zle -N record && bindkey '^X' record)");
    // Types each line in an interactive zsh, presses Tab, then ^X, which writes what the line has become.
    RunResult zsh = shell({"/bin/zsh", "-f", "-c", R"(
        zmodload zsh/zpty && export ZDOTDIR=$HOME/zdot && zpty z 'zsh -i'
        for line in 'veerline lo' 'veerline login Wo' 'veerline profile remove Bo' 'veerline login Work co'; do
            zpty -w -n z "$line"$'\t\x18'
        done
        for i in {1..600}; do [[ -f $ZDOTDIR/lines && $(wc -l < $ZDOTDIR/lines) -ge 4 ]] && break; sleep 0.05; done
        zpty -d z; cat $ZDOTDIR/lines)"});
    EXPECT_EQ(zsh.out, "veerline login \nveerline login Work \nveerline profile remove Bob\\'s\\ Home \n"
                       "veerline login Work codex \n")
        << zsh.err;

    if (::access("/usr/bin/fish", X_OK) != 0) GTEST_SKIP() << "fish isn't installed";
    RunResult fish = shell({"/usr/bin/fish", "--no-config", "-c", R"(
        veerline completion fish | source
        complete -C 'veerline pro'; complete -C 'veerline env '; complete -C 'veerline profile add X --tools codex,cha')"});
    EXPECT_EQ(fish.out, "profile\tList, add, rename, change and remove profiles\n"
                        "prompt\tPrint a snippet that shows the profile in your prompt\n"
                        "Bob's Home\nWork\ncodex,chatgpt-app\n")
        << fish.err;
}

}  // namespace
}  // namespace veerline::testing
