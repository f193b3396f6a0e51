#include "profiles/profile_document.h"

#include <gtest/gtest.h>

#include "base/error.h"

namespace veerline {
namespace {

Profile makeProfile(const std::string& id, const std::string& name,
                    Profile::Storage storage = Profile::Storage::managed) {
    return Profile(ProfileID(id), name, ProfileColor::blue, std::nullopt,
                   {ToolKind::claudeCode, ToolKind::codex}, storage);
}

FolderRule makeRule(const std::string& path, const std::string& id) {
    return FolderRule{path, ProfileID(id)};
}

// The validation message, or "valid"; `kind` receives the error's kind.
std::string validation(const ProfileDocument& document, VeerlineError::Kind* kind = nullptr) {
    try {
        document.validate();
    } catch (const VeerlineError& error) {
        if (kind != nullptr) *kind = error.kind();
        return error.errorDescription();
    }
    return "valid";
}

std::string decodeFailure(std::string_view text) {
    try {
        decodeDocument(text);
    } catch (const DocumentDecodeError& error) {
        return error.what();
    }
    return "decoded";
}

TEST(ProfileDocumentTest, ProfileChecksInOrder) {
    EXPECT_EQ(validation(ProfileDocument::empty()), "valid");

    ProfileDocument document;
    VeerlineError::Kind kind = VeerlineError::Kind::io;
    document.profiles = {makeProfile("Work", "Work")};
    EXPECT_EQ(validation(document, &kind), "\u201CWork\u201D isn't a valid profile id.");
    EXPECT_EQ(kind, VeerlineError::Kind::invalidProfile);

    for (const char* blank : {"   ", "\u3000\t"}) {
        document.profiles = {makeProfile("w", blank)};
        EXPECT_EQ(validation(document), "Profile names can't be empty.");
    }

    document.profiles = {makeProfile("w", "  " + std::string(40, 'n') + "  ")};
    EXPECT_EQ(validation(document), "valid");
    document.profiles = {makeProfile("w", std::string(41, 'n'))};
    EXPECT_EQ(validation(document),
              "\u201C" + std::string(41, 'n') + "\u201D is too long. Use 40 characters or fewer.");
    // Forty user-perceived characters, far more bytes.
    std::string accented;
    for (int i = 0; i < 40; ++i) accented += "e\u0301";
    document.profiles = {makeProfile("w", accented)};
    EXPECT_EQ(validation(document), "valid");

    document.profiles = {makeProfile("w", "Work"), makeProfile("h", " work ")};
    EXPECT_EQ(validation(document), "There's already a profile called \u201Cwork\u201D.");

    document.profiles = {makeProfile("w", "Work"), makeProfile("w", "Work")};
    EXPECT_EQ(validation(document), "Two profiles share the id \u201Cw\u201D.");

    // The second system profile is only reported once every profile passed its own checks.
    document.profiles = {makeProfile("a", "A", Profile::Storage::system),
                         makeProfile("b", "B", Profile::Storage::system), makeProfile("c", "")};
    EXPECT_EQ(validation(document), "Profile names can't be empty.");
    document.profiles.pop_back();
    EXPECT_EQ(validation(document), "Only one profile can use the tools' default setup.");
}

TEST(ProfileDocumentTest, RuleAndDefaultChecksInOrder) {
    ProfileDocument document;
    document.profiles = {makeProfile("w", "Work"), makeProfile("p", "Personal")};

    VeerlineError::Kind kind = VeerlineError::Kind::io;
    document.rules = {makeRule("code/work", "missing")};
    EXPECT_EQ(validation(document, &kind), "The rule for code/work points at a profile that doesn't exist.");
    EXPECT_EQ(kind, VeerlineError::Kind::invalidRule);

    document.rules = {makeRule("code/work", "w")};
    EXPECT_EQ(validation(document), "\u201C" "code/work" "\u201D isn't a full path. Start it with / or ~.");

    document.rules = {makeRule("~/code", "w"), makeRule("/Users/x/code", "p"), makeRule("", "p")};
    EXPECT_EQ(validation(document), "valid");

    document.rules = {makeRule("~/code/**", "w"), makeRule("~/Code", "p")};
    EXPECT_EQ(validation(document), "There's already a rule for ~/Code.");

    document.rules = {makeRule("~/code", "w")};
    document.cliDefault = ProfileID("gone");
    EXPECT_EQ(validation(document, &kind), "The terminal default points at a profile that doesn't exist.");
    EXPECT_EQ(kind, VeerlineError::Kind::invalidProfile);
    document.rules.push_back(makeRule("rel", "w"));
    EXPECT_EQ(validation(document), "\u201Crel\u201D isn't a full path. Start it with / or ~.");
    document.rules.pop_back();
    document.cliDefault = ProfileID("p");
    EXPECT_EQ(validation(document), "valid");
}

TEST(ProfileDocumentJSONTest, UnreadableDocumentsSayWhere) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"version": 1, "profiles": []})", R"(top level: the key "rules" is missing)"},
        {R"({"profiles": [], "rules": []})", R"(top level: the key "version" is missing)"},
        {R"({"version": 1.5, "profiles": [], "rules": []})", "version: expected an integer, found 1.5"},
        {R"({"version": 1, "profiles": [{"id": "a", "name": "A"}, {"id": "b", "name": "B", "color": "red"}],
             "rules": []})", R"(profiles[1].color: "red" is not a colour)"},
        {R"({"version": 1, "profiles": [], "rules": [{"path": "/x"}]})", R"(rules[0]: the key "profileID" is missing)"},
        {R"({"version": 1, "profiles": [], "rules": [], "cliDefault": 4})", "cliDefault: expected a string, found a number"},
        {"", "the file is empty"},
        {"{\n  \"version\": 1,\n  oops\n}", "not valid JSON (line 3, column 3)"},
        {R"({"version": 1, "profiles": [], "rules": []} x)", "not valid JSON (line 1, column 45)"}};
    for (const auto& [text, message] : cases) EXPECT_EQ(decodeFailure(text), message) << text;
}


TEST(ProfileDocumentJSONTest, ReadsDefaultsAndIgnoresUnknownKeys) {
    ProfileDocument document = decodeDocument(R"({
        "version": 1, "future": {"x": 1},
        "profiles": [{"id": "p", "name": "Work", "later": true}],
        "rules": [{"path": "~/code/**", "profileID": "p", "note": "x"}]
    })");
    EXPECT_EQ(document.version, 1);
    ASSERT_EQ(document.profiles.size(), 1u);
    EXPECT_EQ(document.profiles[0].badge, "W");
    ASSERT_EQ(document.rules.size(), 1u);
    EXPECT_EQ(document.rules[0], makeRule("~/code/**", "p"));
    EXPECT_EQ(document.cliDefault, std::nullopt);

    EXPECT_EQ(decodeDocument(R"({"version": 1, "profiles": [], "rules": [], "cliDefault": null})").cliDefault,
              std::nullopt);
    EXPECT_EQ(decodeDocument(R"({"version": 0, "profiles": [], "rules": []})").version, 0);
    EXPECT_EQ(decodeDocument(R"({"version": 1.0, "profiles": [], "rules": []})").version, 1);
}

}  // namespace
}  // namespace veerline
