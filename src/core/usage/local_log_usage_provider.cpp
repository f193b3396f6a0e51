#include "usage/local_log_usage_provider.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <thread>
#include <unordered_set>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/file_io.h"
#include "platform/platform.h"
#include "usage/codex_line_reader.h"
#include "usage/text_arena.h"

namespace veerline {

namespace {

using UsageEvent = LocalLogUsageProvider::UsageEvent;
using EventList = LocalLogUsageProvider::EventList;
using EventCache = LocalLogUsageProvider::EventCache;
using KeyPath = JSONFieldScanner::KeyPath;

Moment momentOf(const struct timespec& time) {
    return Moment(std::chrono::duration<double>(static_cast<double>(time.tv_sec) +
                                                static_cast<double>(time.tv_nsec) / 1e9));
}

Moment distantPast() {
    return Moment(std::chrono::duration<double>(-std::numeric_limits<double>::infinity()));
}

#ifdef __APPLE__
const struct timespec& modificationTime(const struct stat& info) { return info.st_mtimespec; }
const struct timespec& changeTime(const struct stat& info) { return info.st_ctimespec; }
#else
const struct timespec& modificationTime(const struct stat& info) { return info.st_mtim; }
const struct timespec& changeTime(const struct stat& info) { return info.st_ctim; }
#endif

LocalLogUsageProvider::FileStamp stampOf(const struct stat& info) {
    return {static_cast<std::int64_t>(info.st_size), momentOf(modificationTime(info)), momentOf(changeTime(info)),
            static_cast<std::uint64_t>(info.st_ino)};
}

// A log file with the stamp its listing found, so that the cache needn't ask again.
struct LogFile {
    std::string path;
    LocalLogUsageProvider::FileStamp stamp;
};

// A folder or file that is there but could not be read: its logs count nothing, and the user is
// told. Gone (a session cleaned up meanwhile) or not a folder is no news.
struct Unreadable {
    std::string path;
    int error;
    bool folder;
};

bool worthAWarning(int error) { return error != 0 && error != ENOENT && error != ENOTDIR; }

void listRecent(const std::string& folder, Moment since, std::vector<LogFile>& found,
                std::vector<Unreadable>& unreadable) {
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) {
        const int error = errno;
        if (worthAWarning(error)) unreadable.push_back({folder, error, true});
        return;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> closer(directory, ::closedir);
    int folderFD = ::dirfd(directory);
    while (struct dirent* entry = ::readdir(directory)) {
        std::string_view name(entry->d_name);
        if (name.empty() || name.front() == '.') continue;
        // Links are reported as links, not followed, like the platform enumerator does by default.
        // The listing already tells folders, links and other files apart on most file systems: only
        // logs are then asked for their stamp.
        const bool log = name.size() > 6 && name.ends_with(".jsonl");
        if (entry->d_type == DT_DIR) {
            listRecent(folder + "/" + std::string(name), since, found, unreadable);
            continue;
        }
        if (entry->d_type != DT_UNKNOWN && (entry->d_type != DT_REG || !log)) continue;
        struct stat info {};
        if (::fstatat(folderFD, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        std::string path = folder + "/" + std::string(name);
        if (S_ISDIR(info.st_mode)) {
            listRecent(path, since, found, unreadable);
        } else if (S_ISREG(info.st_mode) && log && momentOf(modificationTime(info)) >= since) {
            found.push_back(LogFile{std::move(path), stampOf(info)});
        }
    }
}

// The recent logs below `folder`; an empty list when memory runs out.
std::vector<LogFile> recentLogs(const std::string& folder, Moment since, std::vector<Unreadable>& unreadable) {
    std::vector<LogFile> found;
    try {
        listRecent(folder, since, found, unreadable);
    } catch (const std::bad_alloc&) {
        found.clear();
    }
    return found;
}

// Each file's events through the cache, parsed on a few threads; the answer keeps the files' order.
// A file that could not be read has no list, and lands in `unreadable` when that is news.
using FileParse = EventList (*)(const std::string& path, Moment since, int* error);
std::vector<EventList> eventsOfFiles(const std::vector<LogFile>& files, Moment since, EventCache& cache,
                                     FileParse parse, std::vector<Unreadable>& unreadable) {
    std::vector<EventList> lists(files.size());
    std::vector<int> errors(files.size(), 0);
    // What the cache holds is taken first, on this thread: only the files to parse are worth others.
    std::vector<std::size_t> unparsed;
    for (std::size_t index = 0; index < files.size(); ++index) {
        const LogFile& file = files[index];
        lists[index] = cache.cached(file.path, file.stamp, since);
        if (!lists[index]) unparsed.push_back(index);
    }
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i; (i = next.fetch_add(1)) < unparsed.size();) {
            const std::size_t index = unparsed[i];
            const LogFile& file = files[index];
            int* error = &errors[index];
            lists[index] = cache.events(file.path, file.stamp, since,
                                        [&](const std::string& path, Moment cutoff) { return parse(path, cutoff, error); });
        }
    };
    std::size_t threads = std::min<std::size_t>({unparsed.size(), 4, std::max(1u, std::thread::hardware_concurrency())});
    std::vector<std::thread> helpers;
    try {
        for (std::size_t i = 1; i < threads; ++i) helpers.emplace_back(work);
    } catch (const std::system_error&) {
        // No more threads to be had: the ones running (or this one alone) finish the list.
    }
    work();
    for (auto& helper : helpers) helper.join();
    for (std::size_t index = 0; index < files.size(); ++index) {
        if (worthAWarning(errors[index]) && errors[index] != LocalLogUsageProvider::notRegularFile) {
            unreadable.push_back({files[index].path, errors[index], false});
        }
    }
    return lists;
}

// The request keys seen so far, for a known most. Open addressing in one small array: the
// node-based standard set allocates once per key, which cost more than all the rest of a run
// that finds every file in the persistent cache.
class SeenKeys {
public:
    explicit SeenKeys(std::size_t most) {
        std::size_t capacity = 16;
        while (capacity < most + most / 3) capacity *= 2;
        memory_ = platform::largeZeroedMemory(capacity * sizeof(Slot));
        if (!memory_) throw std::bad_alloc();
        slots_ = reinterpret_cast<Slot*>(memory_.get());
        mask_ = capacity - 1;
        keys_.reserve(most);
    }
    static std::size_t hashOf(std::string_view key) { return std::hash<std::string_view>{}(key); }
    // Starts fetching the slot where a look-up of `hash` begins. The table is megabytes large and
    // looked up at random: a look-up waits on memory unless asked for well before.
    void prefetch(std::size_t hash) const { __builtin_prefetch(slots_ + (hash & mask_)); }
    // False when `key` (whose hashOf is `hash`) was already there. `key` is kept by address: it
    // must outlive the set.
    bool insert(const std::string_view& key, std::size_t hash) {
        const auto tag = static_cast<std::uint32_t>(hash >> 32);
        for (std::size_t at = hash & mask_;; at = (at + 1) & mask_) {
            Slot& slot = slots_[at];
            if (slot.key == 0) {
                keys_.push_back(&key);
                slot = Slot{tag, static_cast<std::uint32_t>(keys_.size())};
                return true;
            }
            if (slot.tag == tag && *keys_[slot.key - 1] == key) return false;
        }
    }

private:
    struct Slot {
        std::uint32_t tag = 0;  // the hash's high half, so that most misses compare no text
        std::uint32_t key = 0;  // 1 + the key's index in keys_; 0 for a free slot
    };
    // Zeroed memory is a table of free slots. The table is looked up at random, so it sits in huge
    // pages where there are some.
    std::shared_ptr<char[]> memory_;
    Slot* slots_ = nullptr;
    std::size_t mask_ = 0;
    std::vector<const std::string_view*> keys_;
};

// The events from `since` on, in file order; with `dedupe`, a request key counts the first time.
std::vector<const UsageEvent*> merged(const std::vector<EventList>& lists, Moment since, bool dedupe) {
    std::vector<const UsageEvent*> kept;
    std::size_t total = 0;
    for (const EventList& list : lists) total += list ? list->size() : 0;
    kept.reserve(total);
    SeenKeys seen(dedupe ? total : 0);
    // A file's events that may count, and their keys' hashes: the table's slots for a whole file
    // are asked for before the first look-up, so the look-ups find them on hand.
    struct Candidate {
        const UsageEvent* event;
        std::size_t hash;  // for events with a key
    };
    std::vector<Candidate> candidates;
    for (const EventList& list : lists) {
        if (!list) continue;
        candidates.clear();
        // A multi-part answer repeats its request on neighbouring lines. When the line before had
        // the same key and was counted or turned away, its key is in `seen` already: the table
        // needn't be asked.
        const std::string_view* previousKey = nullptr;
        for (const UsageEvent& event : *list) {
            if (event.date < since) {
                previousKey = nullptr;
                continue;
            }
            if (!dedupe || !event.dedupeKey) {
                previousKey = nullptr;
                candidates.push_back({&event, 0});
                continue;
            }
            const std::string_view& key = *event.dedupeKey;
            // Lists read from the cache file, and freshly parsed ones, share one stored text
            // between neighbours with the same key.
            bool repeat = previousKey != nullptr &&
                          ((previousKey->data() == key.data() && previousKey->size() == key.size()) ||
                           *previousKey == key);
            previousKey = &key;
            if (repeat) continue;
            std::size_t hash = SeenKeys::hashOf(key);
            seen.prefetch(hash);
            candidates.push_back({&event, hash});
        }
        for (const Candidate& candidate : candidates) {
            const UsageEvent& event = *candidate.event;
            if (dedupe && event.dedupeKey && !seen.insert(*event.dedupeKey, candidate.hash)) continue;
            kept.push_back(&event);
        }
    }
    return kept;
}

// The merged events as one list, which keeps the lists they came from, and so their texts, alive.
EventList mergedList(std::vector<EventList> lists, Moment since, bool dedupe) {
    std::vector<UsageEvent> out;
    for (const UsageEvent* event : merged(lists, since, dedupe)) out.push_back(*event);
    return LocalLogUsageProvider::makeList(std::move(out),
                                           std::make_shared<const std::vector<EventList>>(std::move(lists)));
}

const JSONFieldScanner::KeyPath kTimestamp{"timestamp"};
const JSONFieldScanner::KeyPath kRequestID{"requestId"};
const JSONFieldScanner::KeyPath kSessionID{"sessionId"};
const JSONFieldScanner::KeyPath kMessageID{"message", "id"};
const JSONFieldScanner::KeyPath kInput{"message", "usage", "input_tokens"};
const JSONFieldScanner::KeyPath kOutput{"message", "usage", "output_tokens"};
const JSONFieldScanner::KeyPath kCacheCreation{"message", "usage", "cache_creation_input_tokens"};
const JSONFieldScanner::KeyPath kCacheRead{"message", "usage", "cache_read_input_tokens"};

// Where the claude scanner puts each figure.
struct ClaudeSlots {
    std::size_t timestamp, requestID, sessionID, messageID, input, output, cacheCreation, cacheRead;
};

const ClaudeSlots& claudeSlots() {
    static const ClaudeSlots slots = [] {
        const JSONFieldScanner& scanner = LocalLogUsageProvider::claudeScanner();
        auto slot = [&](const KeyPath& path) { return static_cast<std::size_t>(scanner.slotOf(path)); };
        return ClaudeSlots{slot(kTimestamp), slot(kRequestID), slot(kSessionID),     slot(kMessageID),
                           slot(kInput),     slot(kOutput),    slot(kCacheCreation), slot(kCacheRead)};
    }();
    return slots;
}

using RawValue = JSONFieldScanner::RawValue;

bool isString(const RawValue& value) { return value.kind == RawValue::Kind::string; }
std::int64_t integerOr0(const RawValue& value) { return value.kind == RawValue::Kind::integer ? value.number : 0; }

// The first place of `needle` in `bytes`, or nullptr. On x86-64 sixteen positions are tested at
// once for two of the needle's bytes, which keeps the search near memory speed on JSON, where
// the quote that starts both needles is everywhere; elsewhere memmem does the work.
const char* findNeedle(std::string_view bytes, std::string_view needle) {
#if defined(__SSE2__)
    const std::size_t size = needle.size();
    if (size >= 3 && bytes.size() >= size + 16) {
        const std::size_t second = 1;
        const std::size_t last = size - 2;
        const __m128i a = _mm_set1_epi8(needle[second]);
        const __m128i b = _mm_set1_epi8(needle[last]);
        std::size_t i = 0;
        for (; i + size + 16 <= bytes.size(); i += 16) {
            __m128i blockA = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + i + second));
            __m128i blockB = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + i + last));
            unsigned mask = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(blockA, a), _mm_cmpeq_epi8(blockB, b))));
            while (mask != 0) {
                unsigned bit = static_cast<unsigned>(__builtin_ctz(mask));
                if (std::memcmp(bytes.data() + i + bit, needle.data(), size) == 0) return bytes.data() + i + bit;
                mask &= mask - 1;
            }
        }
        const void* rest = ::memmem(bytes.data() + i, bytes.size() - i, needle.data(), size);
        return static_cast<const char*>(rest);
    }
#endif
    return static_cast<const char*>(::memmem(bytes.data(), bytes.size(), needle.data(), needle.size()));
}

// The last line feed among `size` bytes, or nullptr.
const char* lastLineFeed(const char* bytes, std::size_t size) noexcept {
#if defined(__GLIBC__)
    return static_cast<const char*>(::memrchr(bytes, '\n', size));
#else
    for (std::size_t at = size; at > 0; --at) {
        if (bytes[at - 1] == '\n') return bytes + at - 1;
    }
    return nullptr;
#endif
}

// Whether a figure could be a real token count: a hostile or damaged line with a negative or
// absurd one is not counted at all, rather than let it swamp or cancel the rest.
bool plausible(std::int64_t count) noexcept { return count >= 0 && count <= LocalLogUsageProvider::maxTokenCount; }

// Reads a file in pieces, so that memory stays bounded whatever the file's size and a file cut
// short meanwhile simply ends sooner. `handle` gets the bytes read so far that end in a line feed,
// each such region once; a last line without one comes alone at the end of the file.
class PieceReader {
public:
    static constexpr std::size_t pieceSize = std::size_t(1) << 20;

    // 0 at the end of the file, or the errno of a read that failed.
    template <typename Handle>
    int read(int fd, Handle&& handle) {
        while (true) {
            if (capacity_ - kept_ < pieceSize) grow(kept_ + pieceSize);
            ssize_t count = ::read(fd, buffer_.get() + kept_, capacity_ - kept_);
            if (count < 0) {
                if (errno == EINTR) continue;
                return errno;
            }
            if (count == 0) {
                if (kept_ > 0 && !skipping_) handle(std::string_view(buffer_.get(), kept_));
                return 0;
            }
            std::string_view bytes(buffer_.get(), kept_ + static_cast<std::size_t>(count));
            std::size_t from = 0;
            if (skipping_) {
                // The rest of a line too long to keep.
                from = bytes.find('\n', kept_);
                if (from == std::string_view::npos) {
                    kept_ = 0;
                    continue;
                }
                skipping_ = false;
                ++from;
            }
            // Only the bytes just read can hold a line feed: what was kept has none.
            const std::size_t fresh = std::max(from, kept_);
            const char* feed = lastLineFeed(bytes.data() + fresh, bytes.size() - fresh);
            const std::size_t complete = feed == nullptr ? from : static_cast<std::size_t>(feed - bytes.data()) + 1;
            if (complete > from) handle(bytes.substr(from, complete - from));
            kept_ = bytes.size() - complete;
            if (kept_ > LocalLogUsageProvider::maxLineSize) {
                skipping_ = true;
                kept_ = 0;
            } else if (kept_ > 0 && complete > 0) {
                std::memmove(buffer_.get(), bytes.data() + complete, kept_);
            }
        }
    }

private:
    void grow(std::size_t wanted) {
        // Never more than the longest line kept and a piece after it.
        std::size_t capacity = std::max(wanted, std::min(2 * capacity_, LocalLogUsageProvider::maxLineSize + pieceSize));
        auto larger = std::make_unique_for_overwrite<char[]>(capacity);
        if (kept_ > 0) std::memcpy(larger.get(), buffer_.get(), kept_);
        buffer_ = std::move(larger);
        capacity_ = capacity;
    }

    std::unique_ptr<char[]> buffer_;
    std::size_t capacity_ = 0;
    std::size_t kept_ = 0;  // the start of a line whose end is not read yet
    bool skipping_ = false;
};

bool twoDigits(std::string_view text, std::size_t at, int& value) {
    if (at + 2 > text.size()) return false;
    char a = text[at];
    char b = text[at + 1];
    if (a < '0' || a > '9' || b < '0' || b > '9') return false;
    value = (a - '0') * 10 + (b - '0');
    return true;
}

}  // namespace

Moment LocalLogUsageProvider::earliestDate(std::span<const UsageEvent> events) noexcept {
    Moment earliest = Moment::max();
    for (const UsageEvent& event : events) earliest = std::min(earliest, event.date);
    return earliest;
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::makeList(std::vector<UsageEvent> events,
                                                                std::shared_ptr<const void> text) {
    struct Owner {
        std::vector<UsageEvent> events;
        std::shared_ptr<const void> text;
        std::span<const UsageEvent> view;
    };
    auto owner = std::make_shared<Owner>(Owner{std::move(events), std::move(text), {}});
    owner->view = owner->events;
    return EventList(owner, &owner->view);
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::makeList(std::span<const UsageEvent> events,
                                                                std::shared_ptr<const void> owner) {
    struct Holder {
        std::span<const UsageEvent> view;
        std::shared_ptr<const void> owner;
    };
    auto holder = std::make_shared<const Holder>(Holder{events, std::move(owner)});
    return EventList(holder, &holder->view);
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::EventCache::events(const std::string& path, Moment cutoff,
                                                                          const Parse& parse) {
    struct stat info {};
    FileStamp stamp{-1, distantPast(), distantPast(), 0};
    if (::stat(path.c_str(), &info) == 0) stamp = stampOf(info);
    return events(path, stamp, cutoff, parse);
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::EventCache::events(const std::string& path,
                                                                          const FileStamp& stamp, Moment cutoff,
                                                                          const Parse& parse) {
    if (EventList found = cached(path, stamp, cutoff)) return found;
    EventList parsed = parse(path, cutoff);
    if (!parsed) return parsed;
    std::optional<Moment> earliest = earliestDate(*parsed);
    {
        std::lock_guard guard(lock_);
        entries_[path] = Entry{stamp, cutoff, parsed, earliest};
        ++generation_;
    }
    return parsed;
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::EventCache::cached(const std::string& path,
                                                                          const FileStamp& stamp, Moment cutoff) const {
    EventList cached;
    std::optional<Moment> earliest;
    {
        std::lock_guard guard(lock_);
        auto found = entries_.find(path);
        if (found != entries_.end() && found->second.stamp == stamp && found->second.cutoff <= cutoff) {
            cached = found->second.events;
            earliest = found->second.earliest;
        }
    }
    if (cached) {
        if (!earliest) earliest = earliestDate(*cached);
        if (*earliest >= cutoff) return cached;
        std::vector<UsageEvent> recent;
        for (const UsageEvent& event : *cached) {
            if (event.date >= cutoff) recent.push_back(event);
        }
        return makeList(std::move(recent), cached);
    }
    return nullptr;
}

std::map<std::string, LocalLogUsageProvider::EventCache::Entry> LocalLogUsageProvider::EventCache::entries() const {
    std::lock_guard guard(lock_);
    return entries_;
}

void LocalLogUsageProvider::EventCache::insert(const std::map<std::string, Entry>& entries) {
    std::lock_guard guard(lock_);
    for (const auto& [path, entry] : entries) entries_[path] = entry;
}

std::uint64_t LocalLogUsageProvider::EventCache::generation() const {
    std::lock_guard guard(lock_);
    return generation_;
}

LocalLogUsageProvider::LocalLogUsageProvider(ToolContext context, std::shared_ptr<EventCache> cache)
    : context_(std::move(context)), cache_(cache ? std::move(cache) : std::make_shared<EventCache>()) {}

ActivitySummary LocalLogUsageProvider::activity(const Profile& profile, ToolKind tool, double window,
                                                Moment now) const {
    return activities(profile, tool, {window}, now).front();
}

std::optional<std::string> LocalLogUsageProvider::logRoot(const Profile& profile, ToolKind tool) const {
    if (tool != ToolKind::claudeCode && tool != ToolKind::codex) return std::nullopt;
    if (profile.storage == Profile::Storage::managed) return context_.paths.dataDirectory(tool, profile.id);
    const char* variable = tool == ToolKind::claudeCode ? "CLAUDE_CONFIG_DIR" : "CODEX_HOME";
    if (const std::string* value = lookup(context_.environment, variable)) return *value;
    return context_.paths.home + (tool == ToolKind::claudeCode ? "/.claude" : "/.codex");
}

std::vector<ActivitySummary> LocalLogUsageProvider::activities(const Profile& profile, ToolKind tool,
                                                               const std::vector<double>& windows, Moment now,
                                                               std::vector<std::string>* warnings) const {
    std::vector<ActivitySummary> summaries;
    for (double window : windows) summaries.push_back(ActivitySummary{tool, window, 0, 0, 0, 0});
    auto root = logRoot(profile, tool);
    if (!root || windows.empty()) return summaries;

    Moment since = now - std::chrono::duration<double>(*std::max_element(windows.begin(), windows.end()));
    bool claude = tool == ToolKind::claudeCode;
    std::string folder = *root + (claude ? "/projects" : "/sessions");
    std::vector<Unreadable> unreadable;
    std::vector<EventList> lists = eventsOfFiles(recentLogs(folder, since, unreadable), since, *cache_,
                                                 claude ? parseClaudeFile : parseCodexFile, unreadable);
    std::vector<const UsageEvent*> events = merged(lists, since, claude);
    if (warnings != nullptr) {
        for (const Unreadable& item : unreadable) {
            warnings->push_back(std::string(item.folder ? "Couldn't list " : "Couldn't read ") + item.path + ": " +
                                std::strerror(item.error));
        }
    }

    std::unordered_set<std::string_view> sessions;
    for (ActivitySummary& summary : summaries) {
        Moment start = now - std::chrono::duration<double>(summary.window);
        sessions.clear();
        // A file's events mostly share one stored session text: the same one again needs no look-up.
        const UsageEvent* previous = nullptr;
        for (const UsageEvent* event : events) {
            if (event->date < start || event->date > now) continue;
            if (previous == nullptr || event->session.data() != previous->session.data() ||
                event->session.size() != previous->session.size()) {
                sessions.insert(event->session);
            }
            previous = event;
            summary.inputTokens = saturatingSum(summary.inputTokens, event->input);
            summary.outputTokens = saturatingSum(summary.outputTokens, event->output);
            summary.cacheTokens = saturatingSum(summary.cacheTokens, event->cache);
        }
        summary.sessions = static_cast<std::int64_t>(sessions.size());
    }
    return summaries;
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::claudeEvents(const std::string& folder, Moment since,
                                                                    EventCache& cache) {
    std::vector<Unreadable> unreadable;
    return mergedList(eventsOfFiles(recentLogs(folder, since, unreadable), since, cache, parseClaudeFile, unreadable),
                      since, true);
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::codexEvents(const std::string& folder, Moment since,
                                                                   EventCache& cache) {
    std::vector<Unreadable> unreadable;
    return mergedList(eventsOfFiles(recentLogs(folder, since, unreadable), since, cache, parseCodexFile, unreadable),
                      since, false);
}

std::vector<std::string> LocalLogUsageProvider::recentJSONL(const std::string& folder, Moment since) {
    std::vector<std::string> paths;
    std::vector<Unreadable> unreadable;
    for (LogFile& file : recentLogs(folder, since, unreadable)) paths.push_back(std::move(file.path));
    return paths;
}

int LocalLogUsageProvider::forEachLine(const std::string& path, std::string_view needle,
                                       const std::function<void(std::string_view)>& callback) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd) return errno;
    // Judged by what was opened, not by the listing: the file may have been swapped since.
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) return errno;
    if (!S_ISREG(info.st_mode)) return notRegularFile;
    if (needle.empty()) return 0;
#ifdef POSIX_FADV_SEQUENTIAL
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    PieceReader reader;
    return reader.read(fd.get(), [&](std::string_view bytes) {
        std::size_t offset = 0;
        while (offset < bytes.size()) {
            const char* match = findNeedle(bytes.substr(offset), needle);
            if (match == nullptr) return;
            std::size_t at = static_cast<std::size_t>(match - bytes.data());
            const char* previous = lastLineFeed(bytes.data() + offset, at - offset);
            std::size_t start = previous == nullptr ? offset : static_cast<std::size_t>(previous - bytes.data()) + 1;
            const void* feed = ::memchr(bytes.data() + at, '\n', bytes.size() - at);
            std::size_t end = feed == nullptr ? bytes.size() : static_cast<std::size_t>(static_cast<const char*>(feed) - bytes.data());
            callback(bytes.substr(start, end - start));
            offset = end + 1;
        }
    });
}

const JSONFieldScanner& LocalLogUsageProvider::claudeScanner() {
    static const JSONFieldScanner scanner({kTimestamp, kRequestID, kSessionID, kMessageID, kInput, kOutput,
                                           kCacheCreation, kCacheRead});
    return scanner;
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::parseClaudeFile(const std::string& path, Moment since,
                                                                       int* error) {
    const JSONFieldScanner& scanner = claudeScanner();
    const ClaudeSlots& at = claudeSlots();
    std::vector<UsageEvent> events;
    std::vector<RawValue> slots;
    auto text = std::make_shared<TextArena>();
    std::string_view session;
    std::string key;
    // A transcript is mostly one session: its name is stored once.
    auto sessionNamed = [&](std::string_view name) {
        if (session.data() == nullptr || session != name) session = text->store(name);
        return session;
    };
    int failure = forEachLine(path, "\"usage\"", [&](std::string_view line) {
        if (!scanner.scan(line, slots)) return;
        const RawValue& input = slots[at.input];
        const RawValue& timestamp = slots[at.timestamp];
        if (input.kind != RawValue::Kind::integer || !isString(timestamp)) return;
        const std::int64_t output = integerOr0(slots[at.output]);
        const std::int64_t creation = integerOr0(slots[at.cacheCreation]);
        const std::int64_t read = integerOr0(slots[at.cacheRead]);
        if (!plausible(input.number) || !plausible(output) || !plausible(creation) || !plausible(read)) return;
        auto date = timestamp.plain ? parseDate(timestamp.bytes) : parseDate(timestamp.text());
        if (!date || *date < since) return;

        UsageEvent event;
        event.date = *date;
        const RawValue& sessionID = slots[at.sessionID];
        event.session = !isString(sessionID) ? sessionNamed(path)
                        : sessionID.plain    ? sessionNamed(sessionID.bytes)
                                             : sessionNamed(sessionID.text());
        if (isString(slots[at.messageID])) {
            const RawValue& requestID = slots[at.requestID];
            auto append = [&](const RawValue& value) {
                if (value.plain) key.append(value.bytes);
                else key.append(value.text());
            };
            key.clear();
            append(slots[at.messageID]);
            key += '|';
            if (isString(requestID)) append(requestID);
            // The parts of one answer come on neighbouring lines: their key is stored once.
            if (events.empty() || !events.back().dedupeKey || *events.back().dedupeKey != key) {
                event.dedupeKey = text->store(key);
            } else {
                event.dedupeKey = events.back().dedupeKey;
            }
        }
        event.input = input.number;
        event.output = output;
        event.cache = creation + read;
        events.push_back(event);
    });
    if (error != nullptr) *error = failure;
    if (failure != 0) return nullptr;
    return makeList(std::move(events), std::move(text));
}

LocalLogUsageProvider::EventList LocalLogUsageProvider::parseCodexFile(const std::string& path, Moment since,
                                                                      int* error) {
    std::vector<UsageEvent> events;
    auto text = std::make_shared<TextArena>();
    const std::string_view session = text->store(path);
    int failure = forEachLine(path, "\"token_count\"", [&](std::string_view line) {
        std::optional<CodexTokenCount> count = readCodexTokenCount(line);
        if (!count || !plausible(count->input) || !plausible(count->cachedInput) || !plausible(count->output) ||
            !plausible(count->cacheWriteInput)) {
            return;
        }
        auto date = parseDate(count->timestamp);
        if (!date || *date < since) return;

        std::int64_t input = count->input;
        std::int64_t cached = count->cachedInput;
        UsageEvent event;
        event.date = *date;
        event.session = session;
        // Codex counts cached input inside the input figure; some versions report more cached
        // than input, which must not make the remainder negative.
        event.input = std::max<std::int64_t>(0, input - cached);
        event.output = count->output;
        event.cache = cached + count->cacheWriteInput;
        events.push_back(event);
    });
    if (error != nullptr) *error = failure;
    if (failure != 0) return nullptr;
    return makeList(std::move(events), std::move(text));
}

std::optional<Moment> LocalLogUsageProvider::parseDate(std::string_view text) {
    if (text.size() < 19 || text[4] != '-' || text[7] != '-' || (text[10] != 'T' && text[10] != ' ') ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    auto digits = [&](std::size_t from, std::size_t count, int& value) {
        value = 0;
        for (std::size_t i = from; i < from + count; ++i) {
            if (text[i] < '0' || text[i] > '9') return false;
            value = value * 10 + (text[i] - '0');
        }
        return true;
    };
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(0, 4, year) || !digits(5, 2, month) || !digits(8, 2, day) || !digits(11, 2, hour) ||
        !digits(14, 2, minute) || !digits(17, 2, second)) {
        return std::nullopt;
    }
    double fraction = 0;
    std::size_t position = 19;
    bool zoneFollows = text.size() > 19;
    if (zoneFollows && text[19] == '.') {
        position = 20;
        double scale = 0.1;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
            fraction += (text[position] - '0') * scale;
            scale /= 10;
            ++position;
        }
        zoneFollows = position < text.size();
    }
    long offset = 0;
    if (zoneFollows && (text[position] == '+' || text[position] == '-') && text.size() - position >= 6) {
        int hours = 0;
        int minutes = 0;
        if (twoDigits(text, position + 1, hours) && twoDigits(text, position + 4, minutes)) {
            offset = (text[position] == '-' ? -1 : 1) * (hours * 3600L + minutes * 60L);
        }
    }
    struct tm fields {};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    time_t seconds = ::timegm(&fields);
    return Moment(std::chrono::duration<double>(static_cast<double>(seconds - offset) + fraction));
}

}  // namespace veerline
