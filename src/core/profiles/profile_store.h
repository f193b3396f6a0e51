#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "base/paths.h"
#include "profiles/profile_document.h"

namespace veerline {

namespace detail {

// The exclusive flock on ".profiles.lock" for one read-modify-write; released and closed on
// destruction.
class ProfilesLock {
public:
    explicit ProfilesLock(const std::string& lockFile);
    ~ProfilesLock();
    ProfilesLock(const ProfilesLock&) = delete;
    ProfilesLock& operator=(const ProfilesLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace detail

// The only reader and writer of the profiles file. Reads take no lock and rely on every save
// replacing the file by rename; changes go through `update`, serialised between processes.
class ProfileStore {
public:
    // Far more than any real set of profiles; a larger file is refused unread.
    static constexpr std::size_t maxFileSize = 4 * 1024 * 1024;

    explicit ProfileStore(Paths paths) : paths_(std::move(paths)) {}

    const Paths& paths() const noexcept { return paths_; }

    // The document on disk, or the empty one when there is no file. Throws VeerlineError for a
    // file that is not a regular file, too large, written by a newer version or not a document.
    // It is not validated: one stale rule must not lock the user out of the commands that repair
    // it. Whoever turns an id into a path asks `ProfileDocument::isUsable` first.
    ProfileDocument load() const;

    // Runs `edit(ProfileDocument&)` on the current document under the lock, validates and saves
    // the result unless it is unchanged, and returns what `edit` returned. An edit that only takes
    // entries out, leaving nothing pointing at a profile it took, is saved without validating.
    // Nothing is written when anything throws. `edit` must not call `update` itself.
    template <typename Edit>
    auto update(Edit&& edit) const {
        using Result = std::remove_cvref_t<std::invoke_result_t<Edit&, ProfileDocument&>>;
        ensureSupportDirectory();
        detail::ProfilesLock lock(paths_.lockFile());
        const ProfileDocument loaded = load();
        ProfileDocument working = loaded;
        if constexpr (std::is_void_v<Result>) {
            std::invoke(edit, working);
            commit(loaded, working);
        } else {
            Result result = std::invoke(edit, working);
            commit(loaded, working);
            return result;
        }
    }

private:
    ProfileDocument decode(std::string_view bytes) const;
    void ensureSupportDirectory() const;
    void commit(const ProfileDocument& loaded, const ProfileDocument& edited) const;
    void write(const ProfileDocument& document) const;

    Paths paths_;
};

}  // namespace veerline
