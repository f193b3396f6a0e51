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

namespace veerline::testing {
namespace {

using Rules = std::initializer_list<std::pair<const char*, const char*>>;

class RuleIdentityTest : public ::testing::Test {
protected:
    TempDir root{"veerline-identity"};
    std::string home = root / "home";
    std::string deep = home + "/work/project/src/deep";
    ProfileDocument document;

    void SetUp() override {
        makeDirs(deep);
        makeSymlink(home + "/work", home + "/link");
        for (const char* id : {"a", "b", "c"}) document.profiles.push_back(Profile{ProfileID(id), id});
    }
    // The name of the profile the rules give in `folder`, or "" for none; `fromInside` makes the
    // folder the working folder for the call, so it is looked at relatively.
    std::string nameIn(Rules rules, const std::string& folder, bool caseSensitive = true, bool fromInside = false) {
        document.rules.clear();
        for (auto [path, id] : rules) document.rules.push_back(FolderRule{path, ProfileID(id)});
        std::string previous = fromInside ? std::filesystem::current_path().string() : "";
        if (fromInside) std::filesystem::current_path(folder);
        Resolution resolution = RuleResolver(document, home, [=](const std::string&) { return caseSensitive; }).resolve(folder, "/");
        if (fromInside) std::filesystem::current_path(previous);
        return resolution.profile ? resolution.profile->name : "";
    }
};

TEST_F(RuleIdentityTest, RuleFoldersAreWeighedByTheirRealPaths) {
    // Two distinct folders whose names differ in letter case only: on a volume that compares names
    // without case, the rule's real path names the working folder's parent, though device and
    // inode differ.
    makeDirs(home + "/Work");
    makeSymlink(home + "/Work", home + "/to-Work");
    EXPECT_EQ(nameIn({{"~/to-Work", "a"}}, home + "/work/project", false), "a");
    EXPECT_EQ(nameIn({{"~/to-Work", "a"}}, home + "/work/project", true), "");

    makeSymlink(home + "/work/project/src", home + "/to-src");
    makeSymlink(home + "/elsewhere", home + "/dangling");
    writeFile(home + "/work/project/.veerline", "c\n");
    // An aggregate, not a pair, so the rule lists live as long as the table.
    const struct {
        Rules rules;
        std::string expected;
    } cases[] = {
        {{{"~/to-src", "a"}}, "a"},                     // real folder below the dotfile's: the rule wins
        {{{"~/link", "a"}}, "c"},                       // real folder above the dotfile's: the dotfile wins
        {{{"~/dangling", "a"}, {"~/nowhere", "b"}}, "c"},  // folders that aren't there match nothing
        {{{"~/work/project/src", "b"}, {"~/to-src", "a"}}, "b"},  // equally deep: the first rule
        {{{"~/to-src", "a"}, {"~/work/project/src", "b"}}, "a"},
        {{{"~/link", "a"}, {"~/work/project/src/deep", "b"}, {"~/to-src", "c"}}, "b"},
    };
    for (const auto& [rules, expected] : cases) {
        EXPECT_EQ(nameIn(rules, deep), expected) << rules.begin()->first;
        EXPECT_EQ(nameIn(rules, deep, true, true), expected) << rules.begin()->first;
    }

    // A working folder deleted while the shell is still in it has no real path: the rules'
    // written forms and their real paths are weighed against the path as given.
    std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(deep);
    std::filesystem::remove(deep);
    EXPECT_EQ(nameIn({{"~/to-src", "a"}, {"~/work/project/src", "b"}}, deep), "a");
    std::filesystem::current_path(previous);
}

// A bind mount shows the working folder's parent under a second path. Rules name folders by path,
// so a rule for the mount point does not apply inside the original, though it is the same folder.
TEST_F(RuleIdentityTest, BindMountOfTheWorkingFoldersParentIsAnotherFolder) {
    makeDirs(home + "/mounted");
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // In a mount namespace of its own, so nothing outlives the test.
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount((home + "/work").c_str(), (home + "/mounted").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            ::_exit(77);
        }
        auto gives = [&](Rules rules, const char* inOriginal, const char* inMount) {
            return nameIn(rules, home + "/work/project") == inOriginal && nameIn(rules, home + "/mounted/project") == inMount;
        };
        ::_exit(gives({{"~/mounted", "a"}}, "", "a") && gives({{"~/link", "b"}}, "b", "") ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "no permission to bind-mount in a mount namespace";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace veerline::testing
