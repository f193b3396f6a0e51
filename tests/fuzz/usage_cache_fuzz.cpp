// libFuzzer target for the usage cache file's payload: whatever the bytes, decoding must stay
// inside them, and every text a decoded event holds must point into them.

#include "fuzz_support.h"
#include "usage/usage_cache_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto bytes = exactCopy(data, size);
    std::string_view payload(bytes.get(), size);
    auto entries = veerline::UsageCacheFile::decodePayload(payload, bytes);
    if (!entries) return 0;
    auto inside = [&](std::string_view text) {
        return text.empty() || (text.data() >= payload.data() && text.data() + text.size() <= payload.data() + size);
    };
    for (const auto& [path, entry] : *entries) {
        check(entry.events != nullptr);
        for (const auto& event : *entry.events) {
            check(inside(event.session));
            check(!event.dedupeKey || inside(*event.dedupeKey));
        }
    }
    return 0;
}
