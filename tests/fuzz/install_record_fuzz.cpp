// ~/.veerline/install.json may be damaged or hand-edited: reading it never fails, and any record it
// accepts is written back and read again unchanged.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "shell/install_state.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::optional<InstallState> state = InstallState::decoded(text);
    if (state && InstallState::decoded(state->encoded("install.json")) != state) std::abort();
    return 0;
}
