// Where a managed profile's Codex keeps its sign-in, checked against a `codex` that answers as
// codex-cli 0.169.0 does on a machine without a Secret Service.

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "support/test_support.h"
#include "tools/process_runner.h"
#include "tools/codex_adapter.h"

namespace veerline {
namespace {

// What versions before this one wrote on every system.
const std::string keyringStarter =
    "# Written by Veerline for this profile. Keeps this profile's Codex login in the\n"
    "# macOS Keychain instead of a plaintext auth.json. Add your own settings below.\n"
    "cli_auth_credentials_store = \"keyring\"\n";

class CodexCredentialsStoreTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string home = dir / "home";
    std::string bin = dir / "bin";
    Paths paths{home, dir / "Applications"};
    ToolContext context{paths, {{"HOME", home}, {"PATH", bin + ":/usr/bin:/bin"}}, 5.0};
    Profile work = Profile(ProfileID("work"), "Work", ProfileColor::blue, std::nullopt, {ToolKind::codex},
                           Profile::Storage::managed);
    std::string config = paths.supportDirectory() + "/codex/work/config.toml";
    CodexAdapter adapter{context};

    void SetUp() override { testing::writeFakeTool(bin + "/codex"); }

    testing::RunResult signInWithKey(const std::string& key) const {
        testing::RunOptions options;
        options.environment = {{"HOME", home}, {"CODEX_HOME", paths.supportDirectory() + "/codex/work"}};
        options.input = key + "\n";
        return testing::run(bin + "/codex", {"login", "--with-api-key"}, options);
    }
};

TEST_F(CodexCredentialsStoreTest, TheStarterLetsCodexSignInWithoutAKeyring) {
    adapter.prepare(work);
    std::string starter = testing::readFile(config);
    EXPECT_NE(starter.find("cli_auth_credentials_store = \"auto\""), std::string::npos) << starter;
    EXPECT_EQ(starter.find("macOS"), std::string::npos) << starter;
    EXPECT_EQ(adapter.status(work), ToolStatus::needsAttention("Signed out. Sign in again."));

    testing::RunResult signIn = signInWithKey("sk-proj-abcdefghij12345");
    ASSERT_EQ(signIn.exitCode, 0) << signIn.err;
    AccountInfo apiKey;
    apiKey.method = "API key";
    EXPECT_EQ(adapter.status(work), ToolStatus::signedIn(apiKey));
}

TEST_F(CodexCredentialsStoreTest, AKeyringThatIsntThereIsNamedInTheStatus) {
    testing::writeFile(config, "cli_auth_credentials_store = \"keyring\"\n# mine\n");
    adapter.prepare(work);
    EXPECT_EQ(signInWithKey("sk-proj-abcdefghij12345").exitCode, 1);

    std::string toolLine =
        "Error checking login status: failed to load CLI auth from keyring: Platform secure storage failure: no "
        "secret service provider or dbus session found: Platform secure storage failure: no secret service "
        "provider or dbus session found: no secret service provider or dbus session found";
    EXPECT_EQ(adapter.status(work).text, ("Couldn't read `codex login status` (exit 1): " +
                                                 toolLine.substr(0, 199) + "\u2026"));
}

TEST_F(CodexCredentialsStoreTest, OnlyAnUntouchedOldStarterIsReplaced) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {keyringStarter, true},
        {keyringStarter + "model = \"o3\"\n", false},
        {keyringStarter.substr(0, keyringStarter.size() - 1), false},
        {"cli_auth_credentials_store = \"keyring\"\n", false}};
    for (const auto& [content, replaced] : cases) {
        testing::writeFile(config, content);
        adapter.prepare(work);
        EXPECT_EQ(testing::readFile(config), replaced ? std::string(CodexAdapter::managedConfig()) : content) << content;
    }

    // A link to a file holding the old starter is the user's own arrangement.
    testing::removeTree(config);
    testing::writeFile(dir / "shared.toml", keyringStarter);
    testing::makeSymlink(dir / "shared.toml", config);
    adapter.prepare(work);
    struct stat st {};
    EXPECT_TRUE(::lstat(config.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_EQ(testing::readFile(config), keyringStarter);
}

TEST(CodexKeyringTest, StatusChecksCanReachTheSessionKeyring) {
    if (platform::sessionServiceVariables().empty()) GTEST_SKIP() << "no variables lead to this system's keyring";
    Environment session{{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/user/1000/bus"}, {"XDG_RUNTIME_DIR", "/run/user/1000"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(session), session);
}

}  // namespace
}  // namespace veerline
