// Every JSON text Veerline reads from outside goes through JsonInput: it never crashes or recurses
// on any input, agrees with nlohmann's own parse on what it accepts, and what it accepts reads
// back the same after being written.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/json_input.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    JsonInput::Problem problem = JsonInput::Problem::none;
    auto plain = JsonInput::parse(text, &problem);
    auto ordered = JsonInput::parseOrdered(text);
    if (plain.has_value() != ordered.has_value()) std::abort();
    if (!plain) return 0;
    if (nlohmann::json(*ordered) != *plain) std::abort();
    if (*plain != nlohmann::json::parse(text.begin(), text.end(), nullptr, false)) std::abort();
    if (JsonInput::parseOrdered(ordered->dump()) != ordered) std::abort();
    return 0;
}
