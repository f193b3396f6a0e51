#include "usage/usage_cache_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cerrno>
#include <cstring>
#include <new>
#include <span>
#include <type_traits>
#include <unordered_map>

#include "base/file_io.h"
#include "platform/platform.h"

namespace veerline::UsageCacheFile {

namespace {

using EventCache = LocalLogUsageProvider::EventCache;
using UsageEvent = LocalLogUsageProvider::UsageEvent;

// Magic, version, byte-order mark, payload length and the checksum of the payload's counts, then
// the payload: the number of entries and of events, then the entries, each followed by its own
// checksum. Checked entry by entry, the bytes are summed while they are still in the processor's
// cache from decoding, rather than in a pass of their own over many megabytes.
constexpr char kMagic[16] = {'V', 'E', 'E', 'R', 'L', 'I', 'N', 'E', '-', 'U', 'S', 'A', 'G', 'E', '\n', '\0'};
constexpr std::uint32_t kByteOrder = 0x01020304;
constexpr std::size_t kHeaderSize = 16 + 4 + 4 + 8 + 8;
constexpr std::size_t kCountsSize = 8 + 8;
// An event's key: none, the same text as the event before it in its file (the parts of one answer),
// or a text of its own, its length plus this.
constexpr std::uint64_t kNoKey = 0;
constexpr std::uint64_t kSameKey = 1;
constexpr std::uint64_t kOwnKey = 2;
// The least an event takes: its date and five one-byte numbers. A count beyond what the bytes could
// hold is damage, not a reason to allocate.
constexpr std::size_t kSmallestEvent = 8 + 5;

// Cheap enough for megabytes and enough to notice a damaged or truncated file. Four independent
// lanes keep the multiplier busy instead of waiting on one chain.
std::uint64_t checksum(std::string_view bytes) {
    std::uint64_t lanes[4] = {0xcbf29ce484222325ULL, 0x84222325cbf29ce4ULL, 0x9e3779b97f4a7c15ULL, 0x7f4a7c159e3779b9ULL};
    std::size_t i = 0;
    for (; i + 32 <= bytes.size(); i += 32) {
        for (int lane = 0; lane < 4; ++lane) {
            std::uint64_t word;
            std::memcpy(&word, bytes.data() + i + 8 * lane, 8);
            lanes[lane] = (lanes[lane] ^ word) * 0x100000001b3ULL;
            lanes[lane] ^= lanes[lane] >> 29;
        }
    }
    std::uint64_t hash = lanes[0] ^ std::rotl(lanes[1], 16) ^ std::rotl(lanes[2], 32) ^ std::rotl(lanes[3], 48);
    for (; i < bytes.size(); ++i) hash = (hash ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3ULL;
    return hash ^ bytes.size();
}

class Writer {
public:
    template <typename T>
    void put(T value) {
        out.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    // Seven bits a byte, the low ones first: token counts mostly fit in two or three.
    void putNumber(std::uint64_t value) {
        while (value >= 0x80) {
            out += static_cast<char>(value | 0x80);
            value >>= 7;
        }
        out += static_cast<char>(value);
    }
    // Counts come from the logs and could be negative: zigzag keeps small ones short either way.
    void putSigned(std::int64_t value) {
        putNumber((static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63));
    }
    void putText(std::string_view text) {
        put(static_cast<std::uint32_t>(text.size()));
        out.append(text);
    }
    std::string out;
};

class Reader {
public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}
    template <typename T>
    bool get(T& value) {
        if (bytes_.size() - position_ < sizeof value) return false;
        std::memcpy(&value, bytes_.data() + position_, sizeof value);
        position_ += sizeof value;
        return true;
    }
    bool getNumber(std::uint64_t& value) {
        value = 0;
        for (unsigned shift = 0; shift < 64 && position_ < bytes_.size(); shift += 7) {
            auto byte = static_cast<unsigned char>(bytes_[position_++]);
            value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
            if (byte < 0x80) return true;
        }
        return false;
    }
    bool getSigned(std::int64_t& value) {
        std::uint64_t raw = 0;
        if (!getNumber(raw)) return false;
        value = static_cast<std::int64_t>(raw >> 1) ^ -static_cast<std::int64_t>(raw & 1);
        return true;
    }
    bool getBytes(std::size_t length, std::string_view& text) {
        if (bytes_.size() - position_ < length) return false;
        text = bytes_.substr(position_, length);
        position_ += length;
        return true;
    }
    bool getText(std::string_view& text) {
        std::uint32_t length = 0;
        return get(length) && getBytes(length, text);
    }
    bool done() const { return position_ == bytes_.size(); }
    std::size_t remaining() const { return bytes_.size() - position_; }
    std::size_t position() const { return position_; }
    std::string_view bytes() const { return bytes_; }

private:
    std::string_view bytes_;
    std::size_t position_ = 0;
};

double seconds(Moment moment) { return moment.time_since_epoch().count(); }
Moment moment(double value) { return Moment(std::chrono::duration<double>(value)); }

void encodeEntry(Writer& writer, const std::string& path, const EventCache::Entry& entry) {
    const std::size_t start = writer.out.size();
    writer.putText(path);
    writer.put(entry.stamp.size);
    writer.put(seconds(entry.stamp.mtime));
    writer.put(seconds(entry.stamp.ctime));
    writer.put(entry.stamp.inode);
    writer.put(seconds(entry.cutoff));
    // A file's events share a handful of session names: store each once.
    std::vector<std::string_view> sessions;
    std::unordered_map<std::string_view, std::uint32_t> sessionIndex;
    std::span<const UsageEvent> events = entry.events ? *entry.events : std::span<const UsageEvent>();
    for (const UsageEvent& event : events) {
        if (sessionIndex.emplace(event.session, static_cast<std::uint32_t>(sessions.size())).second) {
            sessions.push_back(event.session);
        }
    }
    writer.put(static_cast<std::uint32_t>(sessions.size()));
    for (std::string_view session : sessions) writer.putText(session);
    writer.put(static_cast<std::uint64_t>(events.size()));
    const std::optional<std::string_view>* previousKey = nullptr;
    for (const UsageEvent& event : events) {
        writer.put(seconds(event.date));
        writer.putSigned(event.input);
        writer.putSigned(event.output);
        writer.putSigned(event.cache);
        writer.putNumber(sessionIndex[event.session]);
        if (!event.dedupeKey) {
            writer.putNumber(kNoKey);
        } else if (previousKey != nullptr && *previousKey == event.dedupeKey) {
            writer.putNumber(kSameKey);
        } else {
            writer.putNumber(kOwnKey + event.dedupeKey->size());
            writer.out.append(*event.dedupeKey);
        }
        previousKey = &event.dedupeKey;
    }
    writer.put(checksum(std::string_view(writer.out).substr(start)));
}

// One entry into `events`, room for at most `room` of them; advances `events` past those taken.
// The events' texts point into the bytes `reader` reads.
bool decodeEntry(Reader& reader, UsageEvent*& events, std::size_t& room, std::string_view& path,
                 EventCache::Entry& entry, std::span<const UsageEvent>& taken) {
    const std::size_t start = reader.position();
    double mtime = 0;
    double ctime = 0;
    double cutoff = 0;
    std::uint32_t sessionCount = 0;
    if (!reader.getText(path) || !reader.get(entry.stamp.size) || !reader.get(mtime) || !reader.get(ctime) ||
        !reader.get(entry.stamp.inode) || !reader.get(cutoff) || !reader.get(sessionCount) ||
        sessionCount > reader.remaining() / 4) {
        return false;
    }
    entry.stamp.mtime = moment(mtime);
    entry.stamp.ctime = moment(ctime);
    entry.cutoff = moment(cutoff);
    std::vector<std::string_view> sessions(sessionCount);
    for (std::string_view& session : sessions) {
        if (!reader.getText(session)) return false;
    }
    std::uint64_t eventCount = 0;
    if (!reader.get(eventCount) || eventCount > room || eventCount > reader.remaining() / kSmallestEvent) return false;
    const std::optional<std::string_view>* previousKey = nullptr;
    Moment earliest = Moment::max();
    for (std::uint64_t i = 0; i < eventCount; ++i) {
        double date = 0;
        std::uint64_t session = 0;
        std::uint64_t key = 0;
        // Fresh memory: each event's life starts here.
        UsageEvent& event = *new (events + i) UsageEvent();
        if (!reader.get(date) || !reader.getSigned(event.input) || !reader.getSigned(event.output) ||
            !reader.getSigned(event.cache) || !reader.getNumber(session) || session >= sessions.size() ||
            !reader.getNumber(key) || !std::isfinite(date)) {
            return false;
        }
        event.date = moment(date);
        earliest = std::min(earliest, event.date);
        event.session = sessions[session];
        if (key == kSameKey) {
            if (previousKey == nullptr || !*previousKey) return false;
            event.dedupeKey = *previousKey;
        } else if (key >= kOwnKey) {
            if (!reader.getBytes(key - kOwnKey, event.dedupeKey.emplace())) return false;
        } else if (key != kNoKey) {
            return false;
        }
        previousKey = &event.dedupeKey;
    }
    const std::size_t end = reader.position();
    std::uint64_t sum = 0;
    if (!reader.get(sum) || sum != checksum(reader.bytes().substr(start, end - start))) return false;
    entry.earliest = earliest;
    taken = std::span<const UsageEvent>(events, static_cast<std::size_t>(eventCount));
    events += eventCount;
    room -= static_cast<std::size_t>(eventCount);
    return true;
}

// Creates the folder and missing parents, private to the user.
bool makeFolders(const std::string& folder) {
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
    std::size_t slash = folder.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeFolders(folder.substr(0, slash))) return false;
    return ::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

}  // namespace

std::string location(const std::string& home, const Environment& environment) {
    return platform::cacheDirectory(home, lookup(environment, "XDG_CACHE_HOME")) + "/usage-cache.bin";
}

LoadResult load(const std::string& path, EventCache& cache) noexcept {
    try {
        // Looked at before it is opened: a link, a FIFO or a device is not the cache, and someone
        // else's file in the user's cache folder is not to be trusted with the counts.
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) return errno == ENOENT ? LoadResult::missing : LoadResult::rejected;
        if (!S_ISREG(info.st_mode) || info.st_uid != ::getuid() || info.st_size < static_cast<off_t>(kHeaderSize) ||
            static_cast<std::uintmax_t>(info.st_size) > maxFileSize) {
            return LoadResult::rejected;
        }
        std::optional<std::string> read = readRegularFile(path, maxFileSize);
        if (!read) return LoadResult::missing;
        // The loaded events point into it.
        auto bytes = std::make_shared<const std::string>(std::move(*read));
        if (bytes->size() < kHeaderSize) return LoadResult::rejected;
        Reader header(std::string_view(*bytes).substr(0, kHeaderSize));
        char magic[16];
        std::uint32_t version = 0;
        std::uint32_t byteOrder = 0;
        std::uint64_t length = 0;
        std::uint64_t sum = 0;
        for (char& byte : magic) header.get(byte);
        header.get(version);
        header.get(byteOrder);
        header.get(length);
        header.get(sum);
        if (std::memcmp(magic, kMagic, sizeof kMagic) != 0 || version != formatVersion || byteOrder != kByteOrder ||
            length != bytes->size() - kHeaderSize) {
            return LoadResult::rejected;
        }
        std::string_view payload = std::string_view(*bytes).substr(kHeaderSize);
        if (checksum(payload.substr(0, kCountsSize)) != sum) return LoadResult::rejected;
        auto entries = decodePayload(payload, bytes);
        if (!entries) return LoadResult::rejected;
        cache.insert(*entries);
        return LoadResult::loaded;
    } catch (...) {
        // A file that could not be read, or memory that ran out: the counts are then taken from
        // the logs, and the cache written afresh.
        return LoadResult::rejected;
    }
}

std::optional<std::map<std::string, EventCache::Entry>> decodePayload(std::string_view payload,
                                                                      const std::shared_ptr<const void>& owner) {
    Reader reader(payload);
    std::uint64_t count = 0;
    std::uint64_t eventTotal = 0;
    if (!reader.get(count) || !reader.get(eventTotal) || eventTotal > reader.remaining() / kSmallestEvent) {
        return std::nullopt;
    }
    // Every list points into one block of events, which keeps the file's bytes alive in turn. The
    // block is freed without destroying its events, which own nothing.
    static_assert(std::is_trivially_destructible_v<UsageEvent>);
    struct Block {
        std::shared_ptr<const void> bytes;
        std::shared_ptr<char[]> events;
    };
    auto block = std::make_shared<Block>(
        Block{owner, platform::largeZeroedMemory(std::max<std::size_t>(1, eventTotal) * sizeof(UsageEvent))});
    if (!block->events) return std::nullopt;
    auto* events = reinterpret_cast<UsageEvent*>(block->events.get());
    std::size_t room = static_cast<std::size_t>(eventTotal);

    std::map<std::string, EventCache::Entry> entries;
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string_view path;
        EventCache::Entry entry;
        std::span<const UsageEvent> taken;
        if (!decodeEntry(reader, events, room, path, entry, taken)) return std::nullopt;
        entry.events = LocalLogUsageProvider::makeList(taken, block);
        entries[std::string(path)] = std::move(entry);
    }
    if (!reader.done() || room != 0) return std::nullopt;
    return entries;
}

void save(const std::string& path, const EventCache& cache, Moment keepModifiedSince) noexcept {
    try {
        std::map<std::string, EventCache::Entry> entries = cache.entries();
        Writer payload;
        std::uint64_t count = 0;
        std::uint64_t eventTotal = 0;
        payload.put(count);
        payload.put(eventTotal);
        for (const auto& [file, entry] : entries) {
            struct stat info {};
            if (entry.stamp.mtime < keepModifiedSince || ::stat(file.c_str(), &info) != 0) continue;
            encodeEntry(payload, file, entry);
            ++count;
            eventTotal += entry.events ? entry.events->size() : 0;
        }
        std::memcpy(payload.out.data(), &count, sizeof count);
        std::memcpy(payload.out.data() + sizeof count, &eventTotal, sizeof eventTotal);

        Writer file;
        file.out.append(kMagic, sizeof kMagic);
        file.put(formatVersion);
        file.put(kByteOrder);
        file.put(static_cast<std::uint64_t>(payload.out.size()));
        file.put(checksum(std::string_view(payload.out).substr(0, kCountsSize)));
        file.out += payload.out;

        if (file.out.size() > maxFileSize) {
            // It would be dropped unread on the next load: better none than a stale one.
            ::unlink(path.c_str());
            return;
        }
        std::size_t slash = path.find_last_of('/');
        if (slash == std::string::npos || slash == 0 || !makeFolders(path.substr(0, slash))) return;
        writeFileAtomically(path, file.out, 0600);
    } catch (...) {
        // A cache that could not be written is rebuilt on the next run.
    }
}

}  // namespace veerline::UsageCacheFile
