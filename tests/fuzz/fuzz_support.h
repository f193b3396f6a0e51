// What several fuzz targets share: a failed check ends the run, inputs are copied to their exact
// size, and JSON numbers are read as 64-bit integers the way Veerline reads them.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>

#include <nlohmann/json.hpp>

inline void check(bool condition) {
    if (!condition) std::abort();
}

// An exact-size copy, so that AddressSanitizer sees any read past the end.
inline std::shared_ptr<char[]> exactCopy(const std::uint8_t* data, std::size_t size) {
    std::shared_ptr<char[]> bytes(new char[std::max<std::size_t>(size, 1)]);
    std::copy(data, data + size, bytes.get());
    return bytes;
}

// A fraction is cut off, and a number past the 64-bit range is held at the limit.
inline std::int64_t clampedInteger(const nlohmann::json& number) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    if (number.is_number_unsigned()) {
        return number.get<std::uint64_t>() > std::uint64_t(most) ? most : number.get<std::int64_t>();
    }
    if (number.is_number_integer()) return number.get<std::int64_t>();
    double whole = std::trunc(number.get<double>());
    if (whole >= 9223372036854775808.0) return most;
    if (whole < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(whole);
}
