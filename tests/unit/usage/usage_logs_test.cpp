// Usage from the tools' own logs: the field scanner against lines shaped like theirs (including the
// malformed ones a crash or a concurrent write leaves behind), the provider over real log folders in
// a temporary home (what is counted, in which window, once, and when a cached answer may stand in
// for reading a file again), and how the figures are written.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>

#include <nlohmann/json.hpp>

#include "base/file_io.h"
#include "support/test_support.h"
#include "usage/local_log_usage_provider.h"
#include "usage/text_arena.h"
#include "usage/usage_cache_file.h"

namespace veerline::testing {
namespace {

using Provider = LocalLogUsageProvider;

TEST(JSONFieldScannerTest, CapturesWantedFieldsAndRejectsMalformedLines) {
    const JSONFieldScanner scanner({{"timestamp"}, {"message", "usage", "input_tokens"}});
    // Each captured field as key=value, strings quoted; "-" for a rejected line.
    auto scanned = [&](std::string_view line) {
        std::optional<JSONFieldScanner::Result> result = scanner.scan(line);
        std::string text = result ? "" : "-";
        for (const auto& [path, value] : result.value_or(JSONFieldScanner::Result{})) {
            text += (text.empty() ? "" : " ") + path.back() + "=" + (value.asInt() ? std::to_string(*value.asInt()) : '"' + *value.asString() + '"');
        }
        return text;
    };
    const std::string both = R"(input_tokens=12 timestamp="T")", timeOnly = R"(timestamp="T")";
    // A line with a time and an input count written as `count`.
    auto usage = [](const std::string& count) { return R"({"timestamp":"T","message":{"usage":{"input_tokens":)" + count + "}}}"; };
    const std::pair<std::string, std::string> cases[] = {
        {usage("12"), both}, {usage("12.9"), both}, {usage("-3e2"), R"(input_tokens=-300 timestamp="T")"},
        {usage(R"("12")"), R"(input_tokens="12" timestamp="T")"}, {usage("null"), timeOnly}, {usage("true"), timeOnly},
        {usage(R"({"n":1})"), timeOnly},
        {R"({"message":{"usage":{"input_tokens":12}},"timestamp":"T"})", both},
        // Skipped subtrees hide brackets and escaped quotes in strings; "{" may close with "]".
        {R"({"x":{"a":[1,{"b":"}]\"{["}],"c":"\\"},"timestamp":"T","y":[{]],"message":{"usage":{"input_tokens":12}}})", both},
        {R"({"timestamp":"T","message":[{"usage":{"input_tokens":12}}]})", timeOnly},
        {R"({"timestamp":"a\"b\\c\nd","message":{}})", R"(timestamp="a"b\c\nd")"},
        {R"({"timestamp":"caf)" "\xC3\xA9" R"(\u00e9x)" "\xFF" R"("})", "timestamp=\"caf\xC3\xA9\\u00e9x\xEF\xBF\xBD\""},
        {" \t\r{ \"timestamp\" : \"T\" , \"message\" : { \"usage\" :{ \"input_tokens\" : 12 } } }\r\t ", both},
        {R"({"a":{},"b":[],"c":{ },"d":[ ],"timestamp":"T"})", timeOnly},
        {R"({})", ""}, {R"({"timestamp":"first","timestamp":"T"})", timeOnly},
        // A repeated key replaces an earlier value only where it stores one of its own.
        {R"({"message":{"usage":{"input_tokens":12}},"message":"","timestamp":"T"})", both},
        {R"({"message":{"usage":{"input_tokens":12}},"message":{"id":"m9"},"timestamp":"T"})", both},
        {R"({"message":{"usage":{"input_tokens":12}},"message":{"usage":{"input_tokens":true}},"timestamp":"T"})", both},
        {R"({"message":{"usage":{"input_tokens":5}},"message":{"usage":{"input_tokens":12}},"timestamp":"T"})", both},
        // Past the 64-bit range a count is held at its limit, so that it still reads as absurd.
        {usage("99999999999999999999"), R"(input_tokens=9223372036854775807 timestamp="T")"},
        {usage("-1e999"), R"(input_tokens=-9223372036854775808 timestamp="T")"},
        {R"({"timestamp":"T",})", "-"}, {R"([{"timestamp":"T"}])", "-"}, {R"({"timestamp":"T"}{"timestamp":"U"})", "-"},
        {R"({"timestamp":"T","message":{"usage":{"input_tok)", "-"}, {R"({"timestamp":"T","x":[1,2)", "-"},
        {R"({"timestamp" "T"})", "-"}, {R"({"timestamp":"T" "x":1})", "-"}, {R"({timestamp:"T"})", "-"}, {"", "-"}, {"   ", "-"},
    };
    for (const auto& [line, expected] : cases) EXPECT_EQ(scanned(line), expected) << line;
}

TEST(TextArenaTest, EveryStoredTextStaysInPlaceAsTheArenaGrows) {
    TextArena arena;
    std::vector<std::pair<std::string, std::string_view>> stored;
    // Enough short texts to fill several blocks, and long ones that get blocks of their own.
    for (int i = 0; i < 5000; ++i) {
        std::string text = i % 1000 == 7 ? std::string(40000, static_cast<char>('a' + i % 26)) : "msg_" + std::to_string(i) + "|req";
        stored.emplace_back(text, arena.store(text));
    }
    EXPECT_EQ(arena.store("").size(), 0u);
    for (const auto& [text, view] : stored) ASSERT_EQ(view, text);
}

TEST(ActivitySummaryTest, CompactCountsSummaryLineAndJSON) {
    // The unit is picked before rounding: 9999 is "10.0k", not "10k".
    const std::pair<std::int64_t, const char*> table[] = {
        {0, "0"}, {999, "999"}, {-5, "-5"}, {1000, "1.0k"}, {1234, "1.2k"}, {9999, "10.0k"}, {10000, "10k"}, {999999, "1000k"},
        {1234567, "1.2M"}, {10000000, "10M"}, {999999999, "1000M"}, {1000000000, "1.0B"}, {123456789012, "123B"}};
    for (const auto& [count, text] : table) EXPECT_EQ(compactTokenCount(count), text) << count;

    // The line counts what was read and written; cached tokens only in brackets.
    const ActivitySummary summary{ToolKind::codex, 60, 2, 700, 500, 2500};
    EXPECT_EQ(summary.summary() + ", " + std::to_string(summary.totalTokens()), "1.2k tokens \u00b7 2 sessions (+2.5k cached), 3700");
    EXPECT_EQ(ActivitySummary({ToolKind::claudeCode, 1, 1, 1234, 0, 0}).summary(), "1.2k tokens \u00b7 1 session");
    nlohmann::json json = summary.toJSON();
    EXPECT_EQ(json.dump(), R"({"cacheTokens":2500,"inputTokens":700,"outputTokens":500,"sessions":2,"tool":"codex","window":60})");
    EXPECT_EQ(ActivitySummary::fromJSON(json), summary);
    nlohmann::json noCache = json, noTool = json, claude = json;
    noCache.erase("cacheTokens"), noTool.erase("tool"), claude["tool"] = "claude";
    for (const auto& bad : {noCache, noTool, claude}) EXPECT_THROW(ActivitySummary::fromJSON(bad), std::invalid_argument) << bad;
}

Moment at(double seconds) { return Moment(std::chrono::duration<double>(seconds)); }

constexpr double kNow = 1735787045;  // 2025-01-02T03:04:05Z

std::string stamp(double secondsBeforeNow) {
    time_t time = static_cast<time_t>(kNow - secondsBeforeNow);
    char text[32];
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time)));
}

std::string codexLine(const std::string& info) {
    return R"({"timestamp":")" + stamp(10) + R"(","type":"event_msg","payload":{"type":"token_count","info":)" + info + "}}";
}

std::string claudeLine(double ago, const std::string& messageID, std::int64_t input, const std::string& session = "s1") {
    return R"({"type":"assistant",)" + (session.empty() ? "" : R"("sessionId":")" + session + R"(",)") + R"("requestId":"req_1","message":{)" +
           (messageID.empty() ? "" : R"("id":")" + messageID + R"(",)") + R"("content":[{"type":"text","text":"usage \"quoted\" }"}],"usage":{)" +
           R"("input_tokens":)" + std::to_string(input) + R"(,"output_tokens":2,"cache_read_input_tokens":30}},"timestamp":")" + stamp(ago) + "\"}";
}

class LocalLogUsageProviderTest : public ::testing::Test {
protected:
    TempDir home{"veerline-usage"};
    Paths paths{home.path(), "/Applications"};
    Profile work{ProfileID("work-1"), "Work"};
    std::string projects = paths.dataDirectory(ToolKind::claudeCode, work.id) + "/projects";
    std::string sessions = paths.dataDirectory(ToolKind::codex, work.id) + "/sessions";

    // Input, output and cache tokens and sessions, per window, as one comparable list.
    std::vector<std::int64_t> counts(ToolKind tool, std::vector<double> windows, std::shared_ptr<Provider::EventCache> cache = nullptr,
                                     double now = kNow) {
        std::vector<std::int64_t> out;
        for (const auto& summary : Provider(ToolContext{paths, {}}, std::move(cache)).activities(work, tool, windows, at(now)))
            out.insert(out.end(), {summary.inputTokens, summary.outputTokens, summary.cacheTokens, summary.sessions});
        return out;
    }
};

TEST_F(LocalLogUsageProviderTest, CountsEachRequestOnceWithInclusiveWindowEdges) {
    const std::pair<const char*, std::optional<double>> dates[] = {
        {"2025-01-02T03:04:05Z", kNow}, {"2025-01-02 03:04:05", kNow}, {"2025-01-02T05:04:05+02:00", kNow}, {"2025-01-02T01:04:05-02:00", kNow},
        {"2025-01-02T03:04:05.5Z", kNow + 0.5}, {"2025-01-02T03:04:05.25", kNow + 0.25}, {"2025-01-02T03:04:05.", kNow},
        {"2025-01-02T03:04:05+0200", kNow}, {"2025-01-02T03:04:05+xx:00", kNow}, {"2025-01-01T27:04:05Z", kNow}, {"2025-1-02T03:04:05Z", std::nullopt},
        {"2025-01-02", std::nullopt}, {"2025-01-02X03:04:05Z", std::nullopt}, {"2025-01-0a 03:04:05", std::nullopt}};
    for (const auto& [text, seconds] : dates) {
        auto moment = Provider::parseDate(text);
        EXPECT_EQ(moment ? std::optional(moment->time_since_epoch().count()) : std::nullopt, seconds) << text;
    }

    writeFile(projects + "/p/a.jsonl",
              claudeLine(100, "m1", 10) + "\r\n" + claudeLine(100, "m1", 10) + "\n" + claudeLine(100, "", 1) + "\n" +
                  R"({"message":{"usage":{"output_tokens":500}},"timestamp":")" + stamp(5) + "\"}\n" +
                  claudeLine(3600, "m2", 100, "") + "\n" + "{\"usage\": broken\n" + claudeLine(3601, "m3", 1000) +
                  "\n" + claudeLine(-1, "m4", 10000));
    writeFile(projects + "/q/b.jsonl", claudeLine(50, "m1", 10) + "\n" + claudeLine(50, "", 1, "") + "\n");
    writeFile(projects + "/q/.hidden.jsonl", claudeLine(5, "h", 100000) + "\n");
    writeFile(projects + "/q/c.json", claudeLine(5, "c", 100000) + "\n");
    // Links are not followed, whether to a log or to a folder of them.
    writeFile(home / "elsewhere/d.jsonl", claudeLine(5, "d", 100000) + "\n");
    ASSERT_EQ(::symlink((home / "elsewhere/d.jsonl").c_str(), (projects + "/q/link.jsonl").c_str()), 0);
    ASSERT_EQ(::symlink((home / "elsewhere").c_str(), (projects + "/linked").c_str()), 0);
    // m1 once, both id-less lines, m2 at the edge of the hour (under its file, a second session
    // with no sessionId), m3 a second too old for it; m4 lies in the future; the other file's
    // id-less line is a third session.
    EXPECT_EQ(counts(ToolKind::claudeCode, {3600, ActivitySummary::sevenDays, 10}),
              (std::vector<std::int64_t>{112, 8, 120, 3, 1112, 10, 150, 3, 0, 0, 0, 0}));

    // Codex: the last request's figures count, a fractional count is cut, a text one ignored.
    writeFile(sessions + "/2025/01/02/rollout-1.jsonl",
              codexLine(R"({"total_token_usage":{"input_tokens":9999},"last_token_usage":{"input_tokens":100,"cached_input_tokens":150,"output_tokens":7,"cache_write_input_tokens":5}})") +
                  "\r\n" + codexLine("null") + "\n" +
                  codexLine(R"({"last_token_usage":{"input_tokens":300.9,"cached_input_tokens":100,"output_tokens":"7"}})"));
    writeFile(sessions + "/2025/01/02/rollout-2.jsonl", codexLine(R"({"last_token_usage":{"input_tokens":1}})") + "\n");
    EXPECT_EQ(counts(ToolKind::codex, {ActivitySummary::fiveHours}), (std::vector<std::int64_t>{201, 7, 255, 2}));
    EXPECT_EQ(counts(ToolKind::claudeDesktop, {1, 2}), (std::vector<std::int64_t>(8, 0)));
    const Profile system(work.id, "Work", ProfileColor::graphite, std::nullopt, {ToolKind::claudeCode, ToolKind::codex}, Profile::Storage::system);
    EXPECT_EQ(Provider(ToolContext{paths, {{"CLAUDE_CONFIG_DIR", "/c"}}}, nullptr).logRoot(system, ToolKind::claudeCode), "/c");
    EXPECT_EQ(Provider(ToolContext{paths, {}}, nullptr).logRoot(system, ToolKind::codex), home.path() + "/.codex");
}

TEST_F(LocalLogUsageProviderTest, ReusesParsedFilesUntilTheyChangeOrTheCutoffMovesEarlier) {
    const std::string file = projects + "/p/a.jsonl", cacheFile = home / "cache/usage-cache.bin";
    // Every rewrite keeps the modification date.
    auto rewrite = [&](const std::string& content) {
        writeFile(file, content);
        struct timespec times[2] = {{static_cast<time_t>(kNow), 0}, {static_cast<time_t>(kNow), 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    };
    auto loaded = [&] {
        auto read = std::make_shared<Provider::EventCache>();
        UsageCacheFile::load(cacheFile, *read);
        return read;
    };
    rewrite(claudeLine(100, "m1", 10) + "\n");
    auto cache = std::make_shared<Provider::EventCache>();
    EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::sevenDays}, cache)[0], 10);

    // An edit that keeps the size and the modification date still moves the change time.
    rewrite(claudeLine(100, "m1", 20) + "\n");
    EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}, cache)[0], 20);
    // Unchanged, the file is parsed again only for an earlier cutoff.
    int parses = 0;
    auto parse = [&](const std::string& path, Moment since) { return ++parses, Provider::parseClaudeFile(path, since); };
    EXPECT_EQ(cache->events(file, at(kNow - 100), parse)->size(), 1u);
    EXPECT_EQ(parses, 0);
    EXPECT_EQ(cache->events(file, at(kNow - 2 * ActivitySummary::sevenDays), parse)->size(), 1u);
    EXPECT_EQ(parses, 1);

    // What was parsed survives the process in the cache file, until the log changes.
    UsageCacheFile::save(cacheFile, *cache, at(kNow));
    auto reloaded = loaded();
    EXPECT_EQ(reloaded->events(file, at(kNow - 100), parse)->front().input, 20);
    EXPECT_EQ(parses, 1);
    rewrite(claudeLine(100, "m1", 30) + "\n" + claudeLine(10, "m2", 400) + "\n");
    EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}, reloaded)[0], 430);

    // Logs older than every window are not kept; a damaged or foreign cache file is never believed.
    UsageCacheFile::save(cacheFile, *cache, at(kNow + 1));
    EXPECT_TRUE(loaded()->entries().empty());
    UsageCacheFile::save(cacheFile, *cache, at(kNow));
    std::string bytes = readFile(cacheFile);
    for (std::string damaged : {bytes.substr(0, bytes.size() - 3), bytes + "x", std::string("not a cache"),
                                bytes.substr(0, bytes.size() - 9) + char(bytes[bytes.size() - 9] ^ 1) + bytes.substr(bytes.size() - 8)}) {
        writeFile(cacheFile, damaged, 0600);
        EXPECT_TRUE(loaded()->entries().empty());
    }

    // A cache of several megabytes is read into memory of another kind; it must count the same.
    // Every third answer comes in two parts, whose shared key the file stores once.
    std::string big;
    for (int i = 0; i < 15000; ++i) {
        std::string line = claudeLine(50, std::string(140, 'm') + std::to_string(i), 1) + "\n";
        big += i % 3 == 0 ? line + line : line;
    }
    writeFile(projects + "/p/big.jsonl", big);
    auto fresh = std::make_shared<Provider::EventCache>();
    const std::vector<std::int64_t> expected = counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}, fresh);
    EXPECT_EQ(expected[0], 15000 + 430);
    UsageCacheFile::save(cacheFile, *fresh, at(0));
    ASSERT_GT(readFile(cacheFile).size(), 2u << 20);
    auto reloadedBig = loaded();
    EXPECT_EQ(reloadedBig->entries().size(), 2u);
    EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}, reloadedBig), expected);
    auto logs = Provider::recentJSONL(projects, at(0));
    std::sort(logs.begin(), logs.end());
    EXPECT_EQ(logs, (std::vector<std::string>{file, projects + "/p/big.jsonl"}));
    EXPECT_EQ(reloadedBig->events(projects + "/p/big.jsonl", at(0), parse)->size(), 20000u);
}


TEST_F(LocalLogUsageProviderTest, HostileCountsLeaveTheirLineOutAndSumsSaturate) {
    // Each value in turn in every figure of both formats, beside a line at the largest count that
    // still counts.
    const std::pair<const char*, const char*> values[] = {{"negative", "-5000"}, {"above 10^12", "1000000000001"},
        {"int64 max", "9223372036854775807"}, {"past int64", "99999999999999999999"}, {"huge fraction", "1e300"}};
    auto claudeWith = [](const std::string& figures) {
        return R"({"sessionId":"s","timestamp":")" + stamp(10) + R"(","message":{"usage":{)" + figures + "}}}\n";
    };
    for (const auto& [name, value] : values) {
        std::string claude = claudeWith(R"("input_tokens":1000000000000,"output_tokens":2)");
        std::string codex = codexLine(R"({"last_token_usage":{"input_tokens":1000000000000,"output_tokens":2}})") + "\n";
        for (std::string figure : {"input_tokens", "output_tokens", "cache_creation_input_tokens", "cache_read_input_tokens"})
            claude += claudeWith(R"("input_tokens":1,")" + figure + "\":" + value);
        for (std::string figure : {"input_tokens", "cached_input_tokens", "output_tokens", "cache_write_input_tokens"})
            codex += codexLine(R"({"last_token_usage":{"input_tokens":1,")" + figure + "\":" + value + "}}") + "\n";
        writeFile(projects + "/p/a.jsonl", claude);
        writeFile(sessions + "/s.jsonl", codex);
        const std::vector<std::int64_t> good{1000000000000, 2, 0, 1};
        EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}), good) << name;
        EXPECT_EQ(counts(ToolKind::codex, {ActivitySummary::fiveHours}), good) << name;
    }

    // Counts that passed one by one (from a cache file written by anyone) are held at the limit.
    auto cache = std::make_shared<Provider::EventCache>();
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    for (const std::string& file : {projects + "/p/a.jsonl", projects + "/p/b.jsonl"}) {
        writeFile(file, "{}\n");
        cache->events(file, at(0), [](const std::string&, Moment) {
            return Provider::makeList(std::vector<Provider::UsageEvent>{{at(kNow - 1), "s", most, most, most, std::nullopt}}, nullptr);
        });
    }
    EXPECT_EQ(counts(ToolKind::claudeCode, {ActivitySummary::fiveHours}, cache), (std::vector<std::int64_t>{most, most, most, 1}));
    const ActivitySummary huge{ToolKind::codex, 1, 1, most, most, most};
    EXPECT_EQ(std::to_string(huge.workTokens()) + " " + std::to_string(huge.totalTokens()) + " " +
                  std::to_string(saturatingSum(std::numeric_limits<std::int64_t>::min(), -1)),
              std::to_string(most) + " " + std::to_string(most) + " " + std::to_string(std::numeric_limits<std::int64_t>::min()));
}

TEST_F(LocalLogUsageProviderTest, SpecialFilesInPlaceOfALogOrTheCacheNeitherBlockNorStick) {
    const std::string cacheFile = home / "cache/usage-cache.bin", log = projects + "/p/x.jsonl";
    makeDirs(home / "cache");
    makeDirs(projects + "/p");
    // After a hole longer than the longest line kept, a line each tool would count.
    const std::string lines = "\n" + claudeLine(10, "m1", 7) + "\n" + codexLine(R"({"last_token_usage":{"input_tokens":7}})") + "\n";
    const std::pair<const char*, std::function<void(const std::string&, bool)>> kinds[] = {
        {"FIFO", [](const std::string& path, bool) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
        {"device", [](const std::string& path, bool) { makeSymlink("/dev/zero", path); }},
        {"socket", [](const std::string& path, bool) { bindSocket(path); }},
        {"link loop", [](const std::string& path, bool) { makeSymlink(path, path); }},
        {"huge sparse file", [&](const std::string& path, bool isLog) {
             const off_t hole = isLog ? static_cast<off_t>(Provider::maxLineSize + (1 << 20)) : off_t(3) << 30;
             writeFile(path, "");
             ASSERT_EQ(::truncate(path.c_str(), hole), 0);
             if (isLog) std::ofstream(path, std::ios::app) << lines;
         }},
    };
    for (const auto& [kind, make] : kinds) {
        make(cacheFile, false);
        auto cache = std::make_shared<Provider::EventCache>();
        EXPECT_EQ(UsageCacheFile::load(cacheFile, *cache), UsageCacheFile::LoadResult::rejected) << kind;
        UsageCacheFile::save(cacheFile, *cache, at(0));
        EXPECT_EQ(UsageCacheFile::load(cacheFile, *cache), UsageCacheFile::LoadResult::loaded) << kind << ": rebuilt";
        ::unlink(cacheFile.c_str());

        make(log, true);
        const bool sparse = std::string(kind) == "huge sparse file";
        for (const Provider::EventCache::Parse& parse :
             {Provider::EventCache::Parse([](const std::string& path, Moment since) { return Provider::parseClaudeFile(path, since); }),
              Provider::EventCache::Parse([](const std::string& path, Moment since) { return Provider::parseCodexFile(path, since); })}) {
            Provider::EventCache fresh;
            auto events = fresh.events(log, at(0), parse);
            EXPECT_EQ(events ? events->size() : 0, sparse ? 1u : 0u) << kind;
            EXPECT_EQ(fresh.entries().size(), sparse ? 1u : 0u) << kind << ": only a file read is remembered";
        }
        ::unlink(log.c_str());
    }
}

TEST_F(LocalLogUsageProviderTest, ALogCutShortWhileReadGivesTheLinesReadUntilThen) {
    const std::string log = projects + "/p/cut.jsonl";
    std::string content;
    for (int i = 0; i < 20000; ++i) content += claudeLine(10, "m" + std::to_string(i), 1) + "\n";
    writeFile(log, content);
    int lines = 0;
    Provider::forEachLine(log, "\"usage\"", [&](std::string_view) {
        if (lines++ == 0) {
            ASSERT_EQ(::truncate(log.c_str(), 0), 0);
        }
    });
    EXPECT_GT(lines, 0);
    EXPECT_LT(lines, 20000);
}

TEST_F(LocalLogUsageProviderTest, FoldersAndLogsPastThePathLimitAreNamedInWarnings) {
    // Folders of 200-byte names, each made inside the last, down to where one more would be too
    // long a path; there a folder and a log whose paths are.
    makeDirs(projects);
    const FoldersPastPathLimit deep(projects);
    const std::string logName = std::string(194, 'f') + ".jsonl", line = claudeLine(10, "m1", 7) + "\n";
    FileDescriptor log(::openat(deep.last.get(), logName.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(writeAll(log.get(), line), 0);

    std::vector<std::string> warnings;
    Provider(ToolContext{paths, {}}, nullptr).activities(work, ToolKind::claudeCode, {ActivitySummary::sevenDays}, at(kNow), &warnings);
    EXPECT_EQ(warnings, (std::vector<std::string>{"Couldn't list " + deep.tooLong + ": " + std::strerror(ENAMETOOLONG),
                                                  "Couldn't read " + deep.lastThatFits + "/" + logName + ": " + std::strerror(ENAMETOOLONG)}));
    EXPECT_EQ(removeTreeAt(deep.top.get(), deep.name), 0);
}

}  // namespace
}  // namespace veerline::testing
