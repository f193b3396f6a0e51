#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace veerline {

// The one error type of the core library. Every message is a complete sentence for the user.
class VeerlineError : public std::exception {
public:
    enum class Kind {
        invalidProfile,
        invalidRule,
        profileNotFound,
        storeCorrupt,
        storeTooNew,
        io,
        unsafeDeletion,
        unsupported,
        keychain,
    };

    static VeerlineError invalidProfile(std::string message);
    static VeerlineError invalidRule(std::string message);
    static VeerlineError profileNotFound(std::string name);
    static VeerlineError storeCorrupt(std::string path, std::string detail);
    static VeerlineError storeTooNew(std::int64_t version);
    static VeerlineError io(std::string message);
    static VeerlineError unsafeDeletion(std::string path);
    static VeerlineError unsupported(std::string message);
    static VeerlineError keychain(std::int32_t status);
    // A keychain failure the store words itself: the Secret Service's failures (Linux) have no
    // Security framework text, so the store names the cause in plain words.
    static VeerlineError keychain(std::int32_t status, std::string message);

    Kind kind() const noexcept { return kind_; }
    // The case's text payload: the message, the name, or the path.
    const std::string& text() const noexcept { return text_; }
    const std::string& detail() const noexcept { return detail_; }
    std::int64_t version() const noexcept { return number_; }
    std::int32_t status() const noexcept { return static_cast<std::int32_t>(number_); }

    const std::string& errorDescription() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

    bool operator==(const VeerlineError& other) const noexcept {
        return kind_ == other.kind_ && text_ == other.text_ && detail_ == other.detail_ &&
               number_ == other.number_;
    }

private:
    VeerlineError(Kind kind, std::string text, std::string detail, std::int64_t number);

    Kind kind_;
    std::string text_;
    std::string detail_;
    std::int64_t number_ = 0;
    std::string description_;
};

// "Couldn't <verb> <item>: <strerror(errno)>" as an io error, for failed POSIX calls.
VeerlineError ioErrorFromErrno(const std::string& verbAndItem, int errorNumber);

}  // namespace veerline
