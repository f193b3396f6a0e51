#pragma once

// The few operating-system services that differ between macOS and Linux. Everything else in
// Veerline is plain POSIX.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veerline::platform {

// Full path of the running executable, or nothing when the system won't say.
std::optional<std::string> executablePath() noexcept;

// The path with every symbolic link, "." and ".." resolved, as realpath(3) gives it; nothing when
// the path does not exist or cannot be reached.
std::optional<std::string> realPath(const std::string& path) noexcept;

// Whether names in the folder (or file) at `path` compare case-sensitively; nothing when the
// path cannot be asked (for example because it does not exist).
std::optional<bool> volumeIsCaseSensitive(const std::string& path) noexcept;

// The names in one folder and what kind of file each is, read at once: answers many "is there
// an X in here" questions for the price of one.
class FolderListing {
public:
    enum class Kind { missing, link, other, unknown };

    FolderListing(std::unique_ptr<char[]> storage, std::vector<std::pair<std::string_view, Kind>> entries);

    // `unknown` when the listing didn't say what kind of file the name is; ask the system then.
    Kind find(std::string_view name) const;

private:
    std::unique_ptr<char[]> storage_;
    std::vector<std::pair<std::string_view, Kind>> entries_;  // sorted by name
};

// The listing of the open folder `folderFD`; nothing where a missing name could still be found
// under another spelling (case-folding or normalising file systems, or ones this code doesn't
// know), or when the folder is too large to be worth reading whole.
std::optional<FolderListing> listFolder(int folderFD) noexcept;

// A uniformly drawn number in [0, bound) from the system's cryptographically strong source.
std::uint32_t secureRandomBelow(std::uint32_t bound) noexcept;

// Human text of a Keychain (Security framework) status code, when there is one.
std::optional<std::string> securityStatusMessage(std::int32_t status);

// The home folder when neither HOME nor the password database gives one.
std::string fallbackHomeDirectory();

// The per-user temporary folder, without a trailing "/".
std::string temporaryDirectory();

// Variables through which the tools reach the user's session services, such as a keyring; the
// tools' own commands get them besides the base environment.
std::span<const std::string_view> sessionServiceVariables() noexcept;

// The first lines of a managed profile's Codex "config.toml": where Codex keeps the profile's
// sign-in on this system, with a comment saying so for whoever opens the file.
std::string_view codexStarterConfig() noexcept;

// Starter files that earlier versions wrote on this system. A file that still holds exactly one
// of them was never edited, so today's starter may replace it.
std::span<const std::string_view> outdatedCodexStarterConfigs() noexcept;

// Where short-lived private files go (a preview of a start-up file): the user's own runtime
// folder where the system has one, else the temporary folder.
std::string privateScratchDirectory();

// Whether an interactive bash started in a terminal reads ~/.bashrc. Linux terminals start
// non-login shells, which do; macOS terminals start login shells, which read ~/.bash_profile.
bool interactiveBashReadsBashrc() noexcept;

// Whether desktop apps live as ".app" bundles in Applications folders (macOS). Elsewhere there is
// nothing to search there: other systems keep no such folders.
bool hasApplicationBundles() noexcept;

// Where Veerline's desktop app turns the shell integration on, for advice that names it; nothing
// where there is no such app (Linux), so that advice gives the command alone.
std::optional<std::string_view> shellIntegrationSetting() noexcept;

// An application bundle and the version its Info.plist declares (CFBundleShortVersionString).
struct InstalledApp {
    std::string path;
    std::optional<std::string> version;
};

// The first ".app" directly inside one of `folders`, in their order, whose bundle identifier is
// `bundleID`; always nothing without application bundles. Unlistable folders are skipped.
std::optional<InstalledApp> findApplication(std::string_view bundleID, const std::vector<std::string>& folders) noexcept;

// Veerline's folder among the user's caches, files that can be rebuilt at any time:
// ~/Library/Caches/Veerline on macOS; $XDG_CACHE_HOME/veerline (when that is an absolute path)
// or ~/.cache/veerline elsewhere. `xdgCacheHome` is the variable's value, when it is set.
std::string cacheDirectory(const std::string& home, const std::string* xdgCacheHome);

// `size` bytes of zeroed memory for a large working set touched all over (a table looked up at
// random, a file read whole), in huge pages where the system offers them: with 4 kB pages every
// look-up in a table of megabytes misses the address cache, and every 4 kB costs a page fault.
// Nothing when memory runs out.
std::shared_ptr<char[]> largeZeroedMemory(std::size_t size) noexcept;

}  // namespace veerline::platform
