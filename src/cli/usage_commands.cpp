// `veerline usage`, `veerline status` and `veerline statusline`: how much each profile used its
// tools lately, read from the tools' own logs, and which account is ready to use right now.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "base/error.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "cli/output.h"
#include "profiles/profile_store.h"
#include "resolution/rule_resolver.h"
#include "tools/tool_registry.h"
#include "usage/local_log_usage_provider.h"
#include "usage/status_line_input.h"
#include "usage/usage_cache_file.h"

namespace veerline::cli {

namespace {

struct UsageOptions {
    std::optional<std::string> profile;
    std::optional<std::string> tool;
    std::vector<std::string> windows;
    std::vector<std::string> watch;
    bool json = false;
    bool noCache = false;
};

Moment currentMoment() {
    return std::chrono::time_point_cast<Moment::duration>(std::chrono::system_clock::now());
}

// The longest window: a century of logs is more than any tool has written, and past it the
// arithmetic on dates stops being exact.
constexpr double kLongestWindow = 36500.0 * 86400;

// "5h", "7d", "90m", "30s" or plain seconds.
double parseWindow(const std::string& text) {
    std::string number = text;
    double unit = 1;
    if (!number.empty()) {
        switch (number.back()) {
            case 's': unit = 1; number.pop_back(); break;
            case 'm': unit = 60; number.pop_back(); break;
            case 'h': unit = 3600; number.pop_back(); break;
            case 'd': unit = 86400; number.pop_back(); break;
            default: break;
        }
    }
    double value = 0;
    bool digitsOnly = !number.empty() && number.find_first_not_of("0123456789.") == std::string::npos;
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (!digitsOnly || error == std::errc::invalid_argument || end != number.data() + number.size() || !(value > 0)) {
        throw UsageError(curlyQuoted(text) + " isn't a time window. Use a number of seconds or one with a unit: "
                                             "30s, 90m, 5h, 7d.");
    }
    if (error == std::errc::result_out_of_range || value * unit > kLongestWindow) {
        throw UsageError(curlyQuoted(text) + " is too long a time window: the longest is 36500d.");
    }
    return value * unit;
}

// The window as its largest whole unit: 18000 gives "5h".
std::string windowLabel(double seconds) {
    const std::pair<double, const char*> units[] = {{86400, "d"}, {3600, "h"}, {60, "m"}};
    for (const auto& [size, suffix] : units) {
        double count = seconds / size;
        if (count >= 1 && std::trunc(count) == count) return std::to_string(static_cast<long long>(count)) + suffix;
    }
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << seconds << "s";
    return out.str();
}

std::vector<ToolKind> cliTools(const Profile& profile) {
    std::vector<ToolKind> tools;
    for (ToolKind tool : profile.tools()) {
        if (!toolkind::isApp(tool)) tools.push_back(tool);
    }
    return tools;
}

// The provider with its cache, filled from disk unless the user asked for a fresh count.
class UsageSession {
public:
    UsageSession(const Context& context, bool useDiskCache)
        : provider_(ToolContext{context.paths, context.environment},
                    std::make_shared<LocalLogUsageProvider::EventCache>()) {
        if (useDiskCache) {
            file_ = UsageCacheFile::location(context.paths.home, context.environment);
            // A cache file that could not be used is written afresh even when nothing new is
            // parsed, so that the next run does not stumble over it again.
            rebuild_ = UsageCacheFile::load(*file_, *provider_.cache()) == UsageCacheFile::LoadResult::rejected;
        }
    }

    const LocalLogUsageProvider& provider() const { return provider_; }

    // Writes the cache back when this run parsed anything new. Logs older than every window this
    // run or the usual commands ask about are left out.
    void save(Moment now, const std::vector<double>& windows) {
        std::uint64_t generation = provider_.cache()->generation();
        if (file_ && (generation != savedGeneration_ || rebuild_)) {
            double longest = ActivitySummary::sevenDays;
            for (double window : windows) longest = std::max(longest, window);
            UsageCacheFile::save(*file_, *provider_.cache(), now - std::chrono::duration<double>(longest));
            savedGeneration_ = generation;
            rebuild_ = false;
        }
    }

private:
    LocalLogUsageProvider provider_;
    std::optional<std::string> file_;
    std::uint64_t savedGeneration_ = 0;
    bool rebuild_ = false;
};

struct UsageRow {
    const Profile* profile;
    ToolKind tool;
    std::vector<ActivitySummary> summaries;
    std::vector<std::string> warnings;  // folders and logs that could not be read
};

// The rows' warnings, each once: two profiles may share a tool's default folder.
std::vector<std::string> allWarnings(const std::vector<std::vector<std::string>*>& lists) {
    std::vector<std::string> all;
    for (const auto* list : lists) {
        for (const std::string& warning : *list) {
            if (std::find(all.begin(), all.end(), warning) == all.end()) all.push_back(warning);
        }
    }
    return all;
}

// One line each on standard error; a long list is cut short, as a folder of unreadable logs can
// hold thousands.
void printWarnings(const std::vector<std::string>& warnings) {
    constexpr std::size_t shown = 10;
    for (std::size_t i = 0; i < std::min(shown, warnings.size()); ++i) {
        std::cerr << "veerline: warning: " << warnings[i] << " (not counted)\n";
    }
    if (warnings.size() > shown) {
        std::cerr << "veerline: warning: and " << warnings.size() - shown << " more that couldn't be read\n";
    }
}

std::vector<UsageRow> usageRows(const ProfileDocument& document, const UsageOptions& options,
                                const std::vector<double>& windows, const LocalLogUsageProvider& provider) {
    std::vector<const Profile*> profiles;
    if (options.profile) {
        profiles.push_back(&findProfile(document, *options.profile));
    } else {
        for (const Profile& profile : document.profiles) {
            if (document.isUsable(profile.id)) profiles.push_back(&profile);
        }
    }
    std::optional<ToolKind> onlyTool;
    if (options.tool) onlyTool = parseTool(*options.tool);
    Moment now = currentMoment();
    std::vector<UsageRow> rows;
    for (const Profile* profile : profiles) {
        std::vector<ToolKind> tools = onlyTool ? std::vector<ToolKind>{*onlyTool} : cliTools(*profile);
        for (ToolKind tool : tools) {
            UsageRow& row = rows.emplace_back(UsageRow{profile, tool, {}, {}});
            row.summaries = provider.activities(*profile, tool, windows, now, &row.warnings);
        }
    }
    return rows;
}

std::vector<std::string> rowWarnings(std::vector<UsageRow>& rows) {
    std::vector<std::vector<std::string>*> lists;
    for (UsageRow& row : rows) lists.push_back(&row.warnings);
    return allWarnings(lists);
}

void printUsageTable(const std::vector<UsageRow>& rows, const std::vector<double>& windows, const Context& context,
                     std::ostream& out) {
    std::vector<std::string> headings = {"PROFILE", "TOOL"};
    for (double window : windows) headings.push_back("LAST " + windowLabel(window));
    Table table(headings);
    for (const UsageRow& row : rows) {
        std::vector<std::string> cells = {swatch(row.profile->color, context.colour) + row.profile->name,
                                          std::string(toolkind::displayName(row.tool))};
        for (const ActivitySummary& summary : row.summaries) cells.push_back(summary.summary());
        table.addRow(std::move(cells));
    }
    table.print(out);
}

nlohmann::json summaryJSON(const Profile& profile, const ActivitySummary& summary) {
    nlohmann::json object = summary.toJSON();
    object["profile"] = profile.name;
    object["profileID"] = profile.id.rawValue;
    return object;
}

int usage(const Context& context, const UsageOptions& options, CLI::App* command) {
    std::vector<double> windows;
    for (const std::string& text : options.windows) windows.push_back(parseWindow(text));
    if (windows.empty()) windows = {ActivitySummary::fiveHours, ActivitySummary::sevenDays};
    bool watching = command->count("--watch") > 0;
    double interval = 5;
    // CLI11 hands a bare --watch over as one empty value.
    if (watching && !options.watch.empty() && !options.watch.front().empty()) interval = parseWindow(options.watch.front());
    if (watching && options.json) throw UsageError("--watch redraws the table; it can't be combined with --json.");

    ProfileDocument document = ProfileStore(context.paths).load();
    if (options.profile) findProfile(document, *options.profile);
    if (options.tool) parseTool(*options.tool);
    UsageSession session(context, !options.noCache);

    if (options.json) {
        nlohmann::json list = nlohmann::json::array();
        std::vector<UsageRow> rows = usageRows(document, options, windows, session.provider());
        for (const UsageRow& row : rows) {
            for (const ActivitySummary& summary : row.summaries) {
                nlohmann::json object = summaryJSON(*row.profile, summary);
                object["warnings"] = row.warnings;
                list.push_back(std::move(object));
            }
        }
        session.save(currentMoment(), windows);
        printWarnings(rowWarnings(rows));
        std::cout << encodeStoredJSON(list);
        return 0;
    }
    if (document.profiles.empty()) {
        std::cout << "No profiles yet. Add one with `veerline profile add NAME`.\n";
        return 0;
    }
    while (true) {
        std::ostringstream screen;
        std::vector<UsageRow> rows = usageRows(document, options, windows, session.provider());
        printUsageTable(rows, windows, context, screen);
        session.save(currentMoment(), windows);
        if (!watching) {
            std::cout << screen.str();
            std::cout.flush();
            printWarnings(rowWarnings(rows));
            return 0;
        }
        // Home and clear on a terminal, so that the table is redrawn in place.
        if (context.outputIsTerminal) std::cout << "\033[H\033[2J";
        std::cout << screen.str() << "\nEvery " << windowLabel(interval) << ". Press Ctrl-C to stop.\n";
        if (!context.outputIsTerminal) std::cout << "\n";
        std::cout.flush();
        printWarnings(rowWarnings(rows));
        std::this_thread::sleep_for(std::chrono::duration<double>(interval));
        // Profiles added or changed meanwhile show up on the next round; a file caught halfway
        // through an edit by another program keeps the last good one on screen.
        try {
            document = ProfileStore(context.paths).load();
        } catch (const VeerlineError&) {
        }
    }
}

// The account a signed-in tool reports, as one line; nothing when it says nothing about it.
std::optional<std::string> accountLine(const AccountInfo& account) {
    std::string line;
    for (const auto& part : {account.email, account.organizationName, account.plan}) {
        if (!part || part->empty()) continue;
        line += (line.empty() ? "" : " \u00b7 ") + *part;
    }
    if (line.empty() && account.method) line = *account.method;
    if (line.empty()) return std::nullopt;
    return line;
}

std::optional<std::string> statusDetail(const ToolStatus& status) {
    if (status.kind == ToolStatus::Kind::signedIn) return accountLine(status.account);
    if (status.text.empty()) return std::nullopt;
    return status.text;
}

int status(const Context& context, bool json) {
    ProfileDocument document = ProfileStore(context.paths).load();
    ToolContext toolContext{context.paths, context.environment};
    auto adapters = ToolRegistry::cliAdapters(toolContext);

    struct Row {
        const Profile* profile;
        ToolKind tool;
        std::future<ToolStatus> status;
        ActivitySummary last5h;
        ActivitySummary last7d;
        std::vector<std::string> warnings;
    };
    std::vector<Row> rows;
    // Every tool is asked at once: each status command may take seconds.
    for (const Profile& profile : document.profiles) {
        for (const auto& adapter : adapters) {
            if (!profile.uses(adapter->kind()) || !document.isUsable(profile.id)) continue;
            rows.push_back({&profile, adapter->kind(), std::async(std::launch::async, [adapter, &profile] {
                                return adapter->status(profile);
                            }), {}, {}, {}});
        }
    }
    UsageSession session(context, true);
    Moment now = currentMoment();
    for (Row& row : rows) {
        auto summaries = session.provider().activities(
            *row.profile, row.tool, {ActivitySummary::fiveHours, ActivitySummary::sevenDays}, now, &row.warnings);
        row.last5h = summaries[0];
        row.last7d = summaries[1];
    }
    session.save(now, {});
    std::vector<std::vector<std::string>*> warningLists;
    for (Row& row : rows) warningLists.push_back(&row.warnings);
    printWarnings(allWarnings(warningLists));

    if (json) {
        nlohmann::json list = nlohmann::json::array();
        for (Row& row : rows) {
            ToolStatus state = row.status.get();
            auto detail = statusDetail(state);
            list.push_back({{"profile", row.profile->name},
                            {"profileID", row.profile->id.rawValue},
                            {"tool", std::string(toolkind::rawValue(row.tool))},
                            {"state", std::string(state.label())},
                            {"detail", detail ? nlohmann::json(*detail) : nlohmann::json(nullptr)},
                            {"usage5h", row.last5h.toJSON()},
                            {"usage7d", row.last7d.toJSON()},
                            {"warnings", row.warnings}});
        }
        std::cout << encodeStoredJSON(list);
        return 0;
    }
    if (document.profiles.empty()) {
        std::cout << "No profiles yet. Add one with `veerline profile add NAME`.\n";
        return 0;
    }
    Table table({"PROFILE", "TOOL", "STATE", "LAST 5h", "LAST 7d"});
    for (Row& row : rows) {
        ToolStatus state = row.status.get();
        auto detail = statusDetail(state);
        table.addRow({swatch(row.profile->color, context.colour) + row.profile->name,
                      std::string(toolkind::displayName(row.tool)),
                      std::string(state.label()) + (detail ? " (" + *detail + ")" : ""), row.last5h.summary(),
                      row.last7d.summary()});
    }
    table.print(std::cout);
    return 0;
}

// The folder Claude Code says the session works in, from the JSON it passes on standard input.
std::optional<std::string> statusLineFolder(const Context& context) {
    if (context.inputIsTerminal) return std::nullopt;
    return StatusLineInput::folder(
        StatusLineInput::readWithin(STDIN_FILENO, StatusLineInput::maxSize, StatusLineInput::budget));
}

int statusLine(const Context& context) noexcept {
    try {
        auto folder = statusLineFolder(context);
        ProfileDocument document = ProfileStore(context.paths).load();
        std::optional<Profile> profile;
        if (const std::string* chosen = lookup(context.environment, "VEERLINE_PROFILE"); chosen && !chosen->empty()) {
            if (const Profile* byName = document.profile(std::string_view(*chosen))) profile = *byName;
            else if (const Profile* byID = document.profile(ProfileID(*chosen))) profile = *byID;
        }
        if (!profile) {
            std::string cwd = context.workingDirectory();
            std::string path = folder && !folder->empty() && folder->front() == '/' ? *folder : cwd;
            profile = RuleResolver(document, context.paths.home).resolve(path, cwd).profile;
        }
        if (!profile) return 0;
        UsageSession session(context, true);
        Moment now = currentMoment();
        ActivitySummary summary = session.provider().activity(*profile, ToolKind::claudeCode,
                                                              ActivitySummary::fiveHours, now);
        session.save(now, {});
        std::cout << profile->name << " \u00b7 " << compactTokenCount(summary.workTokens()) << " tokens \u00b7 5h\n";
    } catch (...) {
        // A status line has nowhere to report a problem: it shows nothing instead.
    }
    return 0;
}

}  // namespace

void addUsageCommands(CLI::App& app, const Context& context, Action& chosen) {
    auto options = std::make_shared<UsageOptions>();
    CLI::App* usageCommand = app.add_subcommand("usage", "Show each profile's recent token use from the tools' logs");
    usageCommand->add_option("profile", options->profile, "Only this profile (name or id)");
    usageCommand->add_option("--tool", options->tool, "Only this tool (claude-code or codex)");
    usageCommand->add_option("--window", options->windows, "A time window: 5h, 7d, 90m, 30s or seconds; repeatable")
        ->take_all()
        ->allow_extra_args(false);
    usageCommand->add_flag("--json", options->json, "Print JSON");
    usageCommand->add_flag("--no-cache", options->noCache, "Read every log afresh; neither read nor write the cache");
    usageCommand->add_option("--watch", options->watch, "Redraw every SECONDS (default 5) until interrupted")
        ->expected(0, 1);
    usageCommand->footer("Counts come from Claude Code's transcripts and Codex's session logs on this computer. "
                         "The default windows are the last 5 hours and the last 7 days.");
    onSelected(usageCommand, chosen, [&context, options, usageCommand] { return usage(context, *options, usageCommand); });

    auto json = std::make_shared<bool>(false);
    CLI::App* statusCommand =
        app.add_subcommand("status", "Show every profile's sign-in state and recent usage, per tool");
    statusCommand->add_flag("--json", *json, "Print JSON");
    onSelected(statusCommand, chosen, [&context, json] { return status(context, *json); });

    CLI::App* statusLineCommand =
        app.add_subcommand("statusline", "Print one short line for Claude Code's status line");
    statusLineCommand->footer("Shows the profile in use and its Claude Code tokens in the last 5 hours; prints "
                              "nothing when there is nothing to show.");
    onSelected(statusLineCommand, chosen, [&context] { return statusLine(context); });
}

}  // namespace veerline::cli
