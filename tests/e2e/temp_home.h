#pragma once

// A temporary HOME for the built binaries: the shims in ~/.veerline/bin, fake real `claude` and
// `codex` further along PATH that report what they received, and a profiles file with two folder
// rules (~/work, and ~/work/oss inside it) and a terminal default that uses codex alone.

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline::testing {

using Variables = std::map<std::string, std::string>;

class TempHomeTest : public ::testing::Test {
protected:
    TempDir root{"veerline-e2e"};
    std::string home = root / "home", tools = root / "tools", shims = home + "/.veerline/bin";
    std::string support = home + "/Library/Application Support/Veerline", profilesFile = support + "/profiles.json";
    std::vector<std::string> launcher;  // put in front of every run, such as a timeout

    void SetUp() override {
        for (const std::string tool : {"claude", "codex"}) {
            writeFakeTool(tools + "/" + tool);
            makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/" + tool);
        }
        for (const char* folder : {"/work/app/src", "/work/oss/lib", "/music"}) makeDirs(home + folder);
        writeFile(profilesFile, R"({"version": 1, "cliDefault": "home",
  "profiles": [{"id": "work", "name": "Work", "badge": "W", "color": "blue"}, {"id": "side", "name": "Side Project"},
               {"id": "home", "name": "Bob's Home", "tools": ["codex"], "storage": "system"}],
  "rules": [{"path": "~/work/**", "profileID": "work"}, {"path": "~/work/oss", "profileID": "side"}]})", 0600);
    }

    // HOME, PWD and a PATH with the shims first; `extra` adds or replaces variables.
    RunOptions in(const std::string& cwd, Variables extra = {}) const {
        extra.insert({{"HOME", home}, {"PATH", shims + ":" + tools + ":/usr/bin:/bin"}, {"PWD", cwd}});
        RunOptions options;
        options.environment = std::move(extra);
        options.cwd = cwd;
        return options;
    }
    RunResult start(const std::string& executable, std::vector<std::string> args, const RunOptions& options) const {
        if (launcher.empty()) return run(executable, args, options);
        args.insert(args.begin(), executable);
        args.insert(args.begin(), launcher.begin() + 1, launcher.end());
        return run(launcher.front(), args, options);
    }
    RunResult cli(const std::vector<std::string>& args, Variables extra = {}, const std::string& cwd = "") const {
        return start(VEERLINE_CLI_BINARY, args, in(cwd.empty() ? home : cwd, std::move(extra)));
    }
    RunResult shim(const std::string& tool, const std::string& cwd, Variables extra = {}) const {
        return start(shims + "/" + tool, {}, in(cwd, std::move(extra)));
    }
    // What the real tool received through a shim that must start it quietly.
    FakeToolReport report(const std::string& tool, const std::string& cwd, Variables extra = {}) const {
        RunResult result = shim(tool, cwd, std::move(extra));
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return parseFakeToolReport(result.out);
    }
    // The prompt's text, which it must print quietly.
    std::string prompt(const std::string& cwd, Variables extra = {}) const {
        RunResult result = start(VEERLINE_RESOLVE_BINARY, {"--prompt"}, in(cwd, std::move(extra)));
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }
};

}  // namespace veerline::testing
