// What the user typed or a file holds reaches the terminal with its control characters written out:
// a path, a name or a badge can't hide text, move the cursor or retitle the window.

#include "temp_home.h"

namespace veerline::testing {
namespace {

class CliEscapeTest : public TempHomeTest {};

TEST_F(CliEscapeTest, ControlCharactersFromUserDataAreShownEscaped) {
    const std::string hidden = "/tmp/ok\033[8mHIDDEN\033[0m", shownHidden = "/tmp/ok\\x1B[8mHIDDEN\\x1B[0m";
    const std::string csi = "/tmp/csi\x9b" "2J", shownCSI = "/tmp/csi\\x9B2J";
    auto expectShownEscaped = [&](const char* what, const std::vector<std::string>& args, const std::string& shown) {
        RunResult result = cli(args);
        const std::string printed = result.out + result.err;
        EXPECT_NE(printed.find(shown), std::string::npos) << what << ": " << printed;
        EXPECT_EQ(printed.find('\x9b'), std::string::npos) << what;
        EXPECT_EQ(printed.find("\033[8m"), std::string::npos) << what;
    };
    struct Case { const char* what; std::vector<std::string> args; std::string shown; };
    const Case cases[] = {
        {"rule add confirmation", {"rule", "add", hidden, "Work"}, "Folders in " + shownHidden + " now use"},
        {"8-bit CSI", {"rule", "add", csi, "Work"}, "Folders in " + shownCSI + " now use"},
        {"rule list", {"rule", "list"}, shownHidden},
        {"which", {"which", hidden}, "folder rule for " + shownHidden},
        {"doctor text", {"doctor"}, shownHidden + " \u2192 Work"},
        {"rule remove", {"rule", "remove", hidden}, "Removed the rule for " + shownHidden},
        {"badge refused like a name", {"profile", "add", "Evil", "--badge", "\033[8m"}, "\\x1B[8m\u201D holds a control"}};
    for (const Case& row : cases) expectShownEscaped(row.what, row.args, row.shown);
    // A badge written into the file by hand.
    writeFile(profilesFile, R"({"version": 1, "profiles": [{"id": "w", "name": "Work", "badge": "\u001b[8m"}], "rules": []})", 0600);
    expectShownEscaped("profile list", {"profile", "list"}, "\\x1B[8m");
}

}  // namespace
}  // namespace veerline::testing
