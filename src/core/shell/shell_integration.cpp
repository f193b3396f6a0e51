#include "shell/shell_integration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "base/error.h"
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

// Removes the folder and everything in it when the diff is done, whichever way it ends.
class ScratchFolder {
public:
    explicit ScratchFolder(std::string path) : path_(std::move(path)) {
        std::error_code ignored;
        std::filesystem::create_directories(path_, ignored);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

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

ShellIntegration::ShellIntegration(Paths paths, const Environment& environment) : paths_(std::move(paths)) {
    const std::string* value = lookup(environment, "ZDOTDIR");
    if (value == nullptr || !value->starts_with("/")) return;
    std::string normalized = PathUtil::normalize(*value);
    if (normalized != paths_.home) zdotdir_ = std::move(normalized);
}

bool ShellIntegration::itemExists(const std::string& path) noexcept {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::vector<std::string> ShellIntegration::targetFiles() const {
    std::vector<std::string> files{zdotdir_.value_or(paths_.home) + "/.zshrc"};
    for (const char* name : {".bashrc", ".bash_profile"}) {
        std::string path = paths_.home + "/" + name;
        if (itemExists(path)) files.push_back(std::move(path));
    }
    return files;
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
        change.existed = itemExists(path);
        if (change.existed) change.before = read(path);
        change.after = addingBlock(change.before);
        plan.push_back(std::move(change));
    }
    return plan;
}

std::string ShellIntegration::diff(const FileChange& change) const noexcept {
    try {
        ScratchFolder scratch(platform::temporaryDirectory() + "/veerline-diff-" + std::to_string(::getpid()) +
                              "-" + std::to_string(platform::secureRandomBelow(UINT32_MAX)));
        for (const auto& [contents, name] : {std::pair{&change.before, "/a"}, std::pair{&change.after, "/b"}}) {
            try {
                write(*contents, scratch.path() + name);
            } catch (const VeerlineError&) {
                // Nothing to show then; diff reports the missing file on standard error.
            }
        }
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
