#include "base/error.h"

#include <cstring>
#include <utility>

#include "platform/platform.h"

namespace veerline {

namespace {

std::string describe(VeerlineError::Kind kind, const std::string& text, const std::string& detail,
                     std::int64_t number) {
    using Kind = VeerlineError::Kind;
    switch (kind) {
        case Kind::invalidProfile:
        case Kind::invalidRule:
        case Kind::io:
        case Kind::unsupported:
            return text;
        case Kind::profileNotFound:
            return "There's no profile called \u201C" + text +
                   "\u201D. Run `veerline profile list` to see them.";
        case Kind::storeCorrupt:
            return "Couldn't read " + text + ": " + detail;
        case Kind::storeTooNew:
            return "Your profiles were saved by a newer version of Veerline (format " +
                   std::to_string(number) + "). Update Veerline to change them.";
        case Kind::unsafeDeletion:
            return "Refused to delete " + text + " because it isn't inside Veerline's own data folder.";
        case Kind::keychain: {
            if (!text.empty()) return text;
            auto status = static_cast<std::int32_t>(number);
            return "Keychain error " + std::to_string(status) + ": " +
                   platform::securityStatusMessage(status).value_or("unknown");
        }
    }
    return text;
}

}  // namespace

VeerlineError::VeerlineError(Kind kind, std::string text, std::string detail, std::int64_t number)
    : kind_(kind), text_(std::move(text)), detail_(std::move(detail)), number_(number),
      description_(describe(kind_, text_, detail_, number_)) {}

VeerlineError VeerlineError::invalidProfile(std::string message) {
    return {Kind::invalidProfile, std::move(message), {}, 0};
}
VeerlineError VeerlineError::invalidRule(std::string message) {
    return {Kind::invalidRule, std::move(message), {}, 0};
}
VeerlineError VeerlineError::profileNotFound(std::string name) {
    return {Kind::profileNotFound, std::move(name), {}, 0};
}
VeerlineError VeerlineError::storeCorrupt(std::string path, std::string detail) {
    return {Kind::storeCorrupt, std::move(path), std::move(detail), 0};
}
VeerlineError VeerlineError::storeTooNew(std::int64_t version) {
    return {Kind::storeTooNew, {}, {}, version};
}
VeerlineError VeerlineError::io(std::string message) {
    return {Kind::io, std::move(message), {}, 0};
}
VeerlineError VeerlineError::unsafeDeletion(std::string path) {
    return {Kind::unsafeDeletion, std::move(path), {}, 0};
}
VeerlineError VeerlineError::unsupported(std::string message) {
    return {Kind::unsupported, std::move(message), {}, 0};
}
VeerlineError VeerlineError::keychain(std::int32_t status) {
    return {Kind::keychain, {}, {}, status};
}
VeerlineError VeerlineError::keychain(std::int32_t status, std::string message) {
    return {Kind::keychain, std::move(message), {}, status};
}

VeerlineError ioErrorFromErrno(const std::string& verbAndItem, int errorNumber) {
    return VeerlineError::io("Couldn't " + verbAndItem + ": " + std::strerror(errorNumber));
}

}  // namespace veerline
