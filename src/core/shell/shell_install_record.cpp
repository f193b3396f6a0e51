#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <set>

#include "base/error.h"
#include "base/file_io.h"
#include "shell/shell_integration.h"

namespace veerline {

namespace {

// ~/.bash_profile backed up at a stamp becomes "bash_profile.<stamp>".
std::string backupName(const std::string& path, const std::string& stamp) {
    auto slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    auto first = name.find_first_not_of('.');
    name = first == std::string::npos ? std::string() : name.substr(first, name.find_last_not_of('.') - first + 1);
    return name + "." + stamp;
}

std::string iso8601Now() {
    std::time_t now = std::time(nullptr);
    std::tm utc {};
    ::gmtime_r(&now, &utc);
    char buffer[32];
    std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(buffer, length);
}

}  // namespace

bool ShellIntegration::isOwnBackup(const std::string& path) const noexcept {
    const std::string folder = backups() + "/";
    if (!path.starts_with(folder)) return false;
    std::string_view name = std::string_view(path).substr(folder.size());
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) return false;
    struct stat info {};
    // The folder itself must be Veerline's, not a link to somewhere else.
    if (::lstat(backups().c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
    return ::lstat(path.c_str(), &info) != 0 || S_ISREG(info.st_mode) || S_ISLNK(info.st_mode);
}

std::string ShellIntegration::backUp(const FileChange& change, const std::string& stamp) const {
    const std::string base = backups() + "/" + backupName(change.path, stamp);
    // A second install within the same second (say, after the record was lost) must not
    // overwrite the first backup.
    std::string path = base;
    struct stat info {};
    for (int n = 2; ::lstat(path.c_str(), &info) == 0; ++n) path = base + "-" + std::to_string(n);

    if (kindOf(change.path) == FileKind::linkToNothing) {
        std::error_code error;
        std::string destination = std::filesystem::read_symlink(change.path, error).native();
        if (error) throw VeerlineError::io("Couldn't read " + paths_.abbreviate(change.path) + ": " + error.message());
        if (::symlink(destination.c_str(), path.c_str()) != 0) {
            throw ioErrorFromErrno("create " + paths_.abbreviate(path), errno);
        }
        return path;
    }
    mode_t mode = 0600;
    if (::stat(change.path.c_str(), &info) == 0) mode = info.st_mode & 0777;
    replaceOwnFile(change.before, path, mode);
    return path;
}

void ShellIntegration::recordInstall(const std::vector<FileChange>& plan) const {
    InstallState state = loadState().value_or(InstallState{});
    const std::string stamp = timestamp();
    for (const FileChange& change : plan) {
        InstallState::FileRecord record;
        if (const auto* known = state.record(change.path)) {
            // Facts about the file before the very first install; its backup is already taken.
            record = *known;
        } else {
            record.path = change.path;
            if (change.existed) record.backupPath = backUp(change, stamp);
            record.existedBefore = change.existed;
            record.addedNewline = !change.before.empty() && change.before.back() != '\n';
        }
        if (change.changes()) write(change.after, change.path);
        record.installedSHA256 = sha256(change.after);
        std::erase_if(state.files, [&](const auto& file) { return file.path == change.path; });
        state.files.push_back(std::move(record));
    }
    state.installedAt = iso8601Now();
    saveState(state);
}

std::vector<ShellIntegration::FileChange> ShellIntegration::planUninstall() const {
    const std::optional<InstallState> state = loadState();
    // Also without a record: a lost install.json must not leave the block behind.
    std::set<std::string> candidates;
    for (std::string& path : targetFiles()) candidates.insert(std::move(path));
    for (std::string& path : managedFiles()) candidates.insert(std::move(path));
    if (state) {
        for (const auto& file : state->files) candidates.insert(file.path);
    }

    std::vector<FileChange> plan;
    for (const std::string& path : candidates) {
        // Only text can hold a block: pipes, devices and links to nothing are left alone.
        FileKind kind = kindOf(path);
        if (kind != FileKind::regular && kind != FileKind::linkToRegular) continue;
        FileChange change{path, true, read(path), {}};
        if (auto line = unclosedBlockLine(change.before)) {
            throw VeerlineError::io("Couldn't take the block out of " + paths_.abbreviate(path) + ": line " +
                                    std::to_string(*line) + " opens a block (\u201C" + std::string(beginMarker) +
                                    "\u201D) that no \u201C" + std::string(endMarker) +
                                    "\u201D line closes. Close or remove it, then try again.");
        }
        // Only Veerline's own lines go; whatever the user added since, above or below the block
        // and across later installs, stays.
        change.after = removingBlock(change.before);
        const InstallState::FileRecord* record = state ? state->record(path) : nullptr;
        if (auto seen = contentsBeforeInstall(record)) {
            // The file otherwise holds exactly what the first install saw: it comes back byte
            // for byte, without the line feed the install had to add.
            if (change.after == *seen || (record->addedNewline && change.after == *seen + "\n")) change.after = *seen;
        }
        plan.push_back(std::move(change));
    }
    return plan;
}

std::optional<std::string> ShellIntegration::contentsBeforeInstall(const InstallState::FileRecord* record) const {
    if (record == nullptr) return std::nullopt;
    if (!record->backupPath) {
        if (record->existedBefore) return std::nullopt;
        return std::string();
    }
    struct stat info {};
    if (::lstat(record->backupPath->c_str(), &info) != 0) return std::nullopt;
    // A link to nothing read as text is empty.
    if (S_ISLNK(info.st_mode)) return std::string();
    try {
        std::string backup = readBounded(*record->backupPath, startupFileLimit, false);
        // A backup taken when the file already held a block (the record was lost and Veerline
        // installed again) must not bring the block back.
        if (unclosedBlockLine(backup)) return std::nullopt;
        return removingBlock(backup);
    } catch (const VeerlineError&) {
        return std::nullopt;
    }
}

std::optional<std::string> ShellIntegration::linkToRestore(const InstallState::FileRecord* record,
                                                           const std::string& current) const {
    // Only when nothing of the user's is in the file besides the block.
    if (record == nullptr || !record->backupPath || !removingBlock(current).empty()) return std::nullopt;
    struct stat info {};
    if (::lstat(record->backupPath->c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return std::nullopt;
    std::error_code error;
    auto destination = std::filesystem::read_symlink(*record->backupPath, error);
    if (error) return std::nullopt;
    return destination.native();
}

void ShellIntegration::applyUninstall(const std::vector<FileChange>& plan) const {
    const std::optional<InstallState> state = loadState();
    for (const FileChange& change : plan) {
        const InstallState::FileRecord* record = state ? state->record(change.path) : nullptr;
        if (auto destination = linkToRestore(record, change.before)) {
            // The file was a link to nothing before the install: make it that link again.
            if (int error = placeLinkAtomically(change.path, *destination); error != 0) {
                throw ioErrorFromErrno("write " + paths_.abbreviate(change.path), error);
            }
        } else if (record != nullptr && !record->existedBefore) {
            // The install created this file: nothing of the user's left means it goes.
            if (change.after.empty() && kindOf(change.path) == FileKind::regular) {
                removeFile(change.path);
            } else {
                write(change.after, change.path);
            }
        } else if (change.changes()) {
            write(change.after, change.path);
        }
    }
}

}  // namespace veerline
