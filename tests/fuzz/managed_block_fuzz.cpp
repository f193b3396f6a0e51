// Adding the managed block to a shell file and removing it again gives the file back byte for byte
// (a final line feed added before the block stays, and the install record remembers it).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "shell/shell_integration.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string added = ShellIntegration::addingBlock(text);
    if (!added.ends_with(ShellIntegration::block()) || !ShellIntegration::blockIsLast(added)) std::abort();
    if (ShellIntegration::addingBlock(added) != added) std::abort();
    std::string removed = ShellIntegration::removingBlock(added);
    if (ShellIntegration::removingBlock(removed) != removed) std::abort();
    if (ShellIntegration::removingBlock(text) == text) {
        std::string expected = text.empty() || text.back() == '\n' ? text : text + "\n";
        if (removed != expected) std::abort();
    }
    return 0;
}
