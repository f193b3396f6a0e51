// Whatever arrives on the status line's standard input, whole or cut off anywhere, finding the
// session's folder never fails, and for a whole object it is the folder the parsed document names.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "usage/status_line_input.h"

using namespace veerline;

namespace {

std::optional<std::string> documentFolder(const nlohmann::json& object) {
    auto workspace = object.find("workspace");
    if (workspace != object.end() && workspace->is_object()) {
        auto current = workspace->find("current_dir");
        if (current != workspace->end() && current->is_string()) return current->get<std::string>();
    }
    auto cwd = object.find("cwd");
    if (cwd != object.end() && cwd->is_string()) return cwd->get<std::string>();
    return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::optional<std::string> found = StatusLineInput::folder(input);
    nlohmann::json document = nlohmann::json::parse(input, nullptr, false);
    if (document.is_object() && found != documentFolder(document)) std::abort();
    if (!document.is_discarded() && !document.is_object() && found) std::abort();
    return 0;
}
