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
    // What tells one state of a log file from another without reading it. The size and the
    // modification date alone miss an edit that keeps both; the change time moves with any write
    // (and with a change of mode), and a file put in another's place has a new inode.
    struct FileStamp {
        std::int64_t size = -1;  // bytes; -1 when unknown
        Moment mtime;
        Moment ctime;
        std::uint64_t inode = 0;

        bool operator==(const FileStamp&) const = default;
    };

    class EventCache {
    public:
        struct Entry {
            FileStamp stamp;
            Moment cutoff;           // the events hold everything from here on
            EventList events;
            // The earliest event's date, when known: it tells at once whether a later cutoff
            // leaves every event in.
            std::optional<Moment> earliest;
        };
        // A parse answers nothing (a null list) when the file could not be read: that is never
        // stored, so that the file is read again once it can be.
        using Parse = std::function<EventList(const std::string& path, Moment cutoff)>;

        // The file's events at or after `cutoff`: the cached ones while the file keeps its stamp
        // and was parsed from this cutoff or an earlier one, else `parse`'s.
        EventList events(const std::string& path, Moment cutoff, const Parse& parse);
        // The same with the file's stamp as the caller just read it.
        EventList events(const std::string& path, const FileStamp& stamp, Moment cutoff, const Parse& parse);
        // The events `events` would give without parsing, or nothing when the file must be parsed.
        EventList cached(const std::string& path, const FileStamp& stamp, Moment cutoff) const;

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
    // Folders and logs that exist but could not be read count nothing; each is named in
    // `warnings`, when given, as "Couldn't list PATH: WHY" or "Couldn't read PATH: WHY".
    std::vector<ActivitySummary> activities(const Profile& profile, ToolKind tool, const std::vector<double>& windows,
                                            Moment now, std::vector<std::string>* warnings = nullptr) const;
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
    // feed. Lines without the needle are never looked at beyond the search for it. The tools
    // rewrite and cut their logs at any time: the file is read in pieces (a mapping would fault
    // on a file cut short), and a file cut while it is read gives the lines read until then. A
    // line longer than maxLineSize is passed over. 0 when the file was read, notRegularFile for
    // anything else in its place (opened non-blocking, so a FIFO cannot hang the read), otherwise
    // the errno of the failure.
    static int forEachLine(const std::string& path, std::string_view needle,
                           const std::function<void(std::string_view)>& callback);
    static constexpr int notRegularFile = -1;
    static constexpr std::size_t maxLineSize = 32 * 1024 * 1024;
    // A count no request comes near: a line with a figure above it, or below 0, is not counted.
    static constexpr std::int64_t maxTokenCount = 1'000'000'000'000;
    // The file's events from `since` on; nothing when it could not be read, with `error` set to
    // forEachLine's answer.
    static EventList parseClaudeFile(const std::string& path, Moment since, int* error = nullptr);
    static EventList parseCodexFile(const std::string& path, Moment since, int* error = nullptr);
    // The ISO 8601 forms both tools write: "2025-01-02T03:04:05Z", "... 03:04:05", fractions,
    // "+02:00" zones.
    static std::optional<Moment> parseDate(std::string_view text);

    static const JSONFieldScanner& claudeScanner();

private:
    ToolContext context_;
    std::shared_ptr<EventCache> cache_;
};

}  // namespace veerline
