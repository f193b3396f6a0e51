#include "resolution/rule_resolver.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <ostream>

#include "base/paths.h"
#include "support/test_support.h"

namespace veerline {

void PrintTo(const Resolution& resolution, std::ostream* out) {
    *out << "{profile: " << (resolution.profile ? resolution.profile->name : "none") << ", source: "
         << static_cast<int>(resolution.source.kind) << " "
         << (resolution.source.rule ? resolution.source.rule->path : resolution.source.path) << ", warnings:";
    for (const auto& warning : resolution.warnings) *out << " [" << warning << "]";
    *out << "}";
}

namespace {

using testing::makeDirs;
using testing::makeSymlink;
using testing::TempDir;
using testing::writeFile;
using Source = Resolution::Source;

bool caseSensitive(const std::string&) { return true; }

// Runs the enclosing scope in another working folder.
struct WorkingFolder {
    std::string previous = std::filesystem::current_path().string();
    explicit WorkingFolder(const std::string& folder) { std::filesystem::current_path(folder); }
    ~WorkingFolder() { std::filesystem::current_path(previous); }
};
bool caseInsensitive(const std::string&) { return false; }

class RuleResolverTest : public ::testing::Test {
protected:
    TempDir root{"veerline-rules"};
    std::string home = root / "home";
    ProfileDocument document;
    Profile work{ProfileID("work"), "Work"};
    Profile personal{ProfileID("personal"), "Personal"};
    Profile client{ProfileID("client"), "Client Two"};

    void SetUp() override {
        makeDirs(home);
        document.profiles = {work, personal, client};
    }

    FolderRule& addRule(const std::string& path, const std::string& profile) {
        return document.rules.emplace_back(FolderRule{path, ProfileID(profile)});
    }

    Resolution resolve(const std::string& path, RuleResolver::CaseSensitivity volume = caseSensitive,
                       const std::string& cwd = "/") const {
        return RuleResolver(document, home, std::move(volume)).resolve(path, cwd);
    }

    // The name of the profile that applies in `folder` (created first), or "" for none.
    std::string nameIn(const std::string& folder) const {
        makeDirs(folder);
        Resolution resolution = resolve(folder);
        return resolution.profile ? resolution.profile->name : "";
    }
};

TEST_F(RuleResolverTest, DeepestMatchingRuleWins) {
    addRule("~", "personal");
    FolderRule clientRule = addRule("~/code/client/**", "client");
    addRule("~/code/", "work");

    makeDirs(home + "/code/client/app");
    EXPECT_EQ(resolve(home + "/code/client/app"), (Resolution{client, Source::folderRule(clientRule), {}}));
    EXPECT_EQ(nameIn(home + "/code/client"), "Client Two");
    EXPECT_EQ(nameIn(home + "/code/clientele"), "Work");
    EXPECT_EQ(nameIn(home + "/code"), "Work");
    EXPECT_EQ(nameIn(home + "/notes"), "Personal");
    EXPECT_EQ(nameIn(home), "Personal");
    EXPECT_EQ(resolve(root / "elsewhere"), (Resolution{std::nullopt, Source::none(), {}}));
}

TEST_F(RuleResolverTest, FirstOfEquallyDeepRulesWins) {
    FolderRule first = addRule("~/code/**", "work");
    addRule(home + "/code/", "personal");
    makeDirs(home + "/code/x");
    EXPECT_EQ(resolve(home + "/code/x"), (Resolution{work, Source::folderRule(first), {}}));
}

TEST_F(RuleResolverTest, RootRuleLosesToAnyOtherMatch) {
    addRule("/**", "personal");
    addRule("~/code", "work");
    EXPECT_EQ(nameIn(home + "/code/deep/er"), "Work");
    EXPECT_EQ(nameIn(root / "anywhere"), "Personal");
    EXPECT_EQ(resolve("/"), (Resolution{personal, Source::folderRule(document.rules[0]), {}}));
}

TEST_F(RuleResolverTest, TildeAndRelativeTargets) {
    addRule("~/code", "work");
    makeDirs(home + "/code/x");
    EXPECT_EQ(resolve("~/code/x").profile, work);
    EXPECT_EQ(resolve("x/../code", caseSensitive, home).profile, work);
    // Folders that do not exist yet still match by their normalised path.
    EXPECT_EQ(resolve("~/code/not/yet/made").profile, work);
    EXPECT_EQ(resolve("~other/code").profile, std::nullopt);
}

TEST_F(RuleResolverTest, RulesWithUnknownProfilesNeverMatchAndStaySilent) {
    addRule("~", "work");
    addRule("~/code", "ghost");
    EXPECT_EQ(resolve(home + "/code"), (Resolution{work, Source::folderRule(document.rules[0]), {}}));
}

TEST_F(RuleResolverTest, SymbolicLinksOnEitherSide) {
    std::string real = root / "volumes/projects";
    makeDirs(real + "/app/src");
    makeSymlink(real, home + "/projects");

    // Rule written through the link, folder given by its real path.
    addRule("~/projects/app", "work");
    EXPECT_EQ(resolve(real + "/app/src").profile, work);

    // Rule written with the real path, folder given through the link.
    document.rules = {FolderRule{real + "/app", ProfileID("client")}};
    EXPECT_EQ(resolve(home + "/projects/app/src").profile, client);
    EXPECT_EQ(resolve(home + "/projects/other").profile, std::nullopt);
}

TEST_F(RuleResolverTest, RealFormsThroughChainedRelativeAndDanglingLinks) {
    makeDirs(root / "a/b/c/d");
    makeSymlink("../a/b", root / "x/up");
    makeSymlink(root / "x/up", root / "chain");
    addRule(root / "chain/c", "work");
    EXPECT_EQ(resolve(root / "a/b/c/d").profile, work);

    document.rules = {FolderRule{root / "a/b/c", ProfileID("client")}};
    EXPECT_EQ(resolve(root / "chain/c/d").profile, client);
    EXPECT_EQ(resolve(root / "x/up/c").profile, client);
    EXPECT_EQ(resolve(root / "x/up").profile, std::nullopt);

    // A dangling link has no real form, even once its target's name is asked about.
    makeSymlink(root / "later", root / "dangling");
    document.rules = {FolderRule{root / "dangling", ProfileID("work")}};
    EXPECT_EQ(resolve(root / "later/x").profile, std::nullopt);

    // Below a file nothing is real; the rule still matches as written.
    writeFile(root / "a/file", "");
    document.rules = {FolderRule{root / "a/file/sub", ProfileID("personal")}};
    EXPECT_EQ(resolve(root / "a/file/sub/x").profile, personal);
    EXPECT_EQ(resolve(root / "chain/file/sub").profile, std::nullopt);
}

TEST_F(RuleResolverTest, RulesSideBySideAreEachLookedAt) {
    // Rules in one folder: a plain folder, a missing one, a link into the target's ancestors, a
    // dangling link, a name in another case. Only the link can match, through its real form. A
    // few neighbours are looked up one by one, many through one listing of their folder; the
    // answers must not differ.
    std::string target = root / "volumes/deep/project/src";
    makeDirs(target);
    makeDirs(home + "/teams/plain");
    makeSymlink(root / "volumes/deep", home + "/teams/linked");
    makeSymlink(root / "nowhere", home + "/teams/dangling");
    addRule("~/teams/plain", "personal");
    addRule("~/teams/missing", "personal");
    addRule("~/teams/dangling", "personal");
    addRule("~/teams/linked/**", "client");
    addRule("~/teams/PLAIN", "work");
    for (int neighbours : {0, 8}) {
        for (int i = 0; i < neighbours; ++i) addRule("~/teams/more-" + std::to_string(i), "personal");
        SCOPED_TRACE(std::to_string(neighbours) + " more neighbours");
        EXPECT_EQ(resolve(target), (Resolution{client, Source::folderRule(document.rules[3]), {}}));
        EXPECT_EQ(resolve(home + "/teams/plain/x").profile, personal);
        EXPECT_EQ(resolve(home + "/teams/plain/x", caseInsensitive).profile, personal);  // first of equals
        EXPECT_EQ(resolve(root / "volumes").profile, std::nullopt);
    }
}

TEST_F(RuleResolverTest, WorkingFolderReachedThroughALink) {
    std::string real = root / "volumes/work/app";
    makeDirs(real);
    makeSymlink(root / "volumes/work", home + "/w");
    addRule(root / "volumes/work", "work");
    addRule("~/w/app/**", "client");

    // Resolving the working folder itself, by either of its names.
    WorkingFolder inside(real);
    EXPECT_EQ(resolve(home + "/w/app").profile, client);
    EXPECT_EQ(resolve(real).profile, client);
    EXPECT_EQ(resolve(".", caseSensitive, real).profile, client);
    // Another folder still resolves by its own real path.
    EXPECT_EQ(resolve(home + "/w").profile, work);
}

TEST_F(RuleResolverTest, DotfilesFoundWalkingUpFromTheWorkingFolder) {
    std::string project = root / "volumes/work/app";
    makeDirs(project + "/deep/er");
    writeFile(project + "/.veerline", "Client Two\n");
    {
        WorkingFolder inside(project + "/deep/er");
        EXPECT_EQ(resolve(".", caseSensitive, project + "/deep/er"),
                  (Resolution{client, Source::dotfile(project + "/.veerline"), {}}));
    }
    {
        WorkingFolder inside(project);
        EXPECT_EQ(resolve(project), (Resolution{client, Source::dotfile(project + "/.veerline"), {}}));
    }
}

TEST_F(RuleResolverTest, DotfileWinsOnlyStrictlyInsideTheRuleFolder) {
    FolderRule rule = addRule("~/code", "work");
    makeDirs(home + "/code/sub/deeper");

    writeFile(home + "/code/.veerline", "Personal\n");
    EXPECT_EQ(resolve(home + "/code/sub"), (Resolution{work, Source::folderRule(rule), {}}));

    writeFile(home + "/code/sub/.veerline", "personal\n");
    EXPECT_EQ(resolve(home + "/code/sub/deeper"),
              (Resolution{personal, Source::dotfile(home + "/code/sub/.veerline"), {}}));

    // Above the rule folder: the rule wins; without a rule the dotfile decides.
    std::remove((home + "/code/.veerline").c_str());
    std::remove((home + "/code/sub/.veerline").c_str());
    writeFile(home + "/.veerline", "Client Two");
    EXPECT_EQ(resolve(home + "/code/sub").source, Source::folderRule(rule));
    makeDirs(home + "/music");
    EXPECT_EQ(resolve(home + "/music"), (Resolution{client, Source::dotfile(home + "/.veerline"), {}}));
}

TEST_F(RuleResolverTest, DotfileDepthIsWeighedThroughSymbolicLinks) {
    std::string real = root / "real/project";
    makeDirs(real + "/sub/deeper");
    makeSymlink(root / "real", home + "/link");
    addRule(real, "work");

    // Found along the linked path; its real folder lies strictly inside the rule's folder.
    writeFile(real + "/sub/.veerline", "Personal");
    EXPECT_EQ(resolve(home + "/link/project/sub/deeper"),
              (Resolution{personal, Source::dotfile(home + "/link/project/sub/.veerline"), {}}));

    // In the rule's folder itself, only deeper when counted along the link: the rule wins.
    std::remove((real + "/sub/.veerline").c_str());
    writeFile(real + "/.veerline", "Personal");
    EXPECT_EQ(resolve(home + "/link/project/sub").profile, work);
}

TEST_F(RuleResolverTest, DotfileNamingUnknownProfileWarnsOnceAndFallsBack) {
    makeDirs(home + "/code/sub");
    writeFile(home + "/.veerline", "Work\n");  // further up: never consulted
    writeFile(home + "/code/sub/.veerline", "# chosen by hand\nNobody Here\nWork\n");
    const std::string warning =
        home + "/code/sub/.veerline names \u201CNobody Here\u201D, but there's no profile with that name.";

    document.cliDefault = ProfileID("client");
    EXPECT_EQ(resolve(home + "/code/sub"), (Resolution{client, Source::cliDefault(), {warning}}));

    FolderRule rule = addRule("~/code", "personal");
    EXPECT_EQ(resolve(home + "/code/sub"), (Resolution{personal, Source::folderRule(rule), {warning}}));

    document.rules.clear();
    document.cliDefault.reset();
    EXPECT_EQ(resolve(home + "/code/sub"), (Resolution{std::nullopt, Source::none(), {warning}}));
}

TEST_F(RuleResolverTest, DotfilesWithoutReferenceArePassedOver) {
    makeDirs(home + "/a/b/c");
    writeFile(home + "/a/.veerline", "  Work  \n");
    writeFile(home + "/a/b/.veerline", "# only comments\n\n   \t\n#Personal\n");
    writeFile(home + "/a/b/c/.veerline", "");
    EXPECT_EQ(resolve(home + "/a/b/c"), (Resolution{work, Source::dotfile(home + "/a/.veerline"), {}}));

    // A folder named like the dotfile is not one.
    std::remove((home + "/a/b/c/.veerline").c_str());
    makeDirs(home + "/a/b/c/.veerline");
    EXPECT_EQ(resolve(home + "/a/b/c").source, Source::dotfile(home + "/a/.veerline"));
}

TEST_F(RuleResolverTest, OversizedDotfileIsIgnoredAsAWhole) {
    makeDirs(home + "/p/q");
    writeFile(home + "/.veerline", "Personal");
    std::string exact = "Work\n" + std::string(4096 - 5, '#');
    ASSERT_EQ(exact.size(), 4096u);
    writeFile(home + "/p/q/.veerline", exact);
    EXPECT_EQ(resolve(home + "/p/q").profile, work);

    writeFile(home + "/p/q/.veerline", exact + "#");
    EXPECT_EQ(resolve(home + "/p/q"), (Resolution{personal, Source::dotfile(home + "/.veerline"), {}}));
}

TEST_F(RuleResolverTest, TerminalDefault) {
    EXPECT_EQ(resolve(home), (Resolution{std::nullopt, Source::none(), {}}));
    document.cliDefault = ProfileID("personal");
    EXPECT_EQ(resolve(home), (Resolution{personal, Source::cliDefault(), {}}));
    document.cliDefault = ProfileID("ghost");
    EXPECT_EQ(resolve(home), (Resolution{std::nullopt, Source::none(), {}}));
}

TEST_F(RuleResolverTest, CaseIsIgnoredOnlyWhereTheVolumeSaysSo) {
    addRule(root / "Work", "work");
    makeDirs(root / "work/x");
    EXPECT_EQ(resolve(root / "work/x", caseInsensitive).profile, work);
    EXPECT_EQ(resolve(root / "work/x", caseSensitive).profile, std::nullopt);
    EXPECT_EQ(resolve(root / "WORK", caseInsensitive).profile, work);

    // A dotfile in the rule's folder written in another case is not deeper than the rule.
    writeFile(root / "work/.veerline", "Personal");
    EXPECT_EQ(resolve(root / "work/x", caseInsensitive).profile, work);
    EXPECT_EQ(resolve(root / "work/x", caseSensitive).profile, personal);

    // The volume is asked about the real path of the folder.
    std::vector<std::string> asked;
    makeSymlink(root / "work", home + "/w");
    resolve(home + "/w/x", [&](const std::string& path) {
        asked.push_back(path);
        return true;
    });
    EXPECT_EQ(asked, std::vector<std::string>{root / "work/x"});

    // Only asked when the answer matters: not for rules that hold the folder as written, nor for
    // plain ASCII ones that differ beyond case.
    document.rules = {FolderRule{root / "work", ProfileID("personal")}, FolderRule{root / "wORKS", ProfileID("work")},
                      FolderRule{"~/elsewhere", ProfileID("work")}, FolderRule{root / "other/\u00C4rger", ProfileID("work")},
                      FolderRule{root / "work/x/deeper", ProfileID("work")}};
    asked.clear();
    auto counted = [&](const std::string& path) {
        asked.push_back(path);
        return false;
    };
    EXPECT_EQ(resolve(root / "work/x", counted).profile, personal);
    EXPECT_TRUE(asked.empty());
    document.rules.push_back(FolderRule{root / "\u00C4rger", ProfileID("client")});
    makeDirs(root / "\u00E4rger/x");
    EXPECT_EQ(resolve(root / "\u00E4rger/x", counted).profile, client);
    EXPECT_EQ(asked.size(), 1u);
    EXPECT_EQ(resolve(root / "\u00E4rger/x", caseSensitive).profile, std::nullopt);
    document.rules = {FolderRule{root / "Work", ProfileID("work")}};

    // Without an answer given, the volume decides.
    std::remove((root / "work/.veerline").c_str());
    bool volumeIsCaseSensitive = PathUtil::isCaseSensitiveVolume(root.path());
    Resolution byVolume = RuleResolver(document, home).resolve(root / "work/x", "/");
    EXPECT_EQ(byVolume.profile, volumeIsCaseSensitive ? std::nullopt : std::optional<Profile>(work));
}

TEST(ReadReferenceTest, FirstMeaningfulLineAfterEveryKindOfLineBreak) {
    TempDir dir{"veerline-dotfile"};
    std::string file = dir / ".veerline";
    auto read = [&](const std::string& content) {
        writeFile(file, content);
        return RuleResolver::readReference(file);
    };
    for (const char* lineBreak : {"\n", "\r", "\r\n", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
        EXPECT_EQ(read(std::string("# comment") + lineBreak + "Work" + lineBreak + "Other"), "Work")
            << "line break " << ::testing::PrintToString(lineBreak);
    }
    EXPECT_EQ(read("\t  My  Work \t\n"), "My  Work");
    EXPECT_EQ(read("\n\n  #Work\n\u00A0Work\n"), "\u00A0Work");  // only spaces and tabs are trimmed
    EXPECT_EQ(read("Caf\u00E9"), "Caf\u00E9");
    for (const char* nothing : {"", "#Work\n \t \n", "Wo\xFFrk\n"}) EXPECT_EQ(read(nothing), std::nullopt) << nothing;
    EXPECT_EQ(RuleResolver::readReference(dir / "missing"), std::nullopt);
    EXPECT_EQ(RuleResolver::readReference(dir.path()), std::nullopt);
}

}  // namespace
}  // namespace veerline
