#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_adapter.h"
#include "usage/activity_summary.h"
#include "usage/json_field_scanner.h"

namespace veerline {

// Counts a profile's recent use of `claude` and `codex` from the logs those tools keep on disk:
// Claude Code's transcripts under "projects", Codex's session logs under "sessions". Needs no
// network and no sign-in; the desktop apps keep no such logs and always count zero.
class LocalLogUsageProvider : public UsageProvider {
public:
    // One request's figures. Its texts point into storage its EventList owns: events are
    // counted by the hundred thousand, and a string of their own each would cost more than the
    // counting.
    struct UsageEvent {
        Moment date;
        std::string_view session;  // what the usage counts under as a session
        std::int64_t input = 0;  // not counting cached input
        std::int64_t output = 0;
        std::int64_t cache = 0;  // written and read
        std::optional<std::string_view> dedupeKey;  // the request's identity, when the log gives one

        bool operator==(const UsageEvent&) const = default;
    };

    // Shared so that a cached list is handed out without copying it; it keeps alive the events
    // and the text they point into. The events may sit in a vector of their own or in a block
    // that many lists share (all the lists read from the cache file).
    using EventList = std::shared_ptr<const std::span<const UsageEvent>>;
    // A list of `events` that owns `text`, whatever holds the texts they point into.
    static EventList makeList(std::vector<UsageEvent> events, std::shared_ptr<const void> text);
    // A list of `events`, which `owner` keeps alive together with their texts.
    static EventList makeList(std::span<const UsageEvent> events, std::shared_ptr<const void> owner);
    // The earliest date among `events`; the latest representable moment when there are none.
    static Moment earliestDate(std::span<const UsageEvent> events) noexcept;

    // Parsed events per log file, shared by every copy of the provider so that repeated queries
    // re-read only the files that changed. Thread-safe; the lock is never held while a file is
    // read or parsed, so two threads may parse one file at once and the last to store wins.
    class EventCache {
    public:
        struct Entry {
            std::int64_t size = -1;  // bytes; -1 when unknown
            Moment mtime;
            Moment cutoff;           // the events hold everything from here on
            EventList events;
            // The earliest event's date, when known: it tells at once whether a later cutoff
            // leaves every event in.
            std::optional<Moment> earliest;
        };
        using Parse = std::function<EventList(const std::string& path, Moment cutoff)>;

        // The file's events at or after `cutoff`: the cached ones while the file keeps its size and
        // modification date and was parsed from this cutoff or an earlier one, else `parse`'s.
        EventList events(const std::string& path, Moment cutoff, const Parse& parse);
        // The same with the file's size (-1 when unknown) and modification date as the caller
        // just read them.
        EventList events(const std::string& path, std::int64_t size, Moment mtime, Moment cutoff, const Parse& parse);
        // The events `events` would give without parsing, or nothing when the file must be parsed.
        EventList cached(const std::string& path, std::int64_t size, Moment mtime, Moment cutoff) const;

        // For the copy kept on disk between runs.
        std::map<std::string, Entry> entries() const;
        void insert(const std::map<std::string, Entry>& entries);
        // Grows with every parse stored: whether anything is new since an earlier look.
        std::uint64_t generation() const;

    private:
        mutable std::mutex lock_;
        std::map<std::string, Entry> entries_;
        std::uint64_t generation_ = 0;
    };

    LocalLogUsageProvider(ToolContext context, std::shared_ptr<EventCache> cache);

    std::string displayName() const override { return "Local activity"; }
    bool reportsPlanLimits() const override { return false; }
    const ToolContext& context() const noexcept { return context_; }
    const std::shared_ptr<EventCache>& cache() const noexcept { return cache_; }

    ActivitySummary activity(const Profile& profile, ToolKind tool, double window, Moment now) const override;
    // One summary per window, in the order given. Events are read once, for the longest window.
    std::vector<ActivitySummary> activities(const Profile& profile, ToolKind tool, const std::vector<double>& windows,
                                            Moment now) const;
    // Where the tool keeps its data for the profile; nothing for the desktop apps.
    std::optional<std::string> logRoot(const Profile& profile, ToolKind tool) const;

    // Claude Code's events from `since` on; a request seen twice (same message id and request id),
    // in one file or across files, counts the first time only.
    static EventList claudeEvents(const std::string& folder, Moment since, EventCache& cache);
    static EventList codexEvents(const std::string& folder, Moment since, EventCache& cache);
    // The ".jsonl" files below `folder` modified at or after `since`, hidden names left out, in
    // the order the folder is listed.
    static std::vector<std::string> recentJSONL(const std::string& folder, Moment since);
    // Hands each line containing `needle` to `callback` once, in file order, without its line
    // feed. Lines without the needle are never looked at beyond the search for it.
    static void forEachLine(const std::string& path, std::string_view needle,
                            const std::function<void(std::string_view)>& callback);
    static EventList parseClaudeFile(const std::string& path, Moment since);
    static EventList parseCodexFile(const std::string& path, Moment since);
    // The ISO 8601 forms both tools write: "2025-01-02T03:04:05Z", "... 03:04:05", fractions,
    // "+02:00" zones.
    static std::optional<Moment> parseDate(std::string_view text);

    static const JSONFieldScanner& claudeScanner();

private:
    ToolContext context_;
    std::shared_ptr<EventCache> cache_;
};

}  // namespace veerline
