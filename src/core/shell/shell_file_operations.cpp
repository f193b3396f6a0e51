#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "base/error.h"
#include "base/file_io.h"
#include "shell/shell_integration.h"
#include "base/unicode.h"

namespace veerline {

namespace {

std::string lastComponent(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string ShellIntegration::read(const std::string& path) const {
    auto failure = [&](const std::string& cause) {
        return VeerlineError::io("Couldn't read " + paths_.abbreviate(path) + ": " + cause);
    };
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) throw failure(std::strerror(errno));
    std::string text;
    if (int error = readAll(fd.get(), text); error != 0) throw failure(std::strerror(error));
    if (!unicode::isValidUTF8(text)) {
        throw failure("The file \u201C" + lastComponent(path) +
                      "\u201D couldn't be opened using text encoding Unicode (UTF-8).");
    }
    return text;
}

void ShellIntegration::write(const std::string& contents, const std::string& path) const {
    auto failure = [&](int errorNumber) {
        return ioErrorFromErrno("write " + paths_.abbreviate(path), errorNumber);
    };
    // Through a symlinked start-up file: replace the file it points at and keep the link.
    std::string target = PathUtil::realPath(path).value_or(path);
    mode_t mode = 0644;
    if (struct stat info {}; ::stat(target.c_str(), &info) == 0) mode = info.st_mode & 07777;

    TemporaryFile temporary(PathUtil::parent(target) + "/." + lastComponent(target) + ".veerline-tmp." +
                            std::to_string(::getpid()));
    {
        FileDescriptor fd(::open(temporary.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd) throw failure(errno);
        if (int error = writeAll(fd.get(), contents); error != 0) throw failure(error);
        ::fchmod(fd.get(), mode);
        if (int error = fd.close(); error != 0) throw failure(error);
    }
    if (::rename(temporary.path().c_str(), target.c_str()) != 0) throw failure(errno);
    temporary.keep();
}

void ShellIntegration::copyAtomically(const std::string& source, const std::string& destination) const {
    auto failure = [&](const std::string& cause) {
        return VeerlineError::io("Couldn't install " + paths_.abbreviate(destination) + ": " + cause);
    };
    TemporaryFile temporary(destination + ".tmp." + std::to_string(::getpid()));
    std::error_code error;
    std::filesystem::remove(temporary.path(), error);
    if (!std::filesystem::copy_file(source, temporary.path(), error)) throw failure(error.message());
    ::chmod(temporary.path().c_str(), 0755);
    if (::rename(temporary.path().c_str(), destination.c_str()) != 0) throw failure(std::strerror(errno));
    temporary.keep();
}

void ShellIntegration::symlink(const std::string& link, const std::string& destination) const {
    std::error_code error;
    auto current = std::filesystem::read_symlink(link, error);
    if (!error && current.native() == destination) return;
    std::filesystem::remove_all(link, error);
    if (::symlink(destination.c_str(), link.c_str()) != 0) {
        throw ioErrorFromErrno("create " + paths_.abbreviate(link), errno);
    }
}

void ShellIntegration::createDirectory(const std::string& path) const {
    if (PathUtil::isDirectory(path)) return;
    int lastError = 0;
    std::string partial;
    std::string_view rest(path);
    while (!rest.empty()) {
        auto slash = rest.find('/', 1);
        partial += rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
        if (partial == "/" || partial.ends_with("/")) continue;
        lastError = ::mkdir(partial.c_str(), 0755) == 0 ? 0 : errno;
        if (lastError != 0 && lastError != EEXIST) break;
    }
    if (!PathUtil::isDirectory(path)) {
        throw ioErrorFromErrno("create " + paths_.abbreviate(path), lastError != 0 ? lastError : ENOTDIR);
    }
}

void ShellIntegration::removeFile(const std::string& path) const {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        std::error_code error;
        std::filesystem::remove_all(path, error);
        if (error) throw VeerlineError::io("Couldn't remove " + paths_.abbreviate(path) + ": " + error.message());
        return;
    }
    if (::unlink(path.c_str()) != 0) throw ioErrorFromErrno("remove " + paths_.abbreviate(path), errno);
}

std::string ShellIntegration::sha256(std::string_view text) noexcept {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) return {};
    static constexpr char hex[] = "0123456789abcdef";
    std::string result;
    result.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        result += hex[digest[i] >> 4];
        result += hex[digest[i] & 0x0F];
    }
    return result;
}

std::string ShellIntegration::timestamp() noexcept {
    std::time_t now = std::time(nullptr);
    std::tm local {};
    ::localtime_r(&now, &local);
    char buffer[32];
    std::size_t length = std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &local);
    return std::string(buffer, length);
}

}  // namespace veerline
