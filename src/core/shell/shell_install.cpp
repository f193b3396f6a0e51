#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "base/error.h"
#include "base/file_io.h"
#include "shell/stale_files.h"
#include "shell/shell_integration.h"
#include "base/unicode.h"

namespace veerline {

namespace {

constexpr const char* resolverLink = "../libexec/veerline-resolve";

}  // namespace

std::vector<ShellIntegration::FileChange> ShellIntegration::install(
    const std::string& resolver, const std::optional<std::string>& cli, const std::optional<std::string>& launcher,
    const std::optional<std::string>& appPath) const {
    const std::string shims = paths_.shimDirectory();
    removeStaleTemporaries();
    // Every start-up file is checked before anything at all changes.
    std::vector<FileChange> plan = planInstall();
    createDirectory(root());
    createDirectory(libexec());
    createDirectory(shims);
    // Backups hold copies of the user's start-up files: for their eyes only.
    createDirectory(backups(), 0700);
    ::chmod(backups().c_str(), 0700);

    copyAtomically(resolver, libexec() + "/veerline-resolve");
    if (cli) copyAtomically(*cli, libexec() + "/veerline");
    if (launcher && PathUtil::isExecutableFile(*launcher)) {
        copyAtomically(*launcher, libexec() + "/veerline-launcher");
    }
    for (std::string_view name : toolNames) symlink(shims + "/" + std::string(name), resolverLink);
    if (cli) symlink(shims + "/veerline", "../libexec/veerline");

    if (appPath) {
        replaceOwnFile(*appPath + "\n", appPathFile(), 0644);
    } else {
        ::unlink(appPathFile().c_str());
    }

    recordInstall(plan);
    return plan;
}

std::vector<ShellIntegration::FileChange> ShellIntegration::uninstall() const {
    removeStaleTemporaries();
    std::vector<FileChange> plan = planUninstall();
    applyUninstall(plan);

    // Only inside Veerline's own folders, never through a link: a folder that is a link (to
    // somewhere else) keeps everything in it.
    const std::string shims = paths_.shimDirectory();
    removeEntriesInside(shims, [](std::string_view name) {
        return name == "veerline" || std::find(toolNames.begin(), toolNames.end(), name) != toolNames.end();
    });
    removeEntriesInside(libexec(), [](std::string_view name) {
        return name == "veerline-resolve" || name == "veerline" || name == "veerline-launcher";
    });
    removeEntriesInside(root(), [](std::string_view name) { return name == "install.json" || name == "app-path"; });
    removeEntriesInside(backups(), [](std::string_view) { return true; });

    // Only empty folders go: anything the user put there keeps its folder.
    for (const std::string& folder : {shims, libexec(), backups(), root()}) ::rmdir(folder.c_str());
    return plan;
}

bool ShellIntegration::refreshBinariesIfStale(const std::string& resolver, const std::optional<std::string>& cli,
                                              const std::optional<std::string>& launcher) const noexcept {
    try {
        // Only into the folder install made, never through a link put in its place.
        for (const std::string& folder : {root(), libexec()}) {
            struct stat info {};
            if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
        }
        bool refreshed = false;
        for (const std::string& name : staleBinaries(resolver, cli, launcher)) {
            const std::string& source = name == "veerline-resolve" ? resolver : name == "veerline" ? *cli : *launcher;
            try {
                copyAtomically(source, libexec() + "/" + name);
                refreshed = true;
            } catch (const VeerlineError&) {
            }
        }
        return refreshed;
    } catch (...) {
        return false;
    }
}

std::vector<std::string> ShellIntegration::staleBinaries(const std::string& resolver,
                                                         const std::optional<std::string>& cli,
                                                         const std::optional<std::string>& launcher) const noexcept {
    std::vector<std::string> stale;
    try {
        if (!PathUtil::isDirectory(libexec())) return stale;
        if (!PathUtil::isExecutableFile(libexec() + "/veerline-resolve")) return stale;
        const std::pair<const std::optional<std::string>, const char*> sources[] = {
            {resolver, "veerline-resolve"}, {cli, "veerline"}, {launcher, "veerline-launcher"}};
        for (const auto& [source, name] : sources) {
            if (!source || !PathUtil::isExecutableFile(*source)) continue;
            if (!sameFileContents(*source, libexec() + "/" + name)) stale.emplace_back(name);
        }
    } catch (...) {
    }
    return stale;
}

void ShellIntegration::recordAppLocation(const std::string& path) const noexcept {
    try {
        if (!PathUtil::isDirectory(libexec())) return;
        if (!path.ends_with(".app")) return;
        try {
            if (unicode::trimmed(readBounded(appPathFile(), appPathLimit, false)) == path) return;
        } catch (const VeerlineError&) {
        }
        replaceOwnFile(path + "\n", appPathFile(), 0644);
    } catch (...) {
    }
}

ShellIntegration::Status ShellIntegration::status() const noexcept {
    Status status;
    try {
        const std::string shims = paths_.shimDirectory();
        status.binariesInstalled = PathUtil::isExecutableFile(libexec() + "/veerline-resolve");
        for (std::string_view name : toolNames) {
            if (!status.binariesInstalled) break;
            status.binariesInstalled = PathUtil::isExecutableFile(shims + "/" + std::string(name));
        }
        const std::vector<std::string> targets = targetFiles();
        for (const std::string& path : targets) {
            // Where the user's own shell reads this file, a missing block means Veerline isn't
            // there when they open a terminal.
            const bool readByUsersShell = loginShell_ == "zsh" ? path == targets.front()
                                          : loginShell_ == "bash" ? path.ends_with("/.bashrc") ||
                                                                        path.ends_with("/.bash_profile")
                                                                  : false;
            std::string text;
            try {
                text = read(path);
            } catch (const VeerlineError&) {
            }
            if (text.find(beginMarker) == std::string::npos) {
                if (readByUsersShell) status.missingBlocks.push_back(path);
                continue;
            }
            status.blocks.push_back({path, blockIsLast(text)});
        }
        try {
            status.appPath = unicode::trimmed(readBounded(appPathFile(), appPathLimit, false));
        } catch (const VeerlineError&) {
        }
    } catch (...) {
        // Only allocation can fail here; report what was found so far.
    }
    return status;
}

}  // namespace veerline
