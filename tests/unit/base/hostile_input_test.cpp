// The pieces that keep hostile input harmless: clean-up on interrupt, and text that cannot act
// on a terminal or slip past a folder check. The bounded reader is tried through every reader end to end.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/file_io.h"
#include "base/interrupt_cleanup.h"
#include "base/paths.h"
#include "base/unicode.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

TEST(HostileInputTest, InterruptsRemoveRegisteredPathsAndEndTheProcessBySameSignal) {
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        TempDir dir;
        const std::string folder = dir / "scratch";
        pid_t child = ::fork();
        if (child == 0) {
            RemoveOnInterrupt::installHandlers();
            ::mkdir(folder.c_str(), 0700);
            RemoveOnInterrupt scratch(folder, RemoveOnInterrupt::Kind::folder);
            testing::writeFile(folder + "/preview", "secret");
            TemporaryFile preview(folder + "/preview");
            testing::writeFile(dir / "saved", "renamed into place");
            TemporaryFile saved(dir / "saved");
            saved.keep();
            ::raise(signalNumber);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signalNumber) << status;
        EXPECT_FALSE(testing::exists(folder));
        EXPECT_TRUE(testing::exists(dir / "saved"));
    }
}

TEST(HostileInputTest, TextFromFilesCannotActOnATerminalOrSlipPastAFolderCheck) {
    EXPECT_EQ(unicode::escapingControlCharacters("a\x1b[2J\u009B\u2028\n\xff"), "a\\x1B[2J\\u009B\\u2028\\x0A\xff");
    // Full lower-casing keeps the dot of U+0130.
    EXPECT_TRUE(PathUtil::isSameOrInside("/Users/\u0130/x", "/users/i\u0307", false));
    EXPECT_FALSE(PathUtil::isSameOrInside("/Users/\u0130/x", "/users/i", false));
}

}  // namespace
}  // namespace veerline
