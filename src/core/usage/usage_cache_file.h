#pragma once

// The usage provider's parsed events kept on disk between runs, so that a command run every few
// seconds (a status line) re-reads only the logs that changed. It is only ever a cache: a damaged,
// foreign or newer file is ignored (and replaced on the next save), and no failure to read or
// write it reaches the user.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/environment.h"
#include "usage/local_log_usage_provider.h"

namespace veerline::UsageCacheFile {

inline constexpr std::uint32_t formatVersion = 3;

// The largest cache file read. Real ones hold a few bytes a request and stay far below; anything
// larger is dropped unread and rebuilt rather than let it swamp memory.
inline constexpr std::size_t maxFileSize = 128 * 1024 * 1024;

// "usage-cache.bin" in the platform's cache folder for Veerline.
std::string location(const std::string& home, const Environment& environment);

enum class LoadResult {
    missing,   // no file: nothing to add
    loaded,    // its entries were added
    rejected,  // something is there that is not a cache this version can use: rebuild it
};

// Adds the file's entries to `cache`. Anything in the file's place that is not a regular file of
// the user's own, is larger than maxFileSize, is damaged or of another format adds nothing; it is
// never opened in a way that could block, and never read past the bound.
LoadResult load(const std::string& path, LocalLogUsageProvider::EventCache& cache) noexcept;

// The entries of a cache file's payload, everything after its header, or nothing when the bytes are
// damaged. The events' texts point into `payload`, which `owner` must keep alive.
std::optional<std::map<std::string, LocalLogUsageProvider::EventCache::Entry>> decodePayload(
    std::string_view payload, const std::shared_ptr<const void>& owner);

// Writes every entry of `cache` whose log file still exists and was modified at or after
// `keepModifiedSince` (older files fall out of every window, and the file must not grow with the
// history of the logs), atomically, the folder 0700 and the file 0600; a cache that would be over
// maxFileSize is removed instead. Failures are ignored.
void save(const std::string& path, const LocalLogUsageProvider::EventCache& cache, Moment keepModifiedSince) noexcept;

}  // namespace veerline::UsageCacheFile
