// The profiles subsystem: profiles and their ids, the document that holds them (validation in
// the order users meet the problems, both decoders of the file), and the store that saves it,
// with real processes racing on its lock.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstring>
#include <functional>
#include <regex>

#include "base/error.h"
#include "profiles/profile_document.h"
#include "profiles/profile_store.h"
#include "profiles/quick_document_decoder.h"
#include "support/folder_entries.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using Kind = VeerlineError::Kind;
using Args = std::vector<std::string>;

Profile makeProfile(const std::string& id, const std::string& name, Profile::Storage storage = Profile::Storage::managed) {
    return Profile(ProfileID(id), name, ProfileColor::blue, std::nullopt, {ToolKind::claudeCode, ToolKind::codex}, storage);
}

// What `step` throws, or "passed".
template <typename Step>
std::string messageOf(Step step, Kind* kind = nullptr) {
    try {
        step();
    } catch (const VeerlineError& error) {
        if (kind != nullptr) *kind = error.kind();
        return error.errorDescription();
    } catch (const DocumentDecodeError& error) {
        return error.what();
    }
    return "passed";
}

TEST(ProfileIDTest, ValidityAndGeneratedSlugs) {
    for (const std::string& bad : Args{"", "-a", "a-", "a--b", "Work", "a_b", "a.b", "\u00E9", "a b", std::string(41, 'x')}) {
        EXPECT_FALSE(ProfileID(bad).isValid()) << bad;
    }
    for (const std::string& good : Args{"a", "a-b-c", "2024", std::string(40, 'x')}) EXPECT_TRUE(ProfileID(good).isValid());

    const std::pair<std::string, std::string> slugs[] = {
        {"Work", "work"}, {"", "profile"}, {"!!!", "profile"}, {"  Hello,   World  ", "hello-world"},
        {"\u00DCn\u00EFc\u00F6d\u00E9", "unicode"}, {"Caf\u00E9 \u00C4rger", "cafe-arger"},
        // The 20th character is a hyphen and is cut away with the rest.
        {"a very long profile name indeed", "a-very-long-profile"},
        {"abcdefghijklmnopqrstuvwxyz", "abcdefghijklmnopqrst"},
        // Decomposed accents fold the same as precomposed ones.
        {"Cafe\u0301", "cafe"}};
    for (const auto& [name, slug] : slugs) {
        ProfileID id = ProfileID::generate(name, {});
        EXPECT_TRUE(std::regex_match(id.rawValue, std::regex(slug + "-[a-km-np-z2-9]{4}")) && id.isValid()) << id.rawValue;
    }
}

TEST(ProfileTest, ToolsStayNormalised) {
    Profile profile(ProfileID("p"), "Work", ProfileColor::blue, std::nullopt,
                    {ToolKind::codex, ToolKind::claudeCode, ToolKind::codex});
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeCode, ToolKind::codex}));
    EXPECT_EQ(profile.badge, "W");
    EXPECT_TRUE(profile.uses(ToolKind::codex) && !profile.uses(ToolKind::claudeDesktop));
    profile.setTools({ToolKind::codex, ToolKind::claudeDesktop, ToolKind::claudeDesktop});
    EXPECT_EQ(profile.tools(), (std::vector<ToolKind>{ToolKind::claudeDesktop, ToolKind::codex}));
    EXPECT_EQ(Profile(ProfileID("q"), "Work", ProfileColor::blue, std::string("")).badge, "") << "a chosen badge stays";
}

TEST(ProfileDocumentTest, ChecksInTheOrderUsersMeetThem) {
    std::string accented;  // forty user-perceived characters, far more bytes
    for (int i = 0; i < 40; ++i) accented += "e\u0301";
    const auto w = makeProfile("w", "Work"), p = makeProfile("p", "Personal");
    const auto system = Profile::Storage::system;
    struct Case {
        std::vector<Profile> profiles;
        std::vector<FolderRule> rules;
        std::optional<ProfileID> cliDefault;
        std::string message;
        Kind kind = Kind::invalidProfile;
    };
    const Case cases[] = {
        {{}, {}, {}, "passed"},
        {{makeProfile("Work", "Work")}, {}, {}, "\u201CWork\u201D isn't a valid profile id."},
        {{makeProfile("w", "   ")}, {}, {}, "Profile names can't be empty."},
        {{makeProfile("w", "\u3000\t")}, {}, {}, "Profile names can't be empty."},
        {{makeProfile("w", "  " + std::string(40, 'n') + "  ")}, {}, {}, "passed"},
        {{makeProfile("w", std::string(41, 'n'))}, {}, {},
         "\u201C" + std::string(41, 'n') + "\u201D is too long. Use 40 characters or fewer."},
        {{makeProfile("w", accented)}, {}, {}, "passed"},
        {{w, makeProfile("h", " work ")}, {}, {}, "There's already a profile called \u201Cwork\u201D."},
        {{w, makeProfile("h", "\u00A0Work\u205F")}, {}, {}, "There's already a profile called \u201CWork\u201D."},
        {{w, w}, {}, {}, "Two profiles share the id \u201Cw\u201D."},
        // Several problems: the first profile or rule in order that has one is reported, and within
        // it the id before the name.
        {{w, makeProfile("w", "WORK"), makeProfile("x", "")}, {}, {}, "Two profiles share the id \u201Cw\u201D."},
        {{w, makeProfile("x", "")}, {}, {}, "Profile names can't be empty."},
        {{w, p, makeProfile("x", "work"), makeProfile("p", "Other")}, {}, {},
         "There's already a profile called \u201Cwork\u201D."},
        {{w, p}, {{"~/b", ProfileID("w")}, {"~/a", ProfileID("p")}, {"~/B", ProfileID("w")}, {"~/A", ProfileID("p")}}, {},
         "There's already a rule for ~/B.", Kind::invalidRule},
        {{w, p}, {{"~/a", ProfileID("w")}, {"~/A", ProfileID("nobody")}}, {},
         "The rule for ~/A points at a profile that doesn't exist.", Kind::invalidRule},
        // The second system profile is only reported once every profile passed its own checks.
        {{makeProfile("a", "A", system), makeProfile("b", "B", system), makeProfile("c", "")}, {}, {},
         "Profile names can't be empty."},
        {{makeProfile("a", "A", system), makeProfile("b", "B", system)}, {}, {},
         "Only one profile can use the tools' default setup."},
        {{w, p}, {{"code/work", ProfileID("missing")}}, {},
         "The rule for code/work points at a profile that doesn't exist.", Kind::invalidRule},
        {{w, p}, {{"code/work", ProfileID("w")}}, {},
         "\u201C" "code/work" "\u201D isn't a full path. Start it with / or ~.", Kind::invalidRule},
        {{w, p}, {{"~/code", ProfileID("w")}, {"/Users/x/code", ProfileID("p")}, {"", ProfileID("p")}}, {}, "passed"},
        {{w, p}, {{"~/code/**", ProfileID("w")}, {"~/Code", ProfileID("p")}}, {},
         "There's already a rule for ~/Code.", Kind::invalidRule},
        {{w, p}, {{"~/code", ProfileID("w")}}, ProfileID("gone"),
         "The terminal default points at a profile that doesn't exist."},
        {{w, p}, {{"~/code", ProfileID("w")}, {"rel", ProfileID("w")}}, ProfileID("gone"),
         "\u201Crel\u201D isn't a full path. Start it with / or ~.", Kind::invalidRule},
        {{w, p}, {{"~/code", ProfileID("w")}}, ProfileID("p"), "passed"}};
    for (const Case& c : cases) {
        const ProfileDocument document{.profiles = c.profiles, .rules = c.rules, .cliDefault = c.cliDefault};
        Kind kind = Kind::io;
        EXPECT_EQ(messageOf([&] { document.validate(); }, &kind), c.message);
        EXPECT_EQ(kind, c.message == "passed" ? Kind::io : c.kind) << c.message;
    }
}

TEST(ProfileDocumentJSONTest, UnreadableValuesSayWhereAndWhat) {
    const std::pair<std::string, std::string> profiles[] = {
        {R"({"id": "p", "name": "W", "color": "red"})", R"(color: "red" is not a colour)"},
        {R"({"id": "p", "name": "W", "tools": ["codex", "cursor"]})", R"(tools[1]: "cursor" is not a tool)"},
        {R"({"id": "p", "name": "W", "storage": "cloud"})", R"(storage: "cloud" is not a kind of storage)"},
        {R"({"name": "W"})", R"(top level: the key "id" is missing)"},
        {R"({"id": "p", "name": null})", "name: expected a string, found null"},
        {R"({"id": 3, "name": "W"})", "id: expected a string, found a number"},
        {R"({"id": "p", "name": "W", "badge": 1})", "badge: expected a string, found a number"},
        {R"({"id": "p", "name": "W", "tools": "codex"})", "tools: expected an array, found a string"},
        {R"(["p"])", "top level: expected an object, found an array"}};
    for (const auto& [text, message] : profiles) {
        EXPECT_EQ(messageOf([&json = text] { profileFromJSON(nlohmann::json::parse(json)); }), message) << text;
    }
    const std::pair<std::string, std::string> documents[] = {
        {R"({"version": 1, "profiles": []})", R"(top level: the key "rules" is missing)"},
        {R"({"profiles": [], "rules": []})", R"(top level: the key "version" is missing)"},
        {R"({"version": 1.5, "profiles": [], "rules": []})", "version: expected an integer, found 1.5"},
        {R"({"version": 1, "profiles": [{"id": "a", "name": "A"}, {"id": "b", "name": "B", "color": "red"}],
             "rules": []})", R"(profiles[1].color: "red" is not a colour)"},
        {R"({"version": 1, "profiles": [], "rules": [{"path": "/x"}]})", R"(rules[0]: the key "profileID" is missing)"},
        {R"({"version": 1, "profiles": [], "rules": [], "cliDefault": 4})", "cliDefault: expected a string, found a number"},
        {"", "the file is empty"},
        {"{\n  \"version\": 1,\n  oops\n}", "not valid JSON (line 3, column 3)"},
        {R"({"version": 1, "profiles": [], "rules": []} x)", "not valid JSON (line 1, column 45)"},
        {R"({"version": 1, "profiles": [], "rules": [], "size": 1e999})", "not valid JSON (a number too large to read)"}};
    for (const auto& [text, message] : documents) {
        EXPECT_EQ(messageOf([&json = text] { decodeDocument(json); }), message) << text;
    }
}

TEST(ProfileDocumentJSONTest, QuickAndFullDecodersReadUsualDocumentsAlike) {
    ProfileDocument written;
    written.profiles = {Profile(ProfileID("work"), "Work \u00E9t\u00E9", ProfileColor::orange, "W",
                                {ToolKind::codex, ToolKind::claudeCode}, Profile::Storage::system),
                        Profile(ProfileID("home"), "Home")};
    written.rules = {FolderRule{"~/work/**", ProfileID("work")}, FolderRule{"/srv/x", ProfileID("home")}};
    written.cliDefault = ProfileID("home");

    const std::string documents[] = {
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
        // Escapes (a surrogate pair among them) and numbers of every form.
        R"({"version":1,"profiles":[{"id":"a","name":"\u00e9\ud83d\ude00 \"q\" \\ \/\t"}],"rules":[],)"
        R"("n":[1e5,-0.5E-2,12345678901234567890,-0,0]})",
        R"( {"rules":[],"profiles":[],"version":-3} )",
    };
    for (const std::string& text : documents) {
        SCOPED_TRACE(text);
        std::optional<ProfileDocument> quick = decodeDocumentQuickly(text);
        ASSERT_TRUE(quick.has_value());
        EXPECT_EQ(quick, decodeDocument(text));
    }
    EXPECT_EQ(decodeDocumentQuickly(encodeDocument(written)), written);
    ProfileDocument defaults = decodeDocument(documents[2]);
    EXPECT_EQ(defaults.profiles[1], Profile(ProfileID("b"), "B"));
    EXPECT_EQ(defaults.cliDefault, std::nullopt);
    EXPECT_EQ(decodeDocument(documents[3]).rules, (std::vector<FolderRule>{{"/x", ProfileID("a")}}));
    EXPECT_EQ(decodeDocument(documents[4]).version, 0);
    EXPECT_EQ(decodeDocument(R"({"version": 1.0, "profiles": [], "rules": []})").version, 1);
}

// Runs `body` in a forked child whose exit code is what it returns (98 if it throws).
pid_t spawn(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    int code = 98;
    try {
        code = body();
    } catch (...) {
    }
    _exit(code);
}

int waitFor(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class ProfileStoreTest : public ::testing::Test {
protected:
    testing::TempDir home;
    Paths paths{home.path(), "/Applications"};
    ProfileStore store{paths};

    void addProfile(const std::string& id, const std::string& name) {
        store.update([&](ProfileDocument& document) {
            document.profiles.push_back(Profile(ProfileID(id), name, ProfileColor::blue));
        });
    }
    bool leftTemporaryFiles() const {
        auto names = testing::entriesOf(paths.supportDirectory());
        return std::ranges::any_of(names, [](const std::string& name) { return name.starts_with(".profiles.json."); });
    }
};

TEST_F(ProfileStoreTest, OnlyAChangedValidEditIsSavedAndAFailedSaveKeepsTheOldFile) {
    // A file laid out by someone else stays as it is when an edit changes nothing (a save would sort
    // its keys and drop the unknown one).
    const std::string text = R"({"version": 1, "profiles": [{"id": "ok", "name": "Name"}], "rules": [], "extra": 1})";
    testing::writeFile(paths.profilesFile(), text, 0600);
    EXPECT_EQ(store.update([](ProfileDocument& document) {
        document.profiles[0].name = "changed";
        document.profiles[0].name = "Name";
        return 42;
    }), 42);
    EXPECT_EQ(testing::readFile(paths.profilesFile()), text);
    EXPECT_EQ(testing::fileMode(paths.lockFile()) & 0777, 0600u);

    addProfile("w", "Work");
    const std::string saved = testing::readFile(paths.profilesFile());
    EXPECT_EQ(messageOf([&] { addProfile("Not Valid", "Other"); }), "\u201CNot Valid\u201D isn't a valid profile id.");
    EXPECT_THROW(store.update([](ProfileDocument& document) {
        document.profiles.clear();
        throw std::runtime_error("changed my mind");
    }), std::runtime_error);
    EXPECT_EQ(testing::readFile(paths.profilesFile()), saved);

    // A write the file size limit refuses: the child reports what the store said.
    pid_t child = spawn([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit {saved.size(), saved.size()};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
        std::string message = messageOf([&] { addProfile("h", std::string(30, 'h')); });
        return message == std::string("Couldn't save profiles: ") + std::strerror(EFBIG) ? 0 : 4;
    });
    EXPECT_EQ(waitFor(child), 0);
    EXPECT_EQ(testing::readFile(paths.profilesFile()), saved);
    EXPECT_FALSE(leftTemporaryFiles());
}

TEST_F(ProfileStoreTest, LoadsWhatOnlyASaveRefusesAndUsesNoIdThatCantNameAFolder) {
    using nlohmann::json;
    const json work = {{"id", "w"}, {"name", "Work"}};
    struct Case {
        const char* what;
        json document;
        std::string message;  // of a save that keeps the problem
        std::vector<bool> usable;
    };
    const Case cases[] = {
        {"stale rule", {{"profiles", {work}}, {"rules", {{{"path", "~/a"}, {"profileID", "ghost"}}}}},
         "The rule for ~/a points at a profile that doesn't exist.", {true}},
        {"stale default", {{"profiles", {work}}, {"rules", json::array()}, {"cliDefault", "ghost"}},
         "The terminal default points at a profile that doesn't exist.", {true}},
        {"crafted id", {{"profiles", {work, {{"id", "../x"}, {"name", "X"}}}}, {"rules", json::array()}},
         "\u201C../x\u201D isn't a valid profile id.", {true, false}},
        {"shared id", {{"profiles", {work, {{"id", "w"}, {"name", "Other"}}}}, {"rules", json::array()}},
         "Two profiles share the id \u201Cw\u201D.", {false, false}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        json document = c.document;
        document["version"] = 1;
        const std::string text = document.dump();
        testing::writeFile(paths.profilesFile(), text, 0600);
        const ProfileDocument loaded = store.load();
        EXPECT_EQ(loaded, decodeDocument(text));
        for (std::size_t i = 0; i < c.usable.size(); ++i) {
            EXPECT_EQ(loaded.isUsable(loaded.profiles[i].id), c.usable[i]) << i;
            EXPECT_EQ(loaded.unusableIDReason(loaded.profiles[i].id).value_or("usable"), c.usable[i] ? "usable" : c.message);
        }
        EXPECT_EQ(messageOf([&] { addProfile("n", "New"); }), c.message);
        EXPECT_EQ(testing::readFile(paths.profilesFile()), text);
        // Taking the problem out saves.
        store.update([](ProfileDocument& edited) {
            edited.rules.clear();
            edited.cliDefault.reset();
            edited.profiles.erase(edited.profiles.begin() + 1, edited.profiles.end());
        });
        EXPECT_EQ(store.load().profiles, std::vector<Profile>{loaded.profiles[0]});
    }

    // With two problems, taking either out is saved; taking a profile a rule still needs is not.
    json both = cases[2].document;
    both["rules"] = {{{"path", "~/a"}, {"profileID", "ghost"}}, {{"path", "~/w"}, {"profileID", "w"}}};
    both["version"] = 1;
    testing::writeFile(paths.profilesFile(), both.dump(), 0600);
    store.update([](ProfileDocument& edited) { edited.rules.erase(edited.rules.begin()); });
    EXPECT_EQ(store.load().rules.size(), 1u);
    EXPECT_EQ(messageOf([&] { addProfile("n", "New"); }), cases[2].message);
    EXPECT_EQ(messageOf([&] { store.update([](ProfileDocument& edited) { edited.profiles.erase(edited.profiles.begin()); }); }),
              cases[2].message);
    store.update([](ProfileDocument& edited) { edited.profiles.pop_back(); });
    EXPECT_EQ(store.load().profiles.size(), 1u);
}

TEST_F(ProfileStoreTest, ConcurrentWritersLoseNothingAndReadersSeeWholeFiles) {
    constexpr int kWriters = 8;
    constexpr int kUpdatesEach = 12;
    const std::string stopFile = home / "stop";
    auto idOf = [](int writer, int i) { return "w" + std::to_string(writer) + "-" + std::to_string(i); };

    // The reader checks every file it sees until the writers are done.
    pid_t reader = spawn([&] {
        for (int reads = 0; !testing::exists(stopFile) || reads == 0; ++reads) store.load().validate();
        return 0;
    });
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(spawn([&] {
            for (int i = 0; i < kUpdatesEach; ++i) addProfile(idOf(writer, i), idOf(writer, i));
            return 0;
        }));
    }
    for (pid_t pid : writers) EXPECT_EQ(waitFor(pid), 0);
    testing::writeFile(stopFile, "");
    EXPECT_EQ(waitFor(reader), 0) << "the reader saw an unreadable or invalid file";

    ProfileDocument document = store.load();
    EXPECT_EQ(document.profiles.size(), static_cast<size_t>(kWriters * kUpdatesEach));
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int i = 0; i < kUpdatesEach; ++i) EXPECT_NE(document.profile(ProfileID(idOf(writer, i))), nullptr);
    }
    EXPECT_FALSE(leftTemporaryFiles());
}

}  // namespace
}  // namespace veerline
