// Which profile applies in a folder: the deepest rule, a dotfile strictly inside it, the terminal
// default; rule folders weighed by their real paths, letter case as the volume compares it.

#include "resolution/rule_resolver.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using Rules = std::vector<std::pair<std::string, std::string>>;  // folder, profile id

class RuleResolverTest : public ::testing::Test {
protected:
    TempDir root{"veerline-rules"};
    std::string home = root / "home";
    ProfileDocument document;
    std::vector<std::string> asked;  // what the volume was asked about, in the last decision

    void SetUp() override {
        for (const char* folder : {"/home/code/client/app", "/home/code/clientele", "/home/code/sub/deeper", "/home/notes",
                                   "/home/music", "/home/mounted", "/home/work/project/src/deep", "/home/Work",
                                   "/volumes/projects/app/src", "/work/x", "/\u00E4rger/x"}) {
            makeDirs(root.path() + folder);
        }
        for (const auto& [link, target] : Rules{{"/home/projects", "/volumes/projects"}, {"/home/link", "/home/work"},
                                               {"/home/to-Work", "/home/Work"}, {"/home/to-src", "/home/work/project/src"},
                                               {"/home/dangling", "/home/elsewhere"}, {"/home/w", "/work"}}) {
            makeSymlink(root.path() + target, root.path() + link);
        }
        document.profiles = {Profile{ProfileID("work"), "Work"}, Profile{ProfileID("personal"), "Personal"},
                             Profile{ProfileID("client"), "Client Two"}};
    }

    // "~/x" is below HOME, "/x" below the temporary folder.
    std::string at(const std::string& path) const { return path.starts_with('~') ? home + path.substr(1) : root.path() + path; }
    void setRules(const Rules& rules) {
        document.rules.clear();
        for (const auto& [path, id] : rules) document.rules.push_back(FolderRule{path.starts_with('~') ? path : at(path), ProfileID(id)});
    }
    std::string shortened(std::string text) const {
        for (const auto& [from, to] : Rules{{home, "~"}, {root.path(), ""}}) {
            for (auto found = text.find(from); found != std::string::npos; found = text.find(from, found)) text.replace(found, from.size(), to);
        }
        return text;
    }

    // `fromInside` makes the folder the working folder for the call, so it is looked at relatively.
    Resolution resolve(const std::string& folder, bool caseSensitive, bool fromInside = false) {
        asked.clear();
        fs::path previous = fromInside ? fs::current_path() : fs::path();
        if (fromInside) fs::current_path(folder);
        auto volume = [&](const std::string& path) { return asked.push_back(path), caseSensitive; };
        Resolution resolution = RuleResolver(document, home, volume).resolve(folder, "/");
        if (fromInside) fs::current_path(previous);
        return resolution;
    }
    // The profile and what decided it, as the cases below spell it.
    std::string describe(const Resolution& resolution) const {
        std::string text = resolution.profile ? resolution.profile->name : "none";
        if (resolution.source.rule) text += " by " + resolution.source.rule->path;
        if (!resolution.source.path.empty()) text += " by " + resolution.source.path;
        if (resolution.source.kind == Resolution::Source::Kind::cliDefault) text += " by default";
        for (const auto& warning : resolution.warnings) text += " [" + warning + "]";
        return shortened(text);
    }
};

TEST_F(RuleResolverTest, TheDeepestRuleOrADotfileInsideItDecides) {
    const std::string warned = " [~/code/sub/.veerline names \u201CNobody Here\u201D, but there's no profile with that name.]";
    const std::string deep = "~/work/project/src/deep";
    const Rules nested = {{"~", "personal"}, {"~/code/client/**", "client"}, {"~/code/", "work"}};
    Rules plain = {{"/work", "personal"}, {"/wORKS", "work"}, {"~/elsewhere", "work"}, {"/other/\u00C4rger", "work"}, {"/work/x/deeper", "work"}};
    Rules umlaut = plain;
    umlaut.emplace_back("/\u00C4rger", "client");
    const std::map<std::string, std::string> unknown = {{"~", "Work\n"}, {"~/code/sub", "# chosen by hand\nNobody Here\nWork\n"}};
    const std::map<std::string, std::string> project = {{"~/work/project", "client two\n"}};
    const struct {
        Rules rules;
        std::string folder, expected;
        std::map<std::string, std::string> dotfiles = {};  // folder: content
        const char* cliDefault = nullptr;
        bool caseSensitive = true;
        const char* asked = nullptr;  // what the volume must be asked about, where that is the point
    } cases[] = {
        {nested, "~/code/client/app", "Client Two by ~/code/client/**"},
        {nested, "~/code/client", "Client Two by ~/code/client/**"},
        {nested, "~/code/clientele", "Work by ~/code/"},
        {nested, "~/code", "Work by ~/code/"},
        {nested, "~/notes", "Personal by ~"},
        {nested, "~", "Personal by ~"},
        {nested, "/elsewhere", "none"},
        // Symbolic links on either side: the rule written through one, or the folder given through one.
        {{{"~/projects/app", "work"}}, "/volumes/projects/app/src", "Work by ~/projects/app"},
        {{{"/volumes/projects/app", "client"}}, "~/projects/app/src", "Client Two by /volumes/projects/app"},
        {{{"/volumes/projects/app", "client"}}, "~/projects/other", "none"},
        // A dotfile wins only from strictly inside the rule's folder; without a rule it decides.
        {{{"~/code", "work"}}, "~/code/sub", "Work by ~/code", {{"~/code", "Personal\n"}}},
        {{{"~/code", "work"}}, "~/code/sub/deeper", "Personal by ~/code/sub/.veerline", {{"~/code", "Personal\n"}, {"~/code/sub", "personal\n"}}},
        {{{"~/code", "work"}}, "~/code/sub", "Work by ~/code", {{"~", "Client Two"}}},
        {{{"~/code", "work"}}, "~/music", "Client Two by ~/.veerline", {{"~", "Client Two"}}},
        // The nearest dotfile naming no profile warns; the one further up is never consulted.
        {{}, "~/code/sub", "Client Two by default" + warned, unknown, "client"},
        {{{"~/code", "personal"}}, "~/code/sub", "Personal by ~/code" + warned, unknown, "client"},
        {{}, "~/code/sub", "none" + warned, unknown},
        {{}, "~", "none"},
        {{}, "~", "Personal by default", {}, "personal"},
        {{}, "~", "none", {}, "ghost"},
        // Rule folders are weighed by their real paths. ~/Work and ~/work differ in letter case only:
        // where names compare without case, the real path of the link to ~/Work holds ~/work.
        {{{"~/to-Work", "work"}}, "~/work/project", "Work by ~/to-Work", {}, nullptr, false},
        {{{"~/to-Work", "work"}}, "~/work/project", "none"},
        {{{"~/to-src", "work"}}, deep, "Work by ~/to-src", project},  // real folder below the dotfile's: the rule wins
        {{{"~/link", "work"}}, deep, "Client Two by ~/work/project/.veerline", project},  // above it: the dotfile wins
        {{{"~/dangling", "work"}, {"~/nowhere", "personal"}}, deep, "Client Two by ~/work/project/.veerline", project},
        {{{"~/work/project/src", "personal"}, {"~/to-src", "work"}}, deep, "Personal by ~/work/project/src", project},  // equally deep: the first
        {{{"~/to-src", "work"}, {"~/work/project/src", "personal"}}, deep, "Work by ~/to-src", project},
        {{{"~/link", "work"}, {deep, "personal"}, {"~/to-src", "client"}}, deep, "Personal by " + deep, project},
        // Case is ignored only where the volume says so; a dotfile in the rule's folder written in
        // another case is not deeper than the rule.
        {{{"/Work", "work"}}, "/work/x", "Work by /Work", {}, nullptr, false},
        {{{"/Work", "work"}}, "/work/x", "none"},
        {{{"/Work", "work"}}, "/WORK", "Work by /Work", {}, nullptr, false},
        {{{"/Work", "work"}}, "/work/x", "Work by /Work", {{"/work", "Personal"}}, nullptr, false},
        {{{"/Work", "work"}}, "/work/x", "Personal by /work/.veerline", {{"/work", "Personal"}}},
        // The volume is asked about the folder's real path, and only when the answer depends on it:
        // not for rules that hold the folder as written, nor for plain ASCII ones that differ beyond case.
        {{{"/Work", "work"}}, "~/w/x", "none", {}, nullptr, true, "/work/x"},
        {plain, "/work/x", "Personal by /work", {}, nullptr, false, ""},
        {umlaut, "/\u00E4rger/x", "Client Two by /\u00C4rger", {}, nullptr, false, "/\u00E4rger/x"},
        {umlaut, "/\u00E4rger/x", "none"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.folder + ": " + c.expected);
        for (const auto& [folder, content] : c.dotfiles) writeFile(at(folder) + "/.veerline", content);
        setRules(c.rules);
        document.cliDefault = c.cliDefault ? std::optional(ProfileID(c.cliDefault)) : std::nullopt;
        Resolution outside = resolve(at(c.folder), c.caseSensitive);
        EXPECT_EQ(describe(outside), c.expected);
        std::string askedAbout;
        for (const auto& path : asked) askedAbout += shortened(path);
        EXPECT_TRUE(!c.asked || askedAbout == c.asked) << askedAbout;
        // The same answer from inside the folder, where there is one.
        EXPECT_TRUE(!fs::is_directory(at(c.folder)) || resolve(at(c.folder), c.caseSensitive, true) == outside);
        for (const auto& [folder, content] : c.dotfiles) fs::remove(at(folder) + "/.veerline");
    }

    // Without an answer given, the volume itself decides.
    setRules({{"/Work", "work"}});
    Resolution byVolume = RuleResolver(document, home).resolve(at("/work/x"), "/");
    EXPECT_EQ(byVolume.profile.has_value(), !PathUtil::isCaseSensitiveVolume(root.path()));

    // A working folder deleted while the shell is still in it has no real path: the rules' written
    // forms and their real paths are weighed against the path as given.
    setRules({{"~/to-src", "work"}, {"~/work/project/src", "personal"}});
    writeFile(at("~/work/project/.veerline"), "client two\n");
    fs::path previous = fs::current_path();
    fs::current_path(at(deep));
    fs::remove(at(deep));
    EXPECT_EQ(describe(resolve(at(deep), true)), "Work by ~/to-src");
    fs::current_path(previous);
}

// A bind mount shows the working folder's parent under a second path. Rules name folders by path,
// so a rule for the mount point does not apply inside the original, though it is the same folder.
TEST_F(RuleResolverTest, BindMountOfTheWorkingFoldersParentIsAnotherFolder) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // In a mount namespace of its own, so nothing outlives the test.
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount((home + "/work").c_str(), (home + "/mounted").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            ::_exit(77);
        }
        auto gives = [&](const Rules& rules, const std::string& inOriginal, const std::string& inMount) {
            setRules(rules);
            return describe(resolve(home + "/work/project", true)) == inOriginal && describe(resolve(home + "/mounted/project", true)) == inMount;
        };
        ::_exit(gives({{"~/mounted", "work"}}, "none", "Work by ~/mounted") && gives({{"~/link", "work"}}, "Work by ~/link", "none") ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "no permission to bind-mount in a mount namespace";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(RuleResolverTest, ADotfileNamesTheProfileOnItsFirstMeaningfulLine) {
    auto read = [&](const std::string& content) {
        writeFile(root / ".veerline", content);
        return RuleResolver::readReference(root / ".veerline");
    };
    for (const char* lineBreak : {"\n", "\r", "\r\n", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
        EXPECT_EQ(read(std::string("# comment") + lineBreak + "Work" + lineBreak + "Other"), "Work") << ::testing::PrintToString(lineBreak);
    }
    EXPECT_EQ(read("\t  My  Work \t\n"), "My  Work");
    EXPECT_EQ(read("\n\n  #Work\n\u00A0Work\n"), "\u00A0Work");  // only spaces and tabs are trimmed
    EXPECT_EQ(read("Caf\u00E9"), "Caf\u00E9");
    for (const char* nothing : {"", "#Work\n \t \n", "Wo\xFFrk\n"}) EXPECT_EQ(read(nothing), std::nullopt) << nothing;
    for (const std::string& path : {root / "missing", root.path()}) EXPECT_EQ(RuleResolver::readReference(path), std::nullopt) << path;
}

}  // namespace
}  // namespace veerline::testing
