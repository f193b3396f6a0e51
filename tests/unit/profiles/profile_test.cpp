#include "profiles/profile.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "profiles/profile_document.h"

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
    EXPECT_LT(ProfileID("Z"), ProfileID("a"));
    EXPECT_LT(ProfileID("z"), ProfileID("\u00E9"));
}

TEST(ProfileIDTest, GenerateMakesSlugs) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Work", "work"}, {"", "profile"}, {"!!!", "profile"}, {"  Hello,   World  ", "hello-world"},
        {"\u00DCn\u00EFc\u00F6d\u00E9", "unicode"}, {"Caf\u00E9 \u00C4rger", "cafe-arger"},
        // The 20th character is a hyphen and is cut away with the rest.
        {"a very long profile name indeed", "a-very-long-profile"},
        {"abcdefghijklmnopqrstuvwxyz", "abcdefghijklmnopqrst"},
        // Decomposed accents fold the same as precomposed ones.
        {"Cafe\u0301", "cafe"}};
    for (const auto& [name, slug] : cases) {
        SCOPED_TRACE(name);
        expectGenerated(ProfileID::generate(name, {}), slug);
    }
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

TEST(ToolKindTest, RawValuesAreExactArgumentsAreForgiving) {
    for (ToolKind kind : toolkind::allCases) EXPECT_EQ(toolkind::fromRawValue(toolkind::rawValue(kind)), kind);
    EXPECT_EQ(toolkind::fromRawValue("Codex"), std::nullopt);
    EXPECT_EQ(toolkind::fromRawValue("claude"), std::nullopt);
    const std::vector<std::pair<std::string, std::optional<ToolKind>>> arguments = {
        {"Claude", ToolKind::claudeCode},  {"code", ToolKind::claudeCode},     {"CODEX", ToolKind::codex},
        {"codex-app", ToolKind::chatGPTApp}, {"ChatGPT", ToolKind::chatGPTApp}, {"Desktop", ToolKind::claudeDesktop},
        {"cursor", std::nullopt},          {" codex", std::nullopt}};
    for (const auto& [argument, kind] : arguments) EXPECT_EQ(toolkind::fromArgument(argument), kind) << argument;
    EXPECT_EQ(profilecolor::fromRawValue("purple"), ProfileColor::purple);
    EXPECT_EQ(profilecolor::fromRawValue("Blue"), std::nullopt);
}

TEST(ProfileTest, DefaultBadge) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"work stuff", "WS"}, {"personal", "P"}, {"my_work-day", "MW"}, {"alpha beta gamma", "AB"},
        {"", "?"}, {"  --  ", "?"}, {"\u00DFx", "SS"},
        {"a\tb", "A"},  // a tab separates nothing
        // A whole user-perceived character, its combining mark included.
        {"e\u0301cole nord", "E\u0301N"}, {"\U0001F1EB\U0001F1F7 team", "\U0001F1EB\U0001F1F7T"}};
    for (const auto& [name, badge] : cases) EXPECT_EQ(Profile::defaultBadge(name), badge) << name;
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
