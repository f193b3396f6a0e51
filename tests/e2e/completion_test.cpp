// `veerline completion` loaded into real bash, zsh and fish: Tab offers commands, options,
// profile names and tools.

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

class CompletionTest : public ::testing::Test {
protected:
    TempDir root{"veerline-completion"};
    std::string home = root / "home";
    std::string bin = root / "bin";

    void SetUp() override {
        makeDirs(home);
        makeSymlink(VEERLINE_CLI_BINARY, bin + "/veerline");
        for (const char* name : {"Work", "Bob's Home"}) ASSERT_EQ(shell("/bin/sh", {"-c", "veerline profile add \"$0\"", name}).exitCode, 0);
    }

    RunResult shell(const std::string& program, const std::vector<std::string>& args) const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", bin + ":" + systemPath()}, {"TERM", "dumb"}};
        options.cwd = home;
        return run(program, args, options);
    }
};

TEST_F(CompletionTest, BashCompletesCommandsOptionsProfilesAndTools) {
    RunResult result = shell("/bin/bash", {"--norc", "--noprofile", "-c", R"(
        source <(veerline completion bash) && complete -p veerline
        tab() { COMP_WORDS=("$@"); COMP_CWORD=$(( $# - 1 )); _veerline; printf '<%s>' "${COMPREPLY[@]}"; echo; }
        tab veerline lo; tab veerline login B; tab veerline profile set --co; tab veerline login Work ''
        tab veerline completion z; tab veerline rule add '')"});
    EXPECT_EQ(result.out, "complete -F _veerline veerline\n<login>\n<Bob\\'s\\ Home>\n<--color>\n<claude><codex>\n<zsh>\n<>\n")
        << result.err;
}

TEST_F(CompletionTest, ZshCompletesOnTabInAnInteractiveShell) {
    writeFile(home + "/zdot/.zshrc", R"(
        autoload -Uz compinit && compinit -u -d "$ZDOTDIR/.zcompdump"
        source <(veerline completion zsh)
        record() { print -r -- "$BUFFER" >> "$ZDOTDIR/lines"; BUFFER= }
        zle -N record && bindkey '^X' record)");
    // Types each line, presses Tab, then ^X, which writes what the line has become.
    RunResult result = shell("/bin/zsh", {"-f", "-c", R"(
        zmodload zsh/zpty && export ZDOTDIR=$HOME/zdot && zpty z 'zsh -i'
        for line in 'veerline lo' 'veerline login Wo' 'veerline profile remove Bo' 'veerline login Work co'; do
            zpty -w -n z "$line"$'\t\x18'
        done
        for i in {1..600}; do [[ -f $ZDOTDIR/lines && $(wc -l < $ZDOTDIR/lines) -ge 4 ]] && break; sleep 0.05; done
        zpty -d z; cat $ZDOTDIR/lines)"});
    EXPECT_EQ(result.out, "veerline login \nveerline login Work \nveerline profile remove Bob\\'s\\ Home \n"
                          "veerline login Work codex \n")
        << result.err;
}

TEST_F(CompletionTest, FishCompletesWithDescriptions) {
    if (::access("/usr/bin/fish", X_OK) != 0) GTEST_SKIP() << "fish isn't installed";
    RunResult result = shell("/usr/bin/fish", {"--no-config", "-c", R"(
        veerline completion fish | source
        complete -C 'veerline pro'; complete -C 'veerline env '; complete -C 'veerline profile add X --tools codex,cha')"});
    EXPECT_EQ(result.out, "profile\tList, add, rename, change and remove profiles\n"
                          "prompt\tPrint a snippet that shows the profile in your prompt\n"
                          "Bob's Home\nWork\ncodex,chatgpt-app\n")
        << result.err;
}

}  // namespace
}  // namespace veerline::testing
