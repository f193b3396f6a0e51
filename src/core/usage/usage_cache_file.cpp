#include "usage/usage_cache_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "base/file_io.h"
#include "platform/platform.h"

namespace veerline::UsageCacheFile {

namespace {

using EventCache = LocalLogUsageProvider::EventCache;
using UsageEvent = LocalLogUsageProvider::UsageEvent;

// Magic, version, byte-order mark, payload length and checksum, then the payload.
constexpr char kMagic[16] = {'V', 'E', 'E', 'R', 'L', 'I', 'N', 'E', '-', 'U', 'S', 'A', 'G', 'E', '\n', '\0'};
constexpr std::uint32_t kByteOrder = 0x01020304;
constexpr std::size_t kHeaderSize = 16 + 4 + 4 + 8 + 8;
constexpr std::uint32_t kNoKey = 0xFFFFFFFF;

// Cheap enough for megabytes and enough to notice a damaged or truncated file.
std::uint64_t checksum(std::string_view bytes) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data() + i, 8);
        hash = (hash ^ word) * 0x100000001b3ULL;
        hash ^= hash >> 29;
    }
    for (; i < bytes.size(); ++i) hash = (hash ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3ULL;
    return hash;
}

class Writer {
public:
    template <typename T>
    void put(T value) {
        out.append(reinterpret_cast<const char*>(&value), sizeof value);
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

private:
    std::string_view bytes_;
    std::size_t position_ = 0;
};

double seconds(Moment moment) { return moment.time_since_epoch().count(); }
Moment moment(double value) { return Moment(std::chrono::duration<double>(value)); }

void encodeEntry(Writer& writer, const std::string& path, const EventCache::Entry& entry) {
    writer.putText(path);
    writer.put(entry.size);
    writer.put(seconds(entry.mtime));
    writer.put(seconds(entry.cutoff));
    // A file's events share a handful of session names: store each once.
    std::vector<std::string_view> sessions;
    std::unordered_map<std::string_view, std::uint32_t> sessionIndex;
    const auto& events = entry.events ? *entry.events : std::vector<UsageEvent>{};
    for (const UsageEvent& event : events) {
        if (sessionIndex.emplace(event.session, static_cast<std::uint32_t>(sessions.size())).second) {
            sessions.push_back(event.session);
        }
    }
    writer.put(static_cast<std::uint32_t>(sessions.size()));
    for (std::string_view session : sessions) writer.putText(session);
    writer.put(static_cast<std::uint64_t>(events.size()));
    for (const UsageEvent& event : events) {
        writer.put(seconds(event.date));
        writer.put(event.input);
        writer.put(event.output);
        writer.put(event.cache);
        writer.put(sessionIndex[event.session]);
        if (event.dedupeKey) {
            writer.putText(*event.dedupeKey);
        } else {
            writer.put(kNoKey);
        }
    }
}

// The events' texts point into the bytes `reader` reads, which `owner` keeps alive.
bool decodeEntry(Reader& reader, const std::shared_ptr<const void>& owner, std::map<std::string, EventCache::Entry>& entries) {
    std::string_view path;
    EventCache::Entry entry;
    double mtime = 0;
    double cutoff = 0;
    std::uint32_t sessionCount = 0;
    if (!reader.getText(path) || !reader.get(entry.size) || !reader.get(mtime) || !reader.get(cutoff) ||
        !reader.get(sessionCount) || sessionCount > reader.remaining() / 4) {
        return false;
    }
    entry.mtime = moment(mtime);
    entry.cutoff = moment(cutoff);
    std::vector<std::string_view> sessions(sessionCount);
    for (std::string_view& session : sessions) {
        if (!reader.getText(session)) return false;
    }
    std::uint64_t eventCount = 0;
    // Each event takes at least 40 bytes: a count beyond that is damage, not a reason to allocate.
    if (!reader.get(eventCount) || eventCount > reader.remaining() / 40) return false;
    std::vector<UsageEvent> events(static_cast<std::size_t>(eventCount));
    for (UsageEvent& event : events) {
        double date = 0;
        std::uint32_t session = 0;
        std::uint32_t keyLength = 0;
        if (!reader.get(date) || !reader.get(event.input) || !reader.get(event.output) || !reader.get(event.cache) ||
            !reader.get(session) || session >= sessions.size() || !reader.get(keyLength)) {
            return false;
        }
        event.date = moment(date);
        event.session = sessions[session];
        if (keyLength != kNoKey && !reader.getBytes(keyLength, event.dedupeKey.emplace())) return false;
    }
    entry.events = LocalLogUsageProvider::makeList(std::move(events), owner);
    entries[std::string(path)] = std::move(entry);
    return true;
}

// Room for the whole file, which the loaded events point into, not filled with zeros first. A large
// one is asked for in huge pages where the system has them: a cache of 15 MB otherwise costs a
// page fault per 4 kB, more than its reading. A small one isn't: a huge page costs 2 MB of zeros.
std::shared_ptr<char[]> bufferFor(std::size_t size) {
#ifdef MADV_HUGEPAGE
    constexpr std::size_t huge = 2 * 1024 * 1024;
    if (size >= huge) {
        const std::size_t length = (size + huge - 1) / huge * huge + huge;  // room to align the start
        void* address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (address == MAP_FAILED) return nullptr;
        auto start = (reinterpret_cast<std::uintptr_t>(address) + huge - 1) / huge * huge;
        ::madvise(reinterpret_cast<void*>(start), length - huge, MADV_HUGEPAGE);
        return std::shared_ptr<char[]>(reinterpret_cast<char*>(start),
                                       [address, length](char*) { ::munmap(address, length); });
    }
#endif
    return std::make_shared_for_overwrite<char[]>(size);
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

void load(const std::string& path, EventCache& cache) noexcept {
    try {
        FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        struct stat info {};
        // Someone else's file in the user's cache folder is not to be trusted with the counts.
        if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::getuid()) return;
        const auto size = static_cast<std::size_t>(info.st_size);
        if (size < kHeaderSize) return;
        std::shared_ptr<char[]> buffer = bufferFor(size);
        if (!buffer) return;
        std::size_t filled = 0;
        while (filled < size) {
            ssize_t count = ::read(fd.get(), buffer.get() + filled, size - filled);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return;
            filled += static_cast<std::size_t>(count);
        }
        std::string_view bytes(buffer.get(), size);
        Reader header(bytes.substr(0, kHeaderSize));
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
            length != bytes.size() - kHeaderSize) {
            return;
        }
        std::string_view payload = bytes.substr(kHeaderSize);
        if (checksum(payload) != sum) return;
        if (auto entries = decodePayload(payload, buffer)) cache.insert(*entries);
    } catch (...) {
        // Only allocation can fail here; the counts are then taken from the logs.
    }
}

std::optional<std::map<std::string, EventCache::Entry>> decodePayload(std::string_view payload,
                                                                      const std::shared_ptr<const void>& owner) {
    Reader reader(payload);
    std::uint64_t count = 0;
    if (!reader.get(count)) return std::nullopt;
    std::map<std::string, EventCache::Entry> entries;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!decodeEntry(reader, owner, entries)) return std::nullopt;
    }
    if (!reader.done()) return std::nullopt;
    return entries;
}

void save(const std::string& path, const EventCache& cache, Moment keepModifiedSince) noexcept {
    try {
        std::map<std::string, EventCache::Entry> entries = cache.entries();
        Writer payload;
        std::uint64_t count = 0;
        payload.put(count);
        for (const auto& [file, entry] : entries) {
            struct stat info {};
            if (entry.mtime < keepModifiedSince || ::stat(file.c_str(), &info) != 0) continue;
            encodeEntry(payload, file, entry);
            ++count;
        }
        std::memcpy(payload.out.data(), &count, sizeof count);

        Writer file;
        file.out.append(kMagic, sizeof kMagic);
        file.put(formatVersion);
        file.put(kByteOrder);
        file.put(static_cast<std::uint64_t>(payload.out.size()));
        file.put(checksum(payload.out));
        file.out += payload.out;

        std::size_t slash = path.find_last_of('/');
        if (slash == std::string::npos || slash == 0 || !makeFolders(path.substr(0, slash))) return;
        TemporaryFile temporary(path + "." + std::to_string(::getpid()) + ".tmp");
        FileDescriptor fd(::open(temporary.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd || ::fchmod(fd.get(), 0600) != 0 || writeAll(fd.get(), file.out) != 0 || fd.close() != 0) return;
        if (::rename(temporary.path().c_str(), path.c_str()) == 0) temporary.keep();
    } catch (...) {
        // A cache that could not be written is rebuilt on the next run.
    }
}

}  // namespace veerline::UsageCacheFile
