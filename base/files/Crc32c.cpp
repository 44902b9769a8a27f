#include "base/files/Crc32c.h"

#include <isa-l/crc.h>

#include <algorithm>
#include <array>

namespace Morva {

std::uint32_t crc32c(std::uint32_t seed, void const* bytes, std::size_t count) {
    // The library takes its length as an int, and bytes that it only reads without a const.
    constexpr std::size_t step = 1 << 30;
    auto* at = static_cast<unsigned char*>(const_cast<void*>(bytes));
    for (; count > step; count -= step, at += step)
        seed = crc32_iscsi(at, static_cast<int>(step), seed);
    return crc32_iscsi(at, static_cast<int>(count), seed);
}

std::uint32_t crc32cOfZeros(std::uint32_t seed, std::size_t count) {
    static std::array<std::uint8_t, 4096> const zeros{};
    for (; count > zeros.size(); count -= zeros.size())
        seed = crc32c(seed, zeros.data(), zeros.size());
    return crc32c(seed, zeros.data(), count);
}

} // namespace Morva
