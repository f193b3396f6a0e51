#include "resolution/rule_resolver.h"

#include <gtest/gtest.h>

#include <cstdio>
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
