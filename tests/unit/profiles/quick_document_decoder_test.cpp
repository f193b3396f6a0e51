#include "profiles/quick_document_decoder.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

#include "profiles/profile_document.h"

namespace veerline {
namespace {

// What the full decoder makes of the text, or nothing when it refuses it.
std::optional<ProfileDocument> fullDecode(const std::string& text) {
    try {
        return documentFromJSON(nlohmann::json::parse(text));
    } catch (...) {
        return std::nullopt;
    }
}

TEST(QuickDocumentDecoderTest, ReadsUsualDocumentsExactlyAsTheFullDecoder) {
    Profile work(ProfileID("work"), "Work \u00E9t\u00E9", ProfileColor::orange, "W",
                 {ToolKind::codex, ToolKind::claudeCode}, Profile::Storage::system);
    ProfileDocument written;
    written.profiles = {work, Profile(ProfileID("home"), "Home")};
    written.rules = {FolderRule{"~/work/**", ProfileID("work")}, FolderRule{"/srv/x", ProfileID("home")}};
    written.cliDefault = ProfileID("home");

    const std::vector<std::string> documents = {
        encodeDocument(written),
        encodeDocument(ProfileDocument::empty()),
        // Defaults for every optional key, nulls standing for missing ones, compact layout.
        R"({"version":1,"profiles":[{"id":"a","name":"A"},{"id":"b","name":"B","color":null,"badge":null,)"
        R"("tools":null,"storage":null}],"rules":[],"cliDefault":null})",
        // Unknown keys hold anything, at any depth, and are skipped.
        R"({"extra":{"a":[1,{"b":null}],"c":true},"version":1,"future":[[],{}],"profiles":[{"id":"a",)"
        R"("name":"A","more":{"tools":["nonsense"]},"tools":[],"n":-1.5}],"rules":[{"path":"/x",)"
        R"("profileID":"a","note":"\"quoted\" \u2603"}],"big":18446744073709551615})",
        R"({"version":0,"profiles":[],"rules":[]})",
        R"( {"rules":[],"profiles":[],"version":-3} )",
    };
    for (const std::string& text : documents) {
        SCOPED_TRACE(text);
        std::optional<ProfileDocument> quick = decodeDocumentQuickly(text);
        ASSERT_TRUE(quick.has_value());
        EXPECT_EQ(quick, fullDecode(text));
    }
    EXPECT_EQ(decodeDocumentQuickly(encodeDocument(written)), written);
}

}  // namespace
}  // namespace veerline
