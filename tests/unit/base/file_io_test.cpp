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

}  // namespace
}  // namespace veerline
