#include "core/profile.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/profile_document.h"

namespace veerline {
namespace {

constexpr std::string_view kSuffixAlphabet = "abcdefghijkmnpqrstuvwxyz23456789";

// Checks "<slug>-<4 alphabet characters>".
void expectGenerated(const ProfileID& id, const std::string& slug) {
    ASSERT_EQ(id.rawValue.size(), slug.size() + 5) << id.rawValue;
    EXPECT_EQ(id.rawValue.substr(0, slug.size() + 1), slug + "-");
    for (char c : id.rawValue.substr(slug.size() + 1)) {
        EXPECT_NE(kSuffixAlphabet.find(c), std::string_view::npos) << id.rawValue;
    }
    EXPECT_TRUE(id.isValid()) << id.rawValue;
}

TEST(ProfileIDTest, ValidityBounds) {
    EXPECT_FALSE(ProfileID("").isValid());
    EXPECT_TRUE(ProfileID("a").isValid());
    EXPECT_TRUE(ProfileID(std::string(40, 'x')).isValid());
    EXPECT_FALSE(ProfileID(std::string(41, 'x')).isValid());
    for (const char* bad : {"-a", "a-", "a--b", "Work", "a_b", "a.b", "\u00E9", "a b"}) {
        EXPECT_FALSE(ProfileID(bad).isValid()) << bad;
    }
    EXPECT_TRUE(ProfileID("a-b-c").isValid());
    EXPECT_TRUE(ProfileID("2024").isValid());
}

TEST(ProfileIDTest, OrderingIsByteOrder) {
    EXPECT_LT(ProfileID("a"), ProfileID("b"));
    EXPECT_LT(ProfileID("Z"), ProfileID("a"));
    EXPECT_LT(ProfileID("a"), ProfileID("a-"));
    EXPECT_LT(ProfileID("z"), ProfileID("\u00E9"));
    EXPECT_EQ(ProfileID("x").description(), "x");
}

TEST(ProfileIDTest, GenerateMakesSlugs) {
    expectGenerated(ProfileID::generate("Work", {}), "work");
    expectGenerated(ProfileID::generate("", {}), "profile");
    expectGenerated(ProfileID::generate("!!!", {}), "profile");
    expectGenerated(ProfileID::generate("  Hello,   World  ", {}), "hello-world");
    expectGenerated(ProfileID::generate("\u00DCn\u00EFc\u00F6d\u00E9", {}), "unicode");
    expectGenerated(ProfileID::generate("Caf\u00E9 \u00C4rger", {}), "cafe-arger");
    // The 20th character is a hyphen and is cut away with the rest.
    expectGenerated(ProfileID::generate("a very long profile name indeed", {}), "a-very-long-profile");
    expectGenerated(ProfileID::generate("abcdefghijklmnopqrstuvwxyz", {}), "abcdefghijklmnopqrst");
    // Decomposed accents fold the same as precomposed ones.
    expectGenerated(ProfileID::generate("Cafe\u0301", {}), "cafe");
}

TEST(ProfileIDTest, GenerateAvoidsTakenIds) {
    std::set<ProfileID> taken;
    for (int i = 0; i < 300; ++i) {
        ProfileID id = ProfileID::generate("Team", taken);
        ASSERT_FALSE(taken.contains(id)) << id.rawValue;
        expectGenerated(id, "team");
        taken.insert(id);
    }
    EXPECT_EQ(taken.size(), 300u);
}

TEST(ToolKindTest, TablesAndOrder) {
    EXPECT_LT(ToolKind::claudeDesktop, ToolKind::chatGPTApp);
    EXPECT_LT(ToolKind::chatGPTApp, ToolKind::claudeCode);
    EXPECT_LT(ToolKind::claudeCode, ToolKind::codex);
    EXPECT_EQ(toolkind::dataFolderName(ToolKind::claudeDesktop), "desktop");
    EXPECT_EQ(toolkind::displayName(ToolKind::chatGPTApp), "ChatGPT app");
    EXPECT_TRUE(toolkind::isApp(ToolKind::chatGPTApp));
    EXPECT_FALSE(toolkind::isApp(ToolKind::codex));
    for (ToolKind kind : toolkind::allCases) {
        EXPECT_EQ(toolkind::fromRawValue(toolkind::rawValue(kind)), kind);
    }
    EXPECT_EQ(toolkind::fromRawValue("Codex"), std::nullopt);
    EXPECT_EQ(toolkind::fromRawValue("claude"), std::nullopt);
}

TEST(ToolKindTest, FromArgumentIsForgiving) {
    EXPECT_EQ(toolkind::fromArgument("Claude"), ToolKind::claudeCode);
    EXPECT_EQ(toolkind::fromArgument("code"), ToolKind::claudeCode);
    EXPECT_EQ(toolkind::fromArgument("CODEX"), ToolKind::codex);
    EXPECT_EQ(toolkind::fromArgument("codex-app"), ToolKind::chatGPTApp);
    EXPECT_EQ(toolkind::fromArgument("ChatGPT"), ToolKind::chatGPTApp);
    EXPECT_EQ(toolkind::fromArgument("Desktop"), ToolKind::claudeDesktop);
    EXPECT_EQ(toolkind::fromArgument("cursor"), std::nullopt);
    EXPECT_EQ(toolkind::fromArgument(" codex"), std::nullopt);
}

TEST(ProfileColorTest, HexAndRgb) {
    EXPECT_EQ(profilecolor::allCases.front(), ProfileColor::blue);
    EXPECT_EQ(profilecolor::allCases.back(), ProfileColor::graphite);
    EXPECT_EQ(profilecolor::hex(ProfileColor::blue), "#2563EB");
    EXPECT_EQ(profilecolor::rgb(ProfileColor::blue), (profilecolor::RGB{37, 99, 235}));
    EXPECT_EQ(profilecolor::rgb(ProfileColor::orange), (profilecolor::RGB{234, 88, 12}));
    EXPECT_EQ(profilecolor::rgb(ProfileColor::pink), (profilecolor::RGB{219, 39, 119}));
    EXPECT_EQ(profilecolor::rgb(ProfileColor::graphite), (profilecolor::RGB{75, 85, 99}));
    EXPECT_EQ(profilecolor::fromRawValue("purple"), ProfileColor::purple);
    EXPECT_EQ(profilecolor::fromRawValue("red"), std::nullopt);
    EXPECT_EQ(profilecolor::fromRawValue("Blue"), std::nullopt);
}

TEST(ProfileTest, DefaultBadge) {
    EXPECT_EQ(Profile::defaultBadge("work stuff"), "WS");
    EXPECT_EQ(Profile::defaultBadge("personal"), "P");
    EXPECT_EQ(Profile::defaultBadge("my_work-day"), "MW");
    EXPECT_EQ(Profile::defaultBadge("alpha beta gamma"), "AB");
    EXPECT_EQ(Profile::defaultBadge(""), "?");
    EXPECT_EQ(Profile::defaultBadge("  --  "), "?");
    EXPECT_EQ(Profile::defaultBadge("\u00DFx"), "SS");
    EXPECT_EQ(Profile::defaultBadge("a\tb"), "A");  // a tab separates nothing
    // A whole user-perceived character, its combining mark included.
    EXPECT_EQ(Profile::defaultBadge("e\u0301cole nord"), "E\u0301N");
    EXPECT_EQ(Profile::defaultBadge("\U0001F1EB\U0001F1F7 team"), "\U0001F1EB\U0001F1F7T");
}

TEST(ProfileTest, ToolsStayNormalised) {
    Profile profile(ProfileID("p"), "Work", ProfileColor::blue, std::nullopt,
                    {ToolKind::codex, ToolKind::claudeCode, ToolKind::codex});
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeCode, ToolKind::codex}));
    EXPECT_EQ(profile.badge, "W");
    EXPECT_TRUE(profile.uses(ToolKind::codex));
    EXPECT_FALSE(profile.uses(ToolKind::claudeDesktop));

    profile.setTools({ToolKind::codex, ToolKind::claudeDesktop, ToolKind::claudeDesktop});
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeDesktop, ToolKind::codex}));
    profile.setTools({});
    EXPECT_TRUE(profile.tools().empty());

    Profile explicitBadge(ProfileID("q"), "Work", ProfileColor::blue, std::string(""));
    EXPECT_EQ(explicitBadge.badge, "");
    EXPECT_NE(profile, explicitBadge);
}

TEST(ProfileJSONTest, MissingKeysTakeDefaults) {
    Profile profile = profileFromJSON(nlohmann::json::parse(R"({"id": "p", "name": "Work", "extra": 1})"));
    EXPECT_EQ(profile.id, ProfileID("p"));
    EXPECT_EQ(profile.color, ProfileColor::graphite);
    EXPECT_EQ(profile.badge, "W");
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeDesktop, ToolKind::chatGPTApp,
                                                      ToolKind::claudeCode, ToolKind::codex}));
    EXPECT_EQ(profile.storage, Profile::Storage::managed);

    Profile nulls = profileFromJSON(nlohmann::json::parse(
        R"({"id": "p", "name": "Work", "color": null, "badge": null, "tools": null, "storage": null})"));
    EXPECT_EQ(nulls, profile);

    Profile empty = profileFromJSON(nlohmann::json::parse(
        R"({"id": "p", "name": "Work", "badge": "", "tools": [], "storage": "system"})"));
    EXPECT_EQ(empty.badge, "");
    EXPECT_TRUE(empty.tools().empty());
    EXPECT_EQ(empty.storage, Profile::Storage::system);
}

TEST(ProfileJSONTest, ToolsAreNormalisedBothWays) {
    Profile profile = profileFromJSON(
        nlohmann::json::parse(R"({"id": "p", "name": "Work", "tools": ["codex", "claude-code", "codex"]})"));
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeCode, ToolKind::codex}));
    EXPECT_EQ(profileToJSON(profile)["tools"], nlohmann::json::parse(R"(["claude-code", "codex"])"));
    EXPECT_EQ(profileFromJSON(profileToJSON(profile)), profile);
}

TEST(ProfileJSONTest, BadValuesFailWithWhereAndWhat) {
    auto failure = [](const char* text) -> std::string {
        try {
            profileFromJSON(nlohmann::json::parse(text));
        } catch (const DocumentDecodeError& error) {
            return error.what();
        }
        return "decoded";
    };
    EXPECT_EQ(failure(R"({"id": "p", "name": "W", "color": "red"})"), R"(color: "red" is not a colour)");
    EXPECT_EQ(failure(R"({"id": "p", "name": "W", "tools": ["codex", "cursor"]})"),
              R"(tools[1]: "cursor" is not a tool)");
    EXPECT_EQ(failure(R"({"id": "p", "name": "W", "storage": "cloud"})"),
              R"(storage: "cloud" is not a kind of storage)");
    EXPECT_EQ(failure(R"({"name": "W"})"), R"(top level: the key "id" is missing)");
    EXPECT_EQ(failure(R"({"id": "p", "name": null})"), "name: expected a string, found null");
    EXPECT_EQ(failure(R"({"id": 3, "name": "W"})"), "id: expected a string, found a number");
    EXPECT_EQ(failure(R"({"id": "p", "name": "W", "badge": 1})"), "badge: expected a string, found a number");
    EXPECT_EQ(failure(R"({"id": "p", "name": "W", "tools": "codex"})"),
              "tools: expected an array, found a string");
    EXPECT_EQ(failure(R"(["p"])"), "top level: expected an object, found an array");
}

}  // namespace
}  // namespace veerline
