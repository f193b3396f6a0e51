#pragma once

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

        bool isInstalled() const noexcept { return binariesInstalled && !blocks.empty(); }
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

    // The zsh file always, then ~/.bashrc and ~/.bash_profile when they exist.
    std::vector<std::string> targetFiles() const;

    // Every managed block removed and one fresh block at the end.
    static std::string addingBlock(std::string_view contents);
    // Every managed block removed.
    static std::string removingBlock(std::string_view contents);
    // Whether only blank and comment lines follow the last end marker.
    static bool blockIsLast(std::string_view contents);

    // One change per target file, unchanged ones included. Writes nothing.
    std::vector<FileChange> planInstall() const;
    // A unified diff of the change for the user to review; empty when there is nothing to show.
    std::string diff(const FileChange& change) const noexcept;

    // File operations.
    std::string read(const std::string& path) const;
    // Replaces the file (through a symbolic link: its target) atomically, keeping its mode.
    void write(const std::string& contents, const std::string& path) const;
    // Installs an executable (mode 0755) copy of `source` atomically.
    void copyAtomically(const std::string& source, const std::string& destination) const;
    // Makes `link` a symbolic link storing `destination` verbatim; an equal link is left alone.
    void symlink(const std::string& link, const std::string& destination) const;
    void createDirectory(const std::string& path) const;
    void removeFile(const std::string& path) const;

    // 64 lower-case hexadecimal digits.
    static std::string sha256(std::string_view text) noexcept;
    // The current local time as "yyyyMMdd-HHmmss".
    static std::string timestamp() noexcept;

    // Nothing when the record is missing, unreadable or damaged.
    std::optional<InstallState> loadState() const noexcept;
    void saveState(const InstallState& state) const;

    // Backs up files seen for the first time, writes the planned contents and saves the record.
    void recordInstall(const std::vector<FileChange>& plan) const;
    // What uninstall does to each shell file: the backup back when the file is exactly as the
    // last install left it, otherwise only the block removed. Writes nothing.
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
    // The platform's file-exists test: follows symbolic links.
    static bool itemExists(const std::string& path) noexcept;

    Paths paths_;
    std::optional<std::string> zdotdir_;
};

}  // namespace veerline
