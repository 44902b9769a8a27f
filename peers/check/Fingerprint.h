#pragma once

#include "base/values/LittleEndian.h"

#include <cstdint>

namespace Morva {

/// 64 bits that stand for bytes in the tables of a check, so that these stay small. Not
/// cryptographic, and stored nowhere.
[[nodiscard]] inline std::uint64_t fingerprint(void const* data, std::uint64_t count,
                                               std::uint64_t seed = 0) {
    auto const mix = [](std::uint64_t sum, std::uint64_t word) {
        sum = (sum ^ word) * 0x9E3779B97F4A7C15ull;
        return sum ^ (sum >> 32);
    };
    auto const* bytes = static_cast<std::uint8_t const*>(data);
    std::uint64_t sum = mix(mix(0xD6E8FEB86659FD93ull, seed), count);
    for (; count >= 8; count -= 8, bytes += 8)
        sum = mix(sum, loadLittle<std::uint64_t>(bytes));
    for (; count > 0; --count)
        sum = mix(sum, *bytes++);
    return mix(sum, sum >> 29);
}

} // namespace Morva
