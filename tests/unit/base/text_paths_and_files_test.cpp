// Text, paths, files and messages everything else builds on, including the pieces that keep hostile
// input harmless: clean-up on interrupt, and text that cannot act on a terminal or slip past a folder
// check. The bounded reader is tried through every reader end to end.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>

#include "base/error.h"
#include "base/file_io.h"
#include "base/interrupt_cleanup.h"
#include "base/paths.h"
#include "base/unicode.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;
using Texts = std::vector<std::pair<std::string, std::string>>;

void expectEqualPairs(const Texts& cases) {
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

TEST(VeerlineErrorTest, MessagesAreCompleteSentences) {
    expectEqualPairs({
        {VeerlineError::storeCorrupt("/p/profiles.json", "").errorDescription(), "Couldn't read /p/profiles.json: "},
        {VeerlineError::unsafeDeletion("/tmp/x").errorDescription(),
         "Refused to delete /tmp/x because it isn't inside Veerline's own data folder."},
        {VeerlineError::keychain(-25300).errorDescription(),
         "Keychain error -25300: The specified item could not be found in the keychain."},
        {VeerlineError::keychain(12345).errorDescription(), "Keychain error 12345: unknown"}});
}

TEST(UnicodeTest, CaseClustersTrimmingAndRepair) {
    expectEqualPairs({{unicode::lowercased("ÀÉÎ Work"), "àéî work"}, {unicode::uppercased("ßx"), "SSX"},
                      {unicode::uppercased("ﬁ"), "FI"}, {unicode::uppercased("é"), "É"},
                      {unicode::trimmed("\u00A0\t work \u2003\n"), "work"}, {unicode::trimmed(" \u3000 "), ""},
                      {unicode::repairUTF8("a\xff" "b"), "a\uFFFD" "b"},
                      // Nothing read from a file may move the cursor or clear a terminal.
                      {unicode::escapingControlCharacters("a\x1b[2J\u009B\u2028\n\xff"),
                       "a\\x1B[2J\\u009B\\u2028\\x0A\xff"},
                      // A lone 0x9B is CSI to an 8-bit terminal; inside a character ("Û") it is not.
                      {unicode::escapingControlCharacters("\x9b" "8m\u00DB\x7f"), "\\x9B8m\u00DB\\x7F"}});
    EXPECT_TRUE(unicode::equalIgnoringCase("Straße", "STRASSE"));
    EXPECT_FALSE(unicode::equalIgnoringCase("work", "works"));
    EXPECT_EQ(unicode::graphemeClusters("e\u0301x🇫🇷"), (std::vector<std::string>{"e\u0301", "x", "🇫🇷"}));
    EXPECT_EQ(unicode::characterCount(""), 0u);
    EXPECT_EQ(unicode::characterCount("a\r\nb\r"), 4u);  // CR LF is one character, in ASCII text too
    EXPECT_EQ(unicode::characterCount("e\u0301x\r\n"), 3u);
    EXPECT_FALSE(unicode::isValidUTF8("\xc3"));
    EXPECT_TRUE(unicode::isLetterOrNumber(U'é') && unicode::isLetterOrNumber(U'٣'));
    EXPECT_FALSE(unicode::isLetterOrNumber(U'-'));
}

TEST(PathUtilTest, NormalizeAndContainment) {
    struct Normalized { std::string path; std::optional<std::string> base; std::string expected; };
    const Normalized normalized[] = {
        {"a/./b/../c", "/x", "/x/a/c"}, {"/../..", {}, "/"}, {"//a//b/", {}, "/a/b"}, {"", {}, "/"},
        {"x", "y", "/y/x"}, {"/a/.../b", {}, "/a/.../b"}, {"~/a", {}, "/~/a"}, {"/a/b/c", {}, "/a/b/c"},
        // Names that only look like "." and ".." are kept; the real ones go wherever they stand.
        {"/.a/..b/c.", {}, "/.a/..b/c."}, {"/a/b/.", {}, "/a/b"}, {"/a/b/..", {}, "/a"}, {"/./a", {}, "/a"}};
    for (const auto& [path, base, expected] : normalized) EXPECT_EQ(PathUtil::normalize(path, base), expected);

    struct Containment { std::string path, base; bool caseSensitive, inside; };
    const Containment containment[] = {
        {"/anything", "/", true, true}, {"/a", "/a", true, true}, {"/a/b", "/a", true, true},
        {"/ab", "/a", true, false}, {"/a", "/a/b", true, false}, {"/Work/A", "/work", true, false},
        {"/Work/A", "/work", false, true}, {"/ÉTÉ/x", "/été", false, true},
        // Full lower-casing keeps the dot of U+0130, so a look-alike folder is not the same one.
        {"/Users/\u0130/x", "/users/i\u0307", false, true}, {"/Users/\u0130/x", "/users/i", false, false}};
    for (const auto& [path, base, caseSensitive, inside] : containment) {
        EXPECT_EQ(PathUtil::isSameOrInside(path, base, caseSensitive), inside) << path << " in " << base;
    }
}

TEST(PathUtilTest, FoldersBehindLinksAndBoundedReads) {
    TempDir dir;
    testing::writeFile(dir / "real/inner/file", std::string(70000, 'x'));
    testing::makeSymlink("real", dir / "relative");
    testing::makeSymlink(dir / "relative/inner", dir / "chained");
    EXPECT_EQ(PathUtil::realPath(dir / "chained"), dir / "real/inner");
    EXPECT_EQ(PathUtil::realPath(dir / "chained/file"), dir / "real/inner/file");
    EXPECT_EQ(PathUtil::realPath(dir / "chained/../inner"), dir / "real/inner");  // ".." after the link
    EXPECT_FALSE(PathUtil::realPath(dir / "real/inner/file/below").has_value());

    auto identity = FileIdentity::of(dir / "real/inner");
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(FileIdentity::of(dir / "chained"), identity);
    EXPECT_NE(FileIdentity::of(dir / "real"), identity);
    EXPECT_FALSE(FileIdentity::of(dir / "missing").has_value());

    // PWD is believed only as an absolute name of the working folder (links in it: resolver_test).
    std::string previous = std::filesystem::current_path().string();
    std::filesystem::current_path(dir / "real/inner");
    std::string physical = dir / "real/inner";
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", physical}}), physical);
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", "inner"}}), physical);        // not absolute
    EXPECT_EQ(logicalWorkingDirectory({}), physical);
    std::filesystem::current_path(previous);

    // One byte over the size refused reads exactly that far, so a longer file shows.
    auto read = [&](const std::string& path, std::string& text, std::size_t limit) {
        return readAll(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)).get(), text, limit);
    };
    for (auto [limit, size] : {std::pair<std::size_t, std::size_t>{SIZE_MAX, 70000}, {4097, 4097}, {70001, 70000}}) {
        std::string text;
        EXPECT_EQ(read(dir / "real/inner/file", text, limit), 0);
        EXPECT_EQ(text, std::string(size, 'x'));
    }
    std::string fromFolder;
    EXPECT_EQ(read(dir.path(), fromFolder, SIZE_MAX), EISDIR);
}

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

}  // namespace
}  // namespace veerline
