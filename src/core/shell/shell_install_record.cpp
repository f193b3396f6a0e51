#include <algorithm>
#include <ctime>
#include <set>

#include "base/error.h"
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
            if (change.existed) {
                record.backupPath = backups() + "/" + backupName(change.path, stamp);
                write(change.before, *record.backupPath);
            }
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
    std::set<std::string> candidates;
    for (std::string& path : targetFiles()) candidates.insert(std::move(path));
    if (state) {
        for (const auto& file : state->files) candidates.insert(file.path);
    }

    std::vector<FileChange> plan;
    for (const std::string& path : candidates) {
        if (!itemExists(path)) continue;
        std::string current = read(path);
        const InstallState::FileRecord* record = state ? state->record(path) : nullptr;
        std::optional<std::string> after;
        if (record != nullptr && sha256(current) == record->installedSHA256) {
            // Untouched since the install: the exact old contents come back.
            if (record->backupPath) {
                try {
                    after = read(*record->backupPath);
                } catch (const VeerlineError&) {
                }
            }
            if (!after && !record->existedBefore) after = std::string();
        }
        if (!after) {
            after = removingBlock(current);
            if (record != nullptr && record->addedNewline && after->ends_with('\n')) after->pop_back();
        }
        plan.push_back({path, true, std::move(current), std::move(*after)});
    }
    return plan;
}

void ShellIntegration::applyUninstall(const std::vector<FileChange>& plan) const {
    const std::optional<InstallState> state = loadState();
    for (const FileChange& change : plan) {
        const InstallState::FileRecord* record = state ? state->record(change.path) : nullptr;
        if (record != nullptr && !record->existedBefore) {
            // The install created this file: nothing of the user's left means it goes.
            if (change.after.empty()) {
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
