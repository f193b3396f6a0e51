// Whatever `claude auth status` prints, reading it never fails, and the account it finds keeps its
// fields through the JSON form the CLI prints.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tools/claude_code_adapter.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto status = ClaudeCodeAdapter::parseAuthStatus(text);
    if (status && AccountInfo::fromJSON(status->account.toJSON()) != status->account) std::abort();
    return 0;
}
