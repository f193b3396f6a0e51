// The quick decoder may refuse a profiles file, but whenever it answers it must agree with the full
// decoder; whatever the full decoder accepts is written back and read again unchanged.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "profiles/profile_document.h"
#include "profiles/quick_document_decoder.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::optional<ProfileDocument> full;
    try {
        full = decodeDocument(text);
    } catch (const DocumentDecodeError&) {
    }
    std::optional<ProfileDocument> quick = decodeDocumentQuickly(text);
    if (quick && quick != full) std::abort();
    if (full && decodeDocument(encodeDocument(*full)) != *full) std::abort();
    return 0;
}
