#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace veerline {

// Keeps copies of many short texts in a few large blocks, so that a parse of thousands of lines
// allocates a handful of times rather than once per text. What `store` returns stays valid, and
// in place, for as long as the arena lives.
class TextArena {
public:
    std::string_view store(std::string_view text) {
        if (text.empty()) return {};
        if (text.size() > blockSize / 4) {
            // A long text gets a block of its own, so that the current one isn't wasted.
            long_.push_back(std::make_unique_for_overwrite<char[]>(text.size()));
            std::memcpy(long_.back().get(), text.data(), text.size());
            return {long_.back().get(), text.size()};
        }
        if (blocks_.empty() || used_ + text.size() > blockSize) {
            blocks_.push_back(std::make_unique_for_overwrite<char[]>(blockSize));
            used_ = 0;
        }
        char* at = blocks_.back().get() + used_;
        std::memcpy(at, text.data(), text.size());
        used_ += text.size();
        return {at, text.size()};
    }

private:
    static constexpr std::size_t blockSize = 64 * 1024;
    std::vector<std::unique_ptr<char[]>> blocks_;
    std::vector<std::unique_ptr<char[]>> long_;
    std::size_t used_ = 0;  // in the last block
};

}  // namespace veerline
