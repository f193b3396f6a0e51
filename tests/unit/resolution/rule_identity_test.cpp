// Where telling folders apart by device and inode could give another answer than comparing real
// paths: the paths decide.

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "resolution/rule_resolver.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::makeDirs;
using testing::makeSymlink;
using testing::TempDir;
using testing::writeFile;

bool caseSensitive(const std::string&) { return true; }
bool caseInsensitive(const std::string&) { return false; }

class RuleIdentityTest : public ::testing::Test {
protected:
    TempDir root{"veerline-identity"};
    std::string home = root / "home";
    ProfileDocument document;

    void SetUp() override {
        makeDirs(home + "/work/project/src/deep");
        for (const char* id : {"a", "b", "c"}) document.profiles.push_back(Profile{ProfileID(id), id});
    }

    // The name of the profile that applies in `folder`, or "" for none.
    std::string nameIn(const std::string& folder, RuleResolver::CaseSensitivity volume = caseSensitive) const {
        Resolution resolution = RuleResolver(document, home, std::move(volume)).resolve(folder, "/");
        return resolution.profile ? resolution.profile->name : "";
    }
    void rules(std::initializer_list<std::pair<const char*, const char*>> list) {
        document.rules.clear();
        for (auto [path, id] : list) document.rules.push_back(FolderRule{path, ProfileID(id)});
    }
};

TEST_F(RuleIdentityTest, LinkedRuleFoldersWeighedAgainstTheDotfileByDepth) {
    makeSymlink(home + "/work/project/src", home + "/to-src");
    makeSymlink(home + "/work", home + "/to-work");
    makeSymlink(home + "/elsewhere", home + "/dangling");
    writeFile(home + "/work/project/.veerline", "c\n");
    const std::string deep = home + "/work/project/src/deep";
    struct Case {
        std::initializer_list<std::pair<const char*, const char*>> rules;
        std::string expected;
    };
    const Case cases[] = {
        {{{"~/to-src", "a"}}, "a"},                     // real folder below the dotfile's: the rule wins
        {{{"~/to-work", "a"}}, "c"},                    // real folder above the dotfile's: the dotfile wins
        {{{"~/dangling", "a"}, {"~/nowhere", "b"}}, "c"},  // folders that aren't there match nothing
        {{{"~/work/project/src", "b"}, {"~/to-src", "a"}}, "b"},  // equally deep: the first rule
        {{{"~/to-src", "a"}, {"~/work/project/src", "b"}}, "a"},
        {{{"~/to-work", "a"}, {"~/work/project/src/deep", "b"}, {"~/to-src", "c"}}, "b"},
    };
    for (const Case& c : cases) {
        rules(c.rules);
        EXPECT_EQ(nameIn(deep), c.expected) << c.rules.begin()->first;
        std::filesystem::path previous = std::filesystem::current_path();
        std::filesystem::current_path(deep);  // the target is the working folder: looked at relatively
        EXPECT_EQ(nameIn(deep), c.expected) << c.rules.begin()->first;
        std::filesystem::current_path(previous);
    }
}

// Two distinct folders whose names differ in letter case only, on a volume that compares names
// without case: the rule's real path names the working folder's parent as the volume compares
// names, so the rule applies, though device and inode differ.
TEST_F(RuleIdentityTest, RealPathDifferingOnlyInCaseMatchesOnCaseInsensitiveVolumes) {
    makeDirs(home + "/Work");
    makeSymlink(home + "/Work", home + "/link");
    rules({{"~/link", "a"}});
    EXPECT_EQ(nameIn(home + "/work/project", caseInsensitive), "a");
    EXPECT_EQ(nameIn(home + "/work/project", caseSensitive), "");
}

// A working folder deleted while the shell is still in it has no real path: the rules' written
// forms and their real paths are weighed against the path as given.
TEST_F(RuleIdentityTest, DeletedWorkingFolderWeighedAsWritten) {
    makeSymlink(home + "/work", home + "/link");
    rules({{"~/link", "a"}, {"~/work", "b"}});
    const std::string gone = home + "/work/project/src/deep";
    std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(gone);
    std::filesystem::remove(gone);
    EXPECT_EQ(nameIn(gone), "a");  // both hold it equally deep; the first rule wins
    std::filesystem::current_path(previous);
}

// A bind mount shows the working folder's parent under a second path. Rules name folders by path,
// so a rule for the mount point does not apply inside the original, though it is the same folder.
TEST_F(RuleIdentityTest, BindMountOfTheWorkingFoldersParentIsAnotherFolder) {
    makeDirs(home + "/mounted");
    makeSymlink(home + "/work", home + "/link");
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // In a mount namespace of its own, so nothing outlives the test.
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount((home + "/work").c_str(), (home + "/mounted").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            ::_exit(77);
        }
        rules({{"~/mounted", "a"}});
        bool mountIgnored = nameIn(home + "/work/project") == "";
        bool mountHolds = nameIn(home + "/mounted/project") == "a";
        rules({{"~/link", "b"}});
        bool linkHolds = nameIn(home + "/work/project") == "b" && nameIn(home + "/mounted/project") == "";
        ::_exit(mountIgnored && mountHolds && linkHolds ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no permission to bind-mount in a mount namespace";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace veerline
