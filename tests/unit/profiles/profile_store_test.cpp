#include "profiles/profile_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

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

    VeerlineError loadFailure() { return failureOf([&] { store.load(); }); }

    VeerlineError updateFailure(const std::function<void(ProfileDocument&)>& edit) {
        return failureOf([&] { store.update(edit); });
    }

    void addProfile(const std::string& id, const std::string& name) {
        store.update([&](ProfileDocument& document) { document.profiles.push_back(makeProfile(id, name)); });
    }
};

TEST_F(ProfileStoreTest, MissingFileReadsAsEmptyAndCreatesNothing) {
    EXPECT_EQ(store.load(), ProfileDocument::empty());
    EXPECT_FALSE(testing::exists(home / "Library"));
}

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

TEST_F(ProfileStoreTest, FirstUpdateCreatesPrivateFolders) {
    store.update([](ProfileDocument&) {});
    EXPECT_FALSE(testing::exists(paths.profilesFile()));
    EXPECT_TRUE(testing::exists(paths.lockFile()));
    for (const std::string& folder : {home / "Library", home / "Library/Application Support",
                                      paths.supportDirectory()}) {
        EXPECT_EQ(testing::fileMode(folder) & 0777, 0700u) << folder;
    }

    // Existing folders keep their permissions.
    TempDir other;
    testing::makeDirs(other / "Library/Application Support", 0755);
    ProfileStore(Paths(other.path(), "/Applications")).update([](ProfileDocument& document) {
        document.profiles.push_back(makeProfile("w", "Work"));
    });
    EXPECT_EQ(testing::fileMode(other / "Library") & 0777, 0755u);
    EXPECT_EQ(testing::fileMode(other / "Library/Application Support/Veerline") & 0777, 0700u);
}

TEST_F(ProfileStoreTest, SaveWritesPrivateSortedFileAtomically) {
    std::string name = store.update([](ProfileDocument& document) {
        document.profiles.push_back(makeProfile("w", "Work"));
        document.rules.push_back(FolderRule{"~/code/**", ProfileID("w")});
        document.cliDefault = ProfileID("w");
        return std::string("done");
    });
    EXPECT_EQ(name, "done");

    std::string text = testing::readFile(paths.profilesFile());
    EXPECT_EQ(testing::fileMode(paths.profilesFile()) & 0777, 0600u);
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_NE(text[text.size() - 2], '\n');
    EXPECT_LT(text.find("\"cliDefault\""), text.find("\"profiles\""));
    EXPECT_LT(text.find("\"rules\""), text.find("\"version\""));
    EXPECT_LT(text.find("\"badge\""), text.find("\"tools\""));
    EXPECT_NE(text.find("\"~/code/**\""), std::string::npos);
    EXPECT_TRUE(temporaryFiles(paths.supportDirectory()).empty());

    ProfileDocument loaded = store.load();
    EXPECT_EQ(loaded.profiles.size(), 1u);
    EXPECT_EQ(loaded.cliDefault, ProfileID("w"));
    EXPECT_EQ(text, encodeDocument(loaded));
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

TEST_F(ProfileStoreTest, NewerVersionsAreRefused) {
    writeProfiles(R"({"version": 2, "profiles": [], "rules": []})");
    EXPECT_EQ(loadFailure(), VeerlineError::storeTooNew(2));
    EXPECT_EQ(updateFailure([](ProfileDocument& document) { document.profiles.clear(); }),
              VeerlineError::storeTooNew(2));

    // The version is found even when the rest would not decode.
    writeProfiles(R"({"version": 7, "profiles": "nope"})");
    EXPECT_EQ(loadFailure(), VeerlineError::storeTooNew(7));
    writeProfiles(R"({"version": 18446744073709551615})");
    EXPECT_EQ(loadFailure().kind(), VeerlineError::Kind::storeTooNew);

    for (const char* version : {"0", "1", "-3"}) {
        writeProfiles(std::string(R"({"version": )") + version + R"(, "profiles": [], "rules": []})");
        EXPECT_EQ(store.load().version, std::stoll(version));
    }
}

TEST_F(ProfileStoreTest, DamagedFilesAreCorrupt) {
    const std::string path = paths.profilesFile();
    writeProfiles("");
    EXPECT_EQ(loadFailure(), VeerlineError::storeCorrupt(path, "the file is empty"));
    EXPECT_EQ(loadFailure().errorDescription(), "Couldn't read " + path + ": the file is empty");

    EXPECT_EQ(loadFailure().errorDescription(), "Couldn't read " + path + ": the file is empty");

    const std::vector<std::pair<std::string, std::string>> damaged = {
        {R"({"version": "2", "profiles": [], "rules": []})", "version: expected an integer, found a string"},
        {R"({"version": 1, "profiles": [{"id": "a", "name": "A", "tools": ["cursor"]}], "rules": []})",
         R"(profiles[0].tools[0]: "cursor" is not a tool)"},
    };
    for (const auto& [text, reason] : damaged) {
        writeProfiles(text);
        EXPECT_EQ(loadFailure(), VeerlineError::storeCorrupt(path, reason)) << text;
    }
    writeProfiles("not json");
    EXPECT_EQ(loadFailure().kind(), VeerlineError::Kind::storeCorrupt);
    const std::string before = testing::readFile(path);
    EXPECT_EQ(updateFailure([](ProfileDocument& document) { document.profiles.clear(); }).kind(),
              VeerlineError::Kind::storeCorrupt);
    EXPECT_EQ(testing::readFile(path), before);
}

TEST_F(ProfileStoreTest, FileSystemFailuresHaveTheirMessages) {
    // A folder where the file should be cannot be read.
    testing::makeDirs(paths.profilesFile());
    EXPECT_EQ(loadFailure(), VeerlineError::io("Couldn't read " + paths.profilesFile() + ": it isn't a regular file."));
    std::filesystem::remove(paths.profilesFile());

    testing::makeDirs(paths.lockFile());
    EXPECT_EQ(updateFailure([](ProfileDocument&) {}),
              VeerlineError::io("Couldn't open " + paths.lockFile() + ": " + std::strerror(EISDIR)));

    TempDir other;
    testing::writeFile(other / "Library", "a file, not a folder");
    Paths otherPaths(other.path(), "/Applications");
    EXPECT_EQ(failureOf([&] { ProfileStore(otherPaths).update([](ProfileDocument&) {}); }),
              VeerlineError::io("Couldn't create " + otherPaths.supportDirectory() + ": " + std::strerror(ENOTDIR)));
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

TEST_F(ProfileStoreTest, ReadOnlyFolderRefusesTheTemporaryFile) {
    if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
    addProfile("w", "Work");
    const std::string before = testing::readFile(paths.profilesFile());
    ASSERT_EQ(chmod(paths.supportDirectory().c_str(), 0500), 0);
    VeerlineError error = updateFailure([](ProfileDocument& document) { document.profiles.clear(); });
    chmod(paths.supportDirectory().c_str(), 0700);

    const std::string prefix = "Couldn't write " + paths.profilesFile() + ".tmp." + std::to_string(getpid()) + ".";
    const std::string suffix = std::string(": ") + std::strerror(EACCES);
    EXPECT_TRUE(error.errorDescription().starts_with(prefix)) << error.errorDescription();
    EXPECT_TRUE(error.errorDescription().ends_with(suffix)) << error.errorDescription();
    EXPECT_EQ(testing::readFile(paths.profilesFile()), before);
}

TEST_F(ProfileStoreTest, UpdateWaitsForTheLock) {
    store.update([](ProfileDocument&) {});  // creates the lock file
    int fd = open(paths.lockFile().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);

    pid_t pid = spawn([&] {
        addProfile("w", "Work");
        return 0;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(testing::exists(paths.profilesFile())) << "the update did not wait for the lock";
    flock(fd, LOCK_UN);
    close(fd);
    EXPECT_EQ(waitFor(pid), 0);
    EXPECT_EQ(store.load().profiles.size(), 1u);
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
