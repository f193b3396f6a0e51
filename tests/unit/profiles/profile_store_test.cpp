#include "profiles/profile_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>

#include "base/error.h"
#include "support/failure.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

// Runs `body` in a forked child whose exit code is what it returns (98 if it throws).
pid_t spawn(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        int code = 98;
        try {
            code = body();
        } catch (...) {
        }
        _exit(code);
    }
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

using testing::failureOf;

Profile makeProfile(const std::string& id, const std::string& name) {
    return Profile(ProfileID(id), name, ProfileColor::blue);
}

std::vector<std::string> temporaryFiles(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::string name = entry.path().filename().string();
        if (name.starts_with("profiles.json.tmp.")) found.push_back(name);
    }
    return found;
}

class ProfileStoreTest : public ::testing::Test {
protected:
    TempDir home;
    Paths paths{home.path(), "/Applications"};
    ProfileStore store{paths};

    void writeProfiles(const std::string& text) {
        testing::writeFile(paths.profilesFile(), text, 0600);
    }

    VeerlineError updateFailure(const std::function<void(ProfileDocument&)>& edit) {
        return failureOf([&] { store.update(edit); });
    }

    void addProfile(const std::string& id, const std::string& name) {
        store.update([&](ProfileDocument& document) { document.profiles.push_back(makeProfile(id, name)); });
    }
};

TEST_F(ProfileStoreTest, UnchangedEditWritesNothing) {
    // A file laid out by someone else stays as it is.
    const std::string text =
        R"({"version": 1, "profiles": [{"id": "ok", "name": "Name"}], "rules": [], "extra": 1})";
    writeProfiles(text);
    struct stat before {};
    ASSERT_EQ(stat(paths.profilesFile().c_str(), &before), 0);

    int result = store.update([](ProfileDocument& document) {
        document.profiles[0].name = "changed";
        document.profiles[0].name = "Name";
        return 42;
    });
    EXPECT_EQ(result, 42);

    struct stat after {};
    ASSERT_EQ(stat(paths.profilesFile().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(testing::readFile(paths.profilesFile()), text);
    EXPECT_EQ(testing::fileMode(paths.lockFile()) & 0777, 0600u);
}

TEST_F(ProfileStoreTest, FailedEditsLeaveTheFileAlone) {
    addProfile("w", "Work");
    const std::string before = testing::readFile(paths.profilesFile());

    VeerlineError invalid = updateFailure([](ProfileDocument& document) {
        document.profiles.push_back(makeProfile("Not Valid", "Other"));
    });
    EXPECT_EQ(invalid.kind(), VeerlineError::Kind::invalidProfile);
    EXPECT_EQ(invalid.errorDescription(), "\u201CNot Valid\u201D isn't a valid profile id.");
    EXPECT_EQ(testing::readFile(paths.profilesFile()), before);

    EXPECT_THROW(store.update([](ProfileDocument& document) {
        document.profiles.clear();
        throw std::runtime_error("changed my mind");
    }),
                 std::runtime_error);
    EXPECT_EQ(testing::readFile(paths.profilesFile()), before);
    EXPECT_TRUE(temporaryFiles(paths.supportDirectory()).empty());
}

TEST_F(ProfileStoreTest, WriteRefusedByFileSizeLimitKeepsOldFile) {
    addProfile("w", "Work");
    const std::string before = testing::readFile(paths.profilesFile());

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    pid_t child = spawn([&] {
        close(pipeFds[0]);
        signal(SIGXFSZ, SIG_IGN);
        rlim_t limit = static_cast<rlim_t>(before.size());
        struct rlimit rl {limit, limit};
        if (setrlimit(RLIMIT_FSIZE, &rl) != 0) return 3;
        std::string message = "updated";
        try {
            store.update([](ProfileDocument& document) {
                document.profiles.push_back(makeProfile("h", std::string(30, 'h')));
            });
        } catch (const VeerlineError& error) {
            message = error.errorDescription();
        }
        if (write(pipeFds[1], message.data(), message.size()) < 0) return 4;
        return 0;
    });
    close(pipeFds[1]);
    std::string message;
    char buffer[512];
    ssize_t count = 0;
    while ((count = read(pipeFds[0], buffer, sizeof buffer)) > 0) message.append(buffer, static_cast<size_t>(count));
    close(pipeFds[0]);

    EXPECT_EQ(waitFor(child), 0);
    EXPECT_EQ(message, std::string("Couldn't save profiles: ") + std::strerror(EFBIG));
    EXPECT_EQ(testing::readFile(paths.profilesFile()), before);
    EXPECT_TRUE(temporaryFiles(paths.supportDirectory()).empty());
}

TEST_F(ProfileStoreTest, ConcurrentWritersLoseNothingAndReadersSeeWholeFiles) {
    constexpr int kWriters = 8;
    constexpr int kUpdatesEach = 12;
    const std::string stopFile = home / "stop";

    // The reader checks every file it sees until the writers are done.
    pid_t reader = spawn([&] {
        for (int reads = 0; !testing::exists(stopFile) || reads == 0; ++reads) store.load().validate();
        return 0;
    });

    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(spawn([&] {
            for (int i = 0; i < kUpdatesEach; ++i) {
                std::string id = "w" + std::to_string(writer) + "-" + std::to_string(i);
                addProfile(id, id);
            }
            return 0;
        }));
    }
    for (pid_t pid : writers) EXPECT_EQ(waitFor(pid), 0);
    testing::writeFile(stopFile, "");
    EXPECT_EQ(waitFor(reader), 0) << "the reader saw an unreadable or invalid file";

    ProfileDocument document = store.load();
    EXPECT_EQ(document.profiles.size(), static_cast<size_t>(kWriters * kUpdatesEach));
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int i = 0; i < kUpdatesEach; ++i) {
            std::string id = "w" + std::to_string(writer) + "-" + std::to_string(i);
            EXPECT_NE(document.profile(ProfileID(id)), nullptr) << id;
        }
    }
    EXPECT_TRUE(temporaryFiles(paths.supportDirectory()).empty());
}

}  // namespace
}  // namespace veerline
