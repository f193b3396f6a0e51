// libFuzzer target for the Codex token-count line reader: whatever the bytes, it must give exactly
// what reading the line into a JSON document and looking the figures up there gives.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "usage/codex_line_reader.h"

namespace {

using nlohmann::json;

void check(bool condition) {
    if (!condition) std::abort();
}

std::int64_t figure(const json& usage, const char* key) {
    auto found = usage.find(key);
    if (found == usage.end()) return 0;
    if (found->is_number_unsigned()) {
        auto value = found->get<std::uint64_t>();
        auto most = std::numeric_limits<std::int64_t>::max();
        return value > static_cast<std::uint64_t>(most) ? most : static_cast<std::int64_t>(value);
    }
    if (found->is_number_integer()) return found->get<std::int64_t>();
    if (found->is_number_float()) {
        // Held at the 64-bit limits, as the integers are.
        double whole = std::trunc(found->get<double>());
        if (whole >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
        if (whole < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(whole);
    }
    return 0;
}

// The same answer from the whole document.
std::optional<veerline::CodexTokenCount> fromDocument(std::string_view line) {
    json object = json::parse(line, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    auto type = object.find("type");
    if (type == object.end() || *type != "event_msg") return std::nullopt;
    auto payload = object.find("payload");
    if (payload == object.end() || !payload->is_object()) return std::nullopt;
    auto payloadType = payload->find("type");
    if (payloadType == payload->end() || *payloadType != "token_count") return std::nullopt;
    auto info = payload->find("info");
    if (info == payload->end() || !info->is_object()) return std::nullopt;
    auto usage = info->find("last_token_usage");
    if (usage == info->end() || !usage->is_object()) return std::nullopt;
    auto timestamp = object.find("timestamp");
    if (timestamp == object.end() || !timestamp->is_string()) return std::nullopt;
    return veerline::CodexTokenCount{timestamp->get<std::string>(), figure(*usage, "input_tokens"),
                                     figure(*usage, "cached_input_tokens"), figure(*usage, "output_tokens"),
                                     figure(*usage, "cache_write_input_tokens")};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size copy, so that AddressSanitizer sees any read past the end.
    std::unique_ptr<char[]> bytes(new char[std::max<std::size_t>(size, 1)]);
    std::copy(data, data + size, bytes.get());
    std::string_view line(bytes.get(), size);
    check(veerline::readCodexTokenCount(line) == fromDocument(line));
    return 0;
}
