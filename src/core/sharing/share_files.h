#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace veerline::sharing {

// What lstat sees at a path: nothing, a symbolic link (never followed), a folder or anything else.
enum class EntryKind { missing, link, folder, other };
EntryKind entryKind(const std::string& path) noexcept;

// A tool's settings file: at most this many bytes (Claude Code's .claude.json grows with its caches).
inline constexpr std::size_t maxSharedFileSize = 64 * 1024 * 1024;

// The file at `path` itself, never through a link: nothing when absent. Throws VeerlineError::io
// for a link, a folder, an unreadable or an oversized file.
std::optional<std::string> readOwnFile(const std::string& path);

// Replaces `path` itself (a link there is replaced, not followed) by a file holding `content`,
// written beside it and renamed into place; `mode` is the old file's when there was one.
void replaceFile(const std::string& path, const std::string& content, mode_t mode);

// The permission bits of the file at `path` (not followed), or `fallback` when there is none.
mode_t fileModeOr(const std::string& path, mode_t fallback) noexcept;

}  // namespace veerline::sharing
