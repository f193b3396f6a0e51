#include "base/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

FileDescriptor openForReading(const std::string& path) {
    return FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

TEST(FileIOTest, ReadAllStopsAtTheLimitSoALongerFileShows) {
    TempDir dir;
    const std::string content(70000, 'x');
    testing::writeFile(dir / "f", content);

    std::string whole;
    EXPECT_EQ(readAll(openForReading(dir / "f").get(), whole), 0);
    EXPECT_EQ(whole, content);

    // One byte over the size refused reads exactly that far.
    std::string bounded;
    EXPECT_EQ(readAll(openForReading(dir / "f").get(), bounded, 4097), 0);
    EXPECT_EQ(bounded.size(), 4097u);
    std::string exact;
    EXPECT_EQ(readAll(openForReading(dir / "f").get(), exact, content.size() + 1), 0);
    EXPECT_EQ(exact.size(), content.size());

    std::string fromFolder;
    EXPECT_EQ(readAll(openForReading(dir.path()).get(), fromFolder), EISDIR);
}

TEST(FileIOTest, WriteAllWritesEverythingOrReportsErrno) {
    TempDir dir;
    const std::string content(200000, 'y');
    {
        FileDescriptor fd(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_TRUE(fd);
        EXPECT_EQ(writeAll(fd.get(), content), 0);
    }
    EXPECT_EQ(testing::readFile(dir / "out"), content);
    EXPECT_EQ(writeAll(openForReading(dir / "out").get(), "z"), EBADF);
}

TEST(FileIOTest, FileDescriptorOwnershipMovesAndCloseReportsErrno) {
    TempDir dir;
    testing::writeFile(dir / "f", "a");
    FileDescriptor first = openForReading(dir / "f");
    ASSERT_TRUE(first);
    FileDescriptor second = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_EQ(first.close(), 0);
    ASSERT_TRUE(second);

    // Closed behind its back: close reports close's own error.
    ::close(second.get());
    EXPECT_EQ(second.close(), EBADF);
    EXPECT_FALSE(second);

    FileDescriptor third = openForReading(dir / "f");
    int raw = third.release();
    EXPECT_FALSE(third);
    EXPECT_EQ(::close(raw), 0);
}

TEST(FileIOTest, TemporaryFileGoesUnlessKept) {
    TempDir dir;
    testing::writeFile(dir / "dropped", "");
    testing::writeFile(dir / "kept", "");
    { TemporaryFile dropped(dir / "dropped"); }
    {
        TemporaryFile kept(dir / "kept");
        kept.keep();
    }
    EXPECT_FALSE(testing::exists(dir / "dropped"));
    EXPECT_TRUE(testing::exists(dir / "kept"));
}

}  // namespace
}  // namespace veerline
