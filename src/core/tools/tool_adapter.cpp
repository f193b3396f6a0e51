#include "tools/tool_adapter.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "tools/process_runner.h"
#include "shell/shell_quote.h"
#include "base/unicode.h"

namespace veerline {

namespace {

using nlohmann::json;

struct AccountField {
    const char* key;
    std::optional<std::string> AccountInfo::*field;
};

constexpr AccountField accountFields[] = {
    {"email", &AccountInfo::email},
    {"organizationName", &AccountInfo::organizationName},
    {"organizationID", &AccountInfo::organizationID},
    {"plan", &AccountInfo::plan},
    {"method", &AccountInfo::method},
};

// mkdir -p, each folder it makes set to 0700 whatever the umask. Returns 0 or the errno.
int makeDirectories(const std::string& path) {
    std::size_t position = 0;
    while (position != std::string::npos) {
        position = path.find('/', position + 1);
        std::string prefix = path.substr(0, position);
        if (::mkdir(prefix.c_str(), 0700) == 0) {
            ::chmod(prefix.c_str(), 0700);
            continue;
        }
        int error = errno;
        struct stat st {};
        if (error == EEXIST || error == EACCES || error == EROFS) {
            if (::stat(prefix.c_str(), &st) == 0) {
                if (S_ISDIR(st.st_mode)) continue;
                return position == std::string::npos ? EEXIST : ENOTDIR;
            }
        }
        return error;
    }
    return 0;
}

}  // namespace

std::optional<std::string> AccountInfo::sameAccountKey() const {
    if (!email) return std::nullopt;
    return unicode::lowercased(*email) + "|" + organizationID.value_or("");
}

json AccountInfo::toJSON() const {
    json object = json::object();
    for (const auto& [key, field] : accountFields) {
        if (const auto& value = this->*field) object[key] = *value;
    }
    return object;
}

std::optional<AccountInfo> AccountInfo::fromJSON(const json& value) {
    if (!value.is_object()) return std::nullopt;
    AccountInfo account;
    for (const auto& [key, field] : accountFields) {
        auto found = value.find(key);
        if (found == value.end() || found->is_null()) continue;
        if (!found->is_string()) return std::nullopt;
        account.*field = found->get<std::string>();
    }
    return account;
}

ToolStatus ToolStatus::signedIn(AccountInfo account) {
    ToolStatus status;
    status.kind = Kind::signedIn;
    status.account = std::move(account);
    return status;
}

ToolStatus ToolStatus::ready(std::string detail) {
    ToolStatus status;
    status.kind = Kind::ready;
    status.text = std::move(detail);
    return status;
}

ToolStatus ToolStatus::needsAttention(std::string message) {
    ToolStatus status;
    status.kind = Kind::needsAttention;
    status.text = std::move(message);
    return status;
}

ToolStatus ToolStatus::notInstalled() {
    ToolStatus status;
    status.kind = Kind::notInstalled;
    return status;
}

ToolStatus ToolStatus::notSetUp() {
    return ToolStatus{};
}

std::string_view ToolStatus::label(Kind kind) noexcept {
    switch (kind) {
        case Kind::signedIn: return "Signed in";
        case Kind::ready: return "Set up";
        case Kind::needsAttention: return "Needs attention";
        case Kind::notInstalled: return "Not installed";
        case Kind::notSetUp: return "Not set up";
    }
    return "";
}

std::string SignInCommand::shellLine() const {
    std::string line;
    if (!unset.empty()) {
        line += "env ";
        for (const auto& name : unset) line += "-u " + name + " ";
    }
    if (!environment.empty()) {
        if (unset.empty()) line += "env ";
        // The map keeps names in byte order.
        for (const auto& [name, value] : environment) line += name + "=" + ShellQuote::quote(value) + " ";
    }
    line += ShellQuote::quote(executable);
    for (const auto& argument : arguments) line += " " + ShellQuote::quote(argument);
    return line;
}

void ToolAdapter::launch(const Profile&) const {
    throw VeerlineError::unsupported(std::string(toolkind::displayName(kind_)) +
                                     " runs in your terminal; there's nothing to launch.");
}

std::optional<std::string> ToolAdapter::dataDirectory(const Profile& profile) const {
    return dataDirectory(kind_, context_.paths, profile);
}

std::optional<std::string> ToolAdapter::dataDirectory(ToolKind kind, const Paths& paths, const Profile& profile) {
    if (profile.storage == Profile::Storage::system) return std::nullopt;
    return paths.dataDirectory(kind, profile.id);
}

std::optional<std::string> ToolAdapter::createDataDirectory(const Profile& profile) const {
    return createDataDirectory(kind_, context_.paths, profile);
}

std::optional<std::string> ToolAdapter::createDataDirectory(ToolKind kind, const Paths& paths, const Profile& profile) {
    auto path = dataDirectory(kind, paths, profile);
    if (!path) return std::nullopt;
    if (int error = makeDirectories(*path); error != 0) throw ioErrorFromErrno("create " + *path, error);
    return path;
}

void ToolAdapter::deleteDataDirectory(const Profile& profile) const {
    auto path = dataDirectory(profile);
    if (!path) return;
    // Only ever SUPPORT/TOOL/ID with an id Veerline could have made: an id from a crafted file
    // ("", "..", "../profiles.json") must not name the tool folder or anything beside it.
    if (!profile.id.isValid() || !context_.paths.isInsideSupportDirectory(*path)) {
        throw VeerlineError::unsafeDeletion(*path);
    }
    auto failed = [&](int error) { return VeerlineError::io("Couldn't delete " + *path + ": " + std::strerror(error)); };
    const std::string support = context_.paths.supportDirectory();
    FileDescriptor supportFolder(::open(support.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    if (!supportFolder) {
        if (errno == ENOENT || errno == ENOTDIR) return;
        throw failed(errno);
    }
    // Below the support folder nothing is reached through a link: a tool folder linked elsewhere
    // would let the deletion leave Veerline's own folders.
    const std::string toolFolderName(toolkind::dataFolderName(kind_));
    struct stat st {};
    if (::fstatat(supportFolder.get(), toolFolderName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return;
        throw failed(errno);
    }
    if (S_ISLNK(st.st_mode)) throw VeerlineError::unsafeDeletion(*path);
    if (!S_ISDIR(st.st_mode)) return;
    FileDescriptor toolFolder(::openat(supportFolder.get(), toolFolderName.c_str(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!toolFolder) throw failed(errno);
    // A data folder that is itself a link is removed as a link; what it points to stays.
    if (int error = removeTreeAt(toolFolder.get(), profile.id.rawValue); error != 0) throw failed(error);
}

Environment ToolAdapter::helperEnvironment(const Profile& profile) const {
    Environment result = ProcessRunner::baseEnvironment(context_.environment);
    for (auto& [name, value] : environment(profile)) result[name] = value;
    return result;
}

}  // namespace veerline
