#include <sys/mman.h>

#include <cstdint>
#include <new>

#include "platform/platform.h"

namespace veerline::platform {

std::shared_ptr<char[]> largeZeroedMemory(std::size_t size) noexcept {
    try {
#ifdef MADV_HUGEPAGE
        // Below one huge page the advice would only cost 2 MB of zeros.
        constexpr std::size_t huge = 2 * 1024 * 1024;
        if (size >= huge) {
            const std::size_t length = (size + huge - 1) / huge * huge + huge;  // room to align the start
            void* address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (address == MAP_FAILED) return nullptr;
            auto start = (reinterpret_cast<std::uintptr_t>(address) + huge - 1) / huge * huge;
            ::madvise(reinterpret_cast<void*>(start), length - huge, MADV_HUGEPAGE);
            return std::shared_ptr<char[]>(reinterpret_cast<char*>(start),
                                           [address, length](char*) { ::munmap(address, length); });
        }
#endif
        return std::make_shared<char[]>(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace veerline::platform
