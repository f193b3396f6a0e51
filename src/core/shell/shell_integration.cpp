#include "shell/shell_integration.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "base/error.h"
#include "base/file_io.h"
#include "base/interrupt_cleanup.h"
#include "shell/stale_files.h"
#include "tools/process_runner.h"
#include "base/unicode.h"
#include "platform/platform.h"

namespace veerline {

namespace {

bool isLineBreak(std::string_view character) {
    return character == "\n" || character == "\v" || character == "\f" || character == "\r" ||
           character == "\u0085" || character == "\u2028" || character == "\u2029";
}

// Space, tab or another horizontal space separator; line breaks are not spaces here.
bool isSpaceOrTab(std::string_view character) {
    if (character == " " || character == "\t") return true;
    if (character.size() == 1 || isLineBreak(character)) return false;
    return unicode::trimmed(character).empty();
}

std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0xC0) return 1;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return 4;
}

std::string_view trimmingSpacesAndTabs(std::string_view text) {
    while (!text.empty()) {
        std::size_t length = std::min(sequenceLength(static_cast<unsigned char>(text.front())), text.size());
        if (!isSpaceOrTab(text.substr(0, length))) break;
        text.remove_prefix(length);
    }
    while (!text.empty()) {
        std::size_t start = text.size() - 1;
        while (start > 0 && text.size() - start < 4 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) {
            --start;
        }
        if (!isSpaceOrTab(text.substr(start))) break;
        text.remove_suffix(text.size() - start);
    }
    return text;
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    for (;;) {
        auto feed = text.find('\n');
        lines.push_back(text.substr(0, feed));
        if (feed == std::string_view::npos) break;
        text.remove_prefix(feed + 1);
    }
    return lines;
}

std::string lastComponent(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// Whether `name` is the user's login shell or can be found on their PATH.
bool shellIsUsed(const Environment& environment, const std::string& name) {
    if (const std::string* shell = lookup(environment, "SHELL"); shell != nullptr && lastComponent(*shell) == name) {
        return true;
    }
    const std::string* path = lookup(environment, "PATH");
    if (path == nullptr) return false;
    std::size_t start = 0;
    while (start <= path->size()) {
        std::size_t colon = std::min(path->find(':', start), path->size());
        std::string folder = path->substr(start, colon - start);
        if (folder.starts_with("/") && PathUtil::isExecutableFile(folder + "/" + name)) return true;
        start = colon + 1;
    }
    return false;
}

constexpr std::string_view scratchPrefix = "veerline-diff-";

// The preview's copies of a start-up file, in a folder only the user can enter (mkdtemp makes
// it 0700), removed when the diff is done or the command is interrupted. A killed preview's
// folder carries its process id, so a later preview removes it.
class ScratchFolder {
public:
    ScratchFolder() {
        ShellIntegration::removeStaleScratchFolders();
        std::string pattern = platform::privateScratchDirectory() + "/" + std::string(scratchPrefix) +
                              std::to_string(::getpid()) + "-XXXXXX";
        // No interrupt between making the folder and registering it.
        sigset_t interrupts;
        sigset_t previous;
        sigemptyset(&interrupts);
        for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&interrupts, signalNumber);
        ::pthread_sigmask(SIG_BLOCK, &interrupts, &previous);
        if (::mkdtemp(pattern.data()) != nullptr) {
            path_ = std::move(pattern);
            // Newest first on interrupt: the files, then their folder.
            folderCleanup_.emplace(path_, RemoveOnInterrupt::Kind::folder);
            aCleanup_.emplace(path_ + "/a");
            bCleanup_.emplace(path_ + "/b");
        }
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    ~ScratchFolder() {
        if (path_.empty()) return;
        ::unlink((path_ + "/a").c_str());
        ::unlink((path_ + "/b").c_str());
        ::rmdir(path_.c_str());
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

    // Private copies: created new, 0600, never through a link.
    bool put(const char* name, const std::string& contents) const {
        return writeNewFile(path_ + "/" + name, contents, 0600) == 0;
    }

private:
    std::string path_;
    std::optional<RemoveOnInterrupt> folderCleanup_;
    std::optional<RemoveOnInterrupt> aCleanup_;
    std::optional<RemoveOnInterrupt> bCleanup_;
};

}  // namespace

void ShellIntegration::removeStaleScratchFolders() noexcept {
    removeEntriesInside(platform::privateScratchDirectory(), [](std::string_view name) {
        auto pid = name.starts_with(scratchPrefix) ? processIdAfter(name, scratchPrefix, '-') : std::nullopt;
        return pid && processIsGone(*pid);
    });
}

const std::string& ShellIntegration::block() {
    static const std::string text = std::string(beginMarker) +
        "\n"
        "# Added by Veerline: puts the claude/codex profile shims first on PATH.\n"
        "# Remove with `veerline shell uninstall`, or delete this block.\n"
        "_vl=\"$HOME/.veerline/bin\"; _vlp=\":$PATH:\"\n"
        "while [ \"${_vlp#*:\"$_vl\":}\" != \"$_vlp\" ]; do _vlp=\"${_vlp%%:\"$_vl\":*}:${_vlp#*:\"$_vl\":}\"; done\n"
        "_vlp=\"${_vlp#:}\"; _vlp=\"${_vlp%:}\"; export PATH=\"$_vl${_vlp:+:$_vlp}\"; unset _vl _vlp\n" +
        std::string(endMarker) + "\n";
    return text;
}

ShellIntegration::ShellIntegration(Paths paths, const Environment& environment)
    : paths_(std::move(paths)), usesBash_(shellIsUsed(environment, "bash")) {
    if (const std::string* shell = lookup(environment, "SHELL")) loginShell_ = lastComponent(*shell);
    const std::string* value = lookup(environment, "ZDOTDIR");
    if (value == nullptr || !value->starts_with("/")) return;
    std::string normalized = PathUtil::normalize(*value);
    if (normalized != paths_.home) zdotdir_ = std::move(normalized);
}

ShellIntegration::FileKind ShellIntegration::kindOf(const std::string& path) noexcept {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return FileKind::missing;
    if (S_ISREG(info.st_mode)) return FileKind::regular;
    if (!S_ISLNK(info.st_mode)) return FileKind::other;
    if (::stat(path.c_str(), &info) != 0) return errno == ENOENT ? FileKind::linkToNothing : FileKind::other;
    return S_ISREG(info.st_mode) ? FileKind::linkToRegular : FileKind::other;
}

std::vector<std::string> ShellIntegration::targetFiles() const {
    std::vector<std::string> files{zdotdir_.value_or(paths_.home) + "/.zshrc"};
    for (const char* name : {".bashrc", ".bash_profile"}) {
        std::string path = paths_.home + "/" + name;
        bool wanted = kindOf(path) != FileKind::missing ||
                      (name == std::string_view(".bashrc") && usesBash_ && platform::interactiveBashReadsBashrc());
        if (wanted) files.push_back(std::move(path));
    }
    return files;
}

std::vector<std::string> ShellIntegration::managedFiles() const {
    std::vector<std::string> files{paths_.home + "/.zshrc"};
    if (zdotdir_) files.push_back(*zdotdir_ + "/.zshrc");
    files.push_back(paths_.home + "/.bashrc");
    files.push_back(paths_.home + "/.bash_profile");
    return files;
}

bool ShellIntegration::isManagedFile(const std::string& path) const noexcept {
    try {
        const std::vector<std::string> managed = managedFiles();
        if (std::find(managed.begin(), managed.end(), path) != managed.end()) return true;
        return path.ends_with("/.zshrc") && path.starts_with("/") && PathUtil::normalize(path) == path &&
               PathUtil::isSameOrInside(path, paths_.home, true);
    } catch (...) {
        return false;
    }
}

std::string ShellIntegration::removingBlock(std::string_view contents) {
    auto isMarker = [](std::string_view marker) {
        return [marker](std::string_view line) { return trimmingSpacesAndTabs(line) == marker; };
    };
    std::vector<std::string_view> lines = splitLines(contents);
    while (!lines.empty()) {
        auto begin = std::find_if(lines.begin(), lines.end(), isMarker(beginMarker));
        if (begin == lines.end()) break;
        auto end = std::find_if(begin, lines.end(), isMarker(endMarker));
        if (end == lines.end()) end = lines.end() - 1;
        lines.erase(begin, end + 1);
    }
    std::string result;
    result.reserve(contents.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) result += '\n';
        result += lines[i];
    }
    return result;
}

std::optional<std::size_t> ShellIntegration::unclosedBlockLine(std::string_view contents) {
    std::vector<std::string_view> lines = splitLines(contents);
    std::optional<std::size_t> open;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string_view line = trimmingSpacesAndTabs(lines[i]);
        if (!open && line == beginMarker) open = i + 1;
        if (open && line == endMarker) open.reset();
    }
    return open;
}

std::string ShellIntegration::addingBlock(std::string_view contents) {
    std::string text = removingBlock(contents);
    if (!text.empty() && text.back() != '\n') text += '\n';
    return text + block();
}

bool ShellIntegration::blockIsLast(std::string_view contents) {
    auto marker = contents.rfind(endMarker);
    if (marker == std::string_view::npos) return false;
    std::string_view tail = contents.substr(marker + endMarker.size());
    if (unicode::trimmed(tail).empty()) return true;
    for (std::string_view piece : splitLines(tail)) {
        std::string_view line = trimmingSpacesAndTabs(piece);
        if (line.empty() || line.starts_with("#")) continue;
        return false;
    }
    return true;
}

std::vector<ShellIntegration::FileChange> ShellIntegration::planInstall() const {
    std::vector<FileChange> plan;
    for (const std::string& path : targetFiles()) {
        FileChange change;
        change.path = path;
        FileKind kind = kindOf(path);
        checkWritable(path, kind);
        change.existed = kind != FileKind::missing;
        if (kind == FileKind::regular || kind == FileKind::linkToRegular) change.before = read(path);
        if (auto line = unclosedBlockLine(change.before)) {
            throw VeerlineError::io("Couldn't add the block to " + paths_.abbreviate(path) + ": line " +
                                    std::to_string(*line) + " opens a block (\u201C" + std::string(beginMarker) +
                                    "\u201D) that no \u201C" + std::string(endMarker) +
                                    "\u201D line closes. Close or remove it, then try again.");
        }
        change.after = addingBlock(change.before);
        plan.push_back(std::move(change));
    }
    return plan;
}

std::string ShellIntegration::diff(const FileChange& change) const noexcept {
    try {
        ScratchFolder scratch;
        if (!scratch.ok() || !scratch.put("a", change.before) || !scratch.put("b", change.after)) return {};
        std::string label = paths_.abbreviate(change.path);
        std::string oldLabel = change.existed ? label : label + " (new file)";
        ProcessResult result = ProcessRunner::runSync(
            "/usr/bin/diff",
            {"-u", "--label", oldLabel, "--label", label, scratch.path() + "/a", scratch.path() + "/b"},
            {{"PATH", "/usr/bin:/bin"}}, 10.0);
        return result.standardOutput;
    } catch (...) {
        return {};
    }
}

}  // namespace veerline
