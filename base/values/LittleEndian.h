#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>

namespace Morva {

/// Reads an unsigned integer of little-endian bytes. No alignment is needed.
template <std::unsigned_integral T> [[nodiscard]] inline T loadLittle(void const* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    static_assert(std::endian::native == std::endian::little, "big-endian hosts need a byte swap");
    return value;
}

/// Writes an unsigned integer as little-endian bytes. No alignment is needed.
template <std::unsigned_integral T> inline void storeLittle(void* bytes, T value) {
    std::memcpy(bytes, &value, sizeof value);
}

} // namespace Morva
