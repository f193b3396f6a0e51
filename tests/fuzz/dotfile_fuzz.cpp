// A `.veerline` file holds anything the user typed: its reference is one trimmed, non-comment line,
// and resolving a folder that holds it never fails.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "resolution/rule_resolver.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string folder = [] {
        char pattern[] = "/tmp/veerline-dotfile-fuzz-XXXXXX";
        return std::string(::mkdtemp(pattern));
    }();
    std::ofstream(folder + "/.veerline", std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    std::optional<std::string> reference = RuleResolver::readReference(folder + "/.veerline");
    if (reference && (reference->empty() || reference->front() == '#' || reference->find('\n') != std::string::npos ||
                      std::string_view(" \t").find(reference->back()) != std::string_view::npos ||
                      std::string_view(" \t").find(reference->front()) != std::string_view::npos ||
                      size > RuleResolver::maxDotfileSize)) {
        std::abort();
    }
    ProfileDocument document;
    document.profiles = {Profile(ProfileID("work"), "Work"), Profile(ProfileID("home"), "Home")};
    Resolution resolution = RuleResolver(document, "/nonexistent-home").resolve(folder, folder);
    if (resolution.profile && !reference) std::abort();
    return 0;
}
