// libFuzzer target for the Codex token-count line reader: whatever the bytes, it must give exactly
// what reading the line into a JSON document and looking the figures up there gives.

#include <optional>

#include "fuzz_support.h"
#include "usage/codex_line_reader.h"

namespace {

using nlohmann::json;

std::int64_t figure(const json& usage, const char* key) {
    auto found = usage.find(key);
    return found != usage.end() && found->is_number() ? clampedInteger(*found) : 0;
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
    auto bytes = exactCopy(data, size);
    std::string_view line(bytes.get(), size);
    check(veerline::readCodexTokenCount(line) == fromDocument(line));
    return 0;
}
