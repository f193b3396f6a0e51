// Whatever `codex login status` prints, reading it never fails, and a sign-in method is part of
// one line.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tools/codex_adapter.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    CodexAdapter::LoginState state = CodexAdapter::parseLoginStatus(text);
    if (state.kind != CodexAdapter::LoginState::Kind::signedIn && !state.method.empty()) std::abort();
    if (state.method.find_first_of("\r\n") != std::string::npos) std::abort();
    return 0;
}
