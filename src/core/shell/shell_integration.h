#pragma once

#include <sys/types.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/environment.h"
#include "shell/install_state.h"
#include "base/paths.h"

namespace veerline {

// Puts the shim folder first on the user's PATH through a managed block in their shell start-up
// files, lays out ~/.veerline, and undoes all of it again. Every failure is a VeerlineError::io
// whose message names the path with the home folder written as "~".
class ShellIntegration {
public:
    // What an operation does, or would do, to one file.
    struct FileChange {
        std::string path;
        bool existed = false;
        std::string before;   // empty when the file didn't exist
        std::string after;

        bool changes() const noexcept { return before != after; }
        bool operator==(const FileChange&) const = default;
    };

    using InstallState = veerline::InstallState;

    struct Status {
        struct Block {
            std::string path;
            bool isLast = false;
            bool operator==(const Block&) const = default;
        };

        bool binariesInstalled = false;
        std::vector<Block> blocks;            // target files holding a managed block, in target order
        std::optional<std::string> appPath;   // trimmed; nothing when the app-path file can't be read
        // Target files that the user's own shell ($SHELL) reads and that hold no block.
        std::vector<std::string> missingBlocks;

        bool isInstalled() const noexcept { return binariesInstalled && !blocks.empty() && missingBlocks.empty(); }
        bool operator==(const Status&) const = default;
    };

    static constexpr std::string_view beginMarker = "# >>> veerline >>>";
    static constexpr std::string_view endMarker = "# <<< veerline <<<";
    static constexpr std::array<std::string_view, 2> toolNames = {"claude", "codex"};

    // The managed block: seven lines, each ended by a line feed.
    static const std::string& block();

    // Takes ZDOTDIR from `environment` when it is absolute and not the home folder.
    ShellIntegration(Paths paths, const Environment& environment);

    const Paths& paths() const noexcept { return paths_; }
    const std::optional<std::string>& zdotdir() const noexcept { return zdotdir_; }

    std::string root() const { return paths_.home + "/.veerline"; }
    std::string libexec() const { return root() + "/libexec"; }
    std::string backups() const { return root() + "/backups"; }
    std::string stateFile() const { return root() + "/install.json"; }
    std::string appPathFile() const { return root() + "/app-path"; }

    // The zsh file always, then ~/.bashrc and ~/.bash_profile when something (even a link to
    // nothing) is there. Where an interactive bash reads ~/.bashrc, that file is a target also
    // when it is missing, as long as bash is the user's shell or on their PATH.
    std::vector<std::string> targetFiles() const;
    // The start-up files Veerline looks after whatever the environment says now.
    std::vector<std::string> managedFiles() const;
    // The only paths the install record may name: managedFiles(), and a zsh file in any folder
    // of the home folder (ZDOTDIR may have been different at install).
    bool isManagedFile(const std::string& path) const noexcept;

    // Every managed block removed and one fresh block at the end.
    static std::string addingBlock(std::string_view contents);
    // Every managed block removed.
    static std::string removingBlock(std::string_view contents);
    // Whether only blank and comment lines follow the last end marker.
    static bool blockIsLast(std::string_view contents);

    // The 1-based number of a line that opens a managed block no end marker closes.
    static std::optional<std::size_t> unclosedBlockLine(std::string_view contents);

    // One change per target file, unchanged ones included. Writes nothing. Refuses, before
    // anything is written, a target that isn't a regular file (or a link to one, or to nothing)
    // and a block that is opened but never closed.
    std::vector<FileChange> planInstall() const;
    // A unified diff of the change for the user to review; empty when there is nothing to show.
    std::string diff(const FileChange& change) const noexcept;

    // File operations.
    // A regular file only, read without waiting on a pipe and up to a bound.
    std::string read(const std::string& path) const;
    // Replaces the file atomically, keeping its mode. Through a symbolic link only when the link
    // leads to a regular file (then the file it leads to is replaced and the link stays); a link
    // to nothing is replaced itself; anything else is refused.
    void write(const std::string& contents, const std::string& path) const;
    // Installs an executable (mode 0755) copy of `source` atomically.
    void copyAtomically(const std::string& source, const std::string& destination) const;
    // Makes `link` a symbolic link storing `destination` verbatim; an equal link is left alone.
    void symlink(const std::string& link, const std::string& destination) const;
    // An existing folder is success; a symbolic link at `path` is refused.
    void createDirectory(const std::string& path, mode_t mode = 0755) const;
    void removeFile(const std::string& path) const;
    // Temporary files and preview folders left by Veerline processes that no longer run.
    void removeStaleTemporaries() const noexcept;
    static void removeStaleScratchFolders() noexcept;

    // 64 lower-case hexadecimal digits.
    static std::string sha256(std::string_view text) noexcept;
    // The current local time as "yyyyMMdd-HHmmss".
    static std::string timestamp() noexcept;

    // Nothing when the record is missing, unreadable or damaged. Records of files other than
    // managedFiles() are left out, and so is a backupPath outside the backups folder.
    std::optional<InstallState> loadState() const noexcept;
    void saveState(const InstallState& state) const;

    // Backs up files seen for the first time, writes the planned contents and saves the record.
    void recordInstall(const std::vector<FileChange>& plan) const;
    // What uninstall does to each shell file: only Veerline's block removed, and the file as it was
    // before the first install, byte for byte, when it otherwise holds exactly that. Writes nothing.
    std::vector<FileChange> planUninstall() const;
    void applyUninstall(const std::vector<FileChange>& plan) const;

    // Lays out ~/.veerline, edits the shell files and returns the plan that was carried out.
    // `resolver` is the veerline-resolve executable to install.
    std::vector<FileChange> install(const std::string& resolver, const std::optional<std::string>& cli,
                                    const std::optional<std::string>& launcher,
                                    const std::optional<std::string>& appPath) const;
    std::vector<FileChange> uninstall() const;
    // Replaces installed executables that differ from the given ones; true when any was replaced.
    bool refreshBinariesIfStale(const std::string& resolver, const std::optional<std::string>& cli,
                                const std::optional<std::string>& launcher) const noexcept;
    // The names in libexec ("veerline-resolve", "veerline", "veerline-launcher") that
    // refreshBinariesIfStale would replace; changes nothing. Empty when nothing is installed.
    std::vector<std::string> staleBinaries(const std::string& resolver, const std::optional<std::string>& cli,
                                           const std::optional<std::string>& launcher) const noexcept;
    void recordAppLocation(const std::string& path) const noexcept;
    Status status() const noexcept;

    // The prompt snippet for "zsh", "oh-my-zsh", "bash" or "starship"; nothing for other names.
    static std::optional<std::string> promptSnippet(std::string_view name);

private:
    // Start-up files are text a person edits: anything larger is not one.
    static constexpr std::size_t startupFileLimit = 8 * 1024 * 1024;
    // Veerline's executables are a few megabytes; the bound only stops a runaway read.
    static constexpr std::size_t executableLimit = 512 * 1024 * 1024;
    // The app-path hint is one path.
    static constexpr std::size_t appPathLimit = 16 * 1024;

    enum class FileKind { missing, regular, linkToRegular, linkToNothing, other };
    static FileKind kindOf(const std::string& path) noexcept;
    // Throws when install must not touch what is at `path`.
    void checkWritable(const std::string& path, FileKind kind) const;

    std::string readBounded(const std::string& path, std::size_t limit, bool followLink) const;
    // Replaces `path` itself (never through a link): for Veerline's own files.
    void replaceOwnFile(const std::string& contents, const std::string& path, mode_t mode) const;
    void atomicReplace(const std::string& contents, const std::string& displayPath, const std::string& target,
                       mode_t mode) const;
    // Copies the file (or the link to nothing) as it was before the install into the backups
    // folder under a name no other backup has; returns the backup's path.
    std::string backUp(const FileChange& change, const std::string& stamp) const;
    bool isOwnBackup(const std::string& path) const noexcept;
    // What the record's file held before the first install, without any block; nothing when that
    // can't be known (no record, or a backup that is gone or can't be read).
    std::optional<std::string> contentsBeforeInstall(const InstallState::FileRecord* record) const;
    // The destination of the link to nothing that uninstall puts back at the record's file, when
    // nothing but the block is in the file.
    std::optional<std::string> linkToRestore(const InstallState::FileRecord* record, const std::string& current) const;

    Paths paths_;
    std::optional<std::string> zdotdir_;
    bool usesBash_ = false;
    std::string loginShell_;   // the last component of $SHELL
};

}  // namespace veerline
