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
