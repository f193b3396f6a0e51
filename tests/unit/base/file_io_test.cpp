// The one reader and the one writer: nothing in a file's place stalls or swamps a reader, and a
// writer killed at any moment leaves the old file and a leftover that the next write sweeps.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "base/error.h"
#include "base/file_io.h"
#include "profiles/profile_store.h"
#include "support/folder_entries.h"
#include "support/test_support.h"
#include "tools/codex_adapter.h"
#include "usage/usage_cache_file.h"

namespace veerline {
namespace {

using testing::TempDir;

std::string readFailure(const std::string& path, Links links = Links::follow) {
    try {
        readRegularFile(path, 1024 * 1024, links);
        return "read";
    } catch (const VeerlineError& error) {
        return error.errorDescription();
    }
}

TEST(FileIOTest, NothingButARegularFileOfBoundedSizeIsRead) {
    TempDir dir;
    const std::string fifo = dir / "fifo", socket = dir / "socket", loop = dir / "loop", sparse = dir / "sparse",
                      file = dir / "file", link = dir / "link";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    testing::bindSocket(socket);
    testing::makeSymlink(loop + "2", loop);
    testing::makeSymlink(loop, loop + "2");
    testing::writeFile(sparse, "");
    ASSERT_EQ(::truncate(sparse.c_str(), off_t{1} << 30), 0);
    testing::writeFile(file, "same");
    testing::writeFile(dir / "copy", "same");
    testing::writeFile(dir / "other", "diff");
    testing::makeSymlink(file, link);

    const std::string notAFile = ": it isn't a regular file.";
    struct Case { const char* what; std::string path; Links links; std::string failure; };
    const Case cases[] = {
        {"FIFO", fifo, Links::follow, "Couldn't read " + fifo + notAFile},
        {"device", "/dev/zero", Links::follow, "Couldn't read /dev/zero" + notAFile},
        {"socket", socket, Links::follow, "Couldn't read " + socket + notAFile},
        {"folder", dir.path(), Links::follow, "Couldn't read " + dir.path() + notAFile},
        {"link loop", loop, Links::follow, "Couldn't read " + loop + ": " + std::strerror(ELOOP)},
        {"huge sparse file", sparse, Links::follow, "Couldn't read " + sparse + ": the file is too large (over 1 MB)."},
        {"link where none may be", link, Links::refuse, "Couldn't read " + link + ": it's a symbolic link."},
        {"regular file", file, Links::follow, "read"},
        {"link to one", link, Links::follow, "read"}};
    for (const Case& row : cases) {
        EXPECT_EQ(readFailure(row.path, row.links), row.failure) << row.what;
        EXPECT_EQ(sameFileContents(row.path, file), row.failure == "read" || row.links == Links::refuse) << row.what;
    }
    EXPECT_EQ(readRegularFile(dir / "missing", 10), std::nullopt);
    EXPECT_TRUE(sameFileContents(file, dir / "copy"));
    EXPECT_FALSE(sameFileContents(file, dir / "other"));
}

// A child that runs `write` and is stopped for good in the middle of it, its temporary file written.
pid_t writerStoppedBeforeRename(const std::string& target, int signalNumber) {
    pid_t child = ::fork();
    if (child == 0) {
        writeFileAtomically(target, "unfinished", 0600, {}, [&] { ::raise(signalNumber); });
        ::_exit(0);
    }
    return child;
}

TEST(FileIOTest, EveryWriterSweepsWhatKilledWritersLeftButNotALiveOnesFile) {
    TempDir home;
    const Paths paths{home.path(), "/Applications"};
    const Profile profile(ProfileID("p"), "P", ProfileColor::blue, std::nullopt, std::vector{ToolKind::codex});
    const std::string codexFolder = paths.dataDirectory(ToolKind::codex, profile.id);
    struct Writer { const char* what; std::string folder, name; std::function<void()> write; };
    const Writer writers[] = {
        {"any file", home.path(), "file", [&] { writeFileAtomically(home / "file", "new", 0600); }},
        {"profiles", paths.supportDirectory(), "profiles.json",
         [&] { ProfileStore(paths).update([&](ProfileDocument& document) { document.profiles.push_back(profile); }); }},
        {"codex starter file", codexFolder, "config.toml", [&] { CodexAdapter::prepareIn(paths, profile); }},
        {"usage cache", home / "cache", "usage-cache.bin",
         [&] { UsageCacheFile::save(home / "cache/usage-cache.bin", LocalLogUsageProvider::EventCache(), Moment()); }}};
    for (const Writer& writer : writers) {
        testing::makeDirs(writer.folder);
        const std::string target = writer.folder + "/" + writer.name;
        pid_t killed = writerStoppedBeforeRename(target, SIGKILL), live = writerStoppedBeforeRename(target, SIGSTOP);
        int status = 0;
        ASSERT_EQ(::waitpid(killed, &status, 0), killed);
        ASSERT_EQ(::waitpid(live, &status, WUNTRACED), live);
        auto leftovers = [&] {
            auto names = testing::entriesOf(writer.folder);
            std::erase_if(names, [&](const std::string& name) { return !name.starts_with("." + writer.name + "."); });
            return names;
        };
        ASSERT_EQ(leftovers().size(), 2u) << writer.what;
        writer.write();
        EXPECT_NE(testing::readFile(target), "unfinished") << writer.what;
        auto left = leftovers();
        EXPECT_TRUE(left.size() == 1 && left[0].starts_with("." + writer.name + "." + std::to_string(live) + "."))
            << writer.what;
        ::kill(live, SIGKILL);
        ::waitpid(live, &status, 0);
    }
}

}  // namespace
}  // namespace veerline
