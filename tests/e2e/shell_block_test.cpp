// Runs the managed block and the prompt snippets in real shells, checks them with shellcheck and
// python's TOML parser, and goes through a real install: a shell that reads the edited start-up
// file reaches the real tool through the installed shim.

#include <unistd.h>

#include <gtest/gtest.h>

#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

std::optional<std::string> findProgram(const std::string& name) {
    std::string path = systemPath() + ":/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= path.size()) {
        auto colon = path.find(':', start);
        std::string folder = path.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (!folder.empty() && ::access((folder + "/" + name).c_str(), X_OK) == 0) return folder + "/" + name;
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    return std::nullopt;
}

struct Shell {
    std::string name;
    std::vector<std::string> options;  // no start-up files
};

const std::vector<Shell>& shells() {
    static const std::vector<Shell> list = {
        {"bash", {"--norc", "--noprofile", "-c"}}, {"zsh", {"-f", "-c"}}, {"dash", {"-c"}}};
    return list;
}

class ShellBlockE2ETest : public ::testing::Test {
protected:
    // Spaces and glob characters in the home folder must not confuse the block.
    TempDir root{"veerline-block"};
    std::string home = root / "h o*me[1]";
    std::string shim = home + "/.veerline/bin";
    std::string blockFile = root / "block.sh";

    void SetUp() override {
        makeDirs(home);
        writeFile(blockFile, ShellIntegration::block());
    }

    RunResult runShell(const Shell& shell, const std::string& script, const std::string& path,
                       std::vector<std::string> arguments = {}) const {
        auto program = findProgram(shell.name);
        if (!program) {
            ADD_FAILURE() << shell.name << " is not installed";
            return {};
        }
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", path}};
        options.cwd = root.path();
        std::vector<std::string> args = shell.options;
        args.push_back(script);
        args.push_back(shell.name);  // $0
        args.insert(args.end(), arguments.begin(), arguments.end());
        return run(*program, args, options);
    }
};

TEST_F(ShellBlockE2ETest, BlockPutsTheShimFolderFirstExactlyOnce) {
    const std::string script =
        "PATH=$2; . \"$1\"; printf 'once=%s\\n' \"$PATH\"; printf 'left=%s%s\\n' \"${_vl+_vl}\" \"${_vlp+_vlp}\"; "
        ". \"$1\"; printf 'twice=%s\\n' \"$PATH\"";
    const std::string& s = shim;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/usr/bin:/bin", s + ":/usr/bin:/bin"},
        {s + ":/usr/bin:/bin", s + ":/usr/bin:/bin"},
        {"/usr/bin:" + s + ":/bin", s + ":/usr/bin:/bin"},
        {s + ":/usr/bin:" + s + ":" + s + ":/bin:" + s, s + ":/usr/bin:/bin"},
        {s, s},
        {s + ":" + s, s},
        {"", s},
        {"/usr/bin::/bin", s + ":/usr/bin::/bin"},
        // Look-alikes of the shim folder stay where they are.
        {s + "2:/x" + s + ":" + s + "/:/usr/bin", s + ":" + s + "2:/x" + s + ":" + s + "/:/usr/bin"},
    };
    for (const Shell& shell : shells()) {
        for (const auto& [path, expected] : cases) {
            // Set inside the shell: zsh replaces an empty PATH it inherits with its own default.
            auto result = runShell(shell, script, "/usr/bin:/bin", {blockFile, path});
            ASSERT_EQ(result.exitCode, 0) << shell.name << " " << path << ": " << result.err;
            EXPECT_EQ(result.out, "once=" + expected + "\nleft=\ntwice=" + expected + "\n")
                << shell.name << " with PATH " << path;
            EXPECT_EQ(result.err, "") << shell.name;
        }
    }
}

TEST_F(ShellBlockE2ETest, ShellcheckAcceptsBlockAndBashSnippet) {
    auto shellcheck = findProgram("shellcheck");
    if (!shellcheck) GTEST_SKIP() << "shellcheck is not installed";
    RunOptions options;
    options.environment = {{"PATH", systemPath()}, {"HOME", home}};
    for (const char* dialect : {"sh", "bash", "dash"}) {
        auto result = run(*shellcheck, {"-s", dialect, blockFile}, options);
        EXPECT_EQ(result.exitCode, 0) << dialect << ":\n" << result.out << result.err;
    }
    std::string snippet = root / "snippet.bash";
    writeFile(snippet, *ShellIntegration::promptSnippet("bash") + "\n");
    // SC2155: the snippet ignores the resolver's exit status on purpose; a failed look-up just
    // shows no profile.
    auto result = run(*shellcheck, {"-s", "bash", "-e", "SC2155", snippet}, options);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

TEST_F(ShellBlockE2ETest, PromptSnippetsShowTheProfile) {
    // A stand-in resolver that names the profile after the working folder's last component.
    writeFile(home + "/.veerline/libexec/veerline-resolve",
              "#!/bin/sh\n[ \"$1\" = --prompt ] && basename \"$PWD\"\n", 0755);
    makeDirs(root / "work");
    std::string bashSnippet = root / "snippet.bash";
    writeFile(bashSnippet, *ShellIntegration::promptSnippet("bash"));
    auto bash = runShell(shells()[0],
                         "PS1='$ '; PROMPT_COMMAND='echo earlier'; . \"$1\"; cd work; eval \"$PROMPT_COMMAND\"; "
                         "printf '%s|%s\\n' \"$VEERLINE_PROFILE\" \"${PS1@P}\"",
                         "/usr/bin:/bin", {bashSnippet});
    ASSERT_EQ(bash.exitCode, 0) << bash.err;
    EXPECT_EQ(bash.out, "earlier\nwork|[work] $ \n");

    std::string zshSnippet = root / "snippet.zsh";
    writeFile(zshSnippet, *ShellIntegration::promptSnippet("zsh"));
    auto zsh = runShell(shells()[1],
                        "RPROMPT='%%'; . \"$1\"; printf '%s\\n' \"$VEERLINE_PROFILE\"; cd work; "
                        "print -rP -- \"$VEERLINE_PROFILE|$RPROMPT\"",
                        "/usr/bin:/bin", {zshSnippet});
    ASSERT_EQ(zsh.exitCode, 0) << zsh.err;
    std::string rootName = root.path().substr(root.path().rfind('/') + 1);
    EXPECT_EQ(zsh.out, rootName + "\nwork|[work]%\n");
}

}  // namespace
}  // namespace veerline::testing
