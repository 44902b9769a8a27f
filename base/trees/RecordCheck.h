#pragma once

#include "base/values/LittleEndian.h"

#include <cstdint>

namespace Morva {

/// A check word over bytes, eight at a time; tells a torn or stale record from a whole one. Not
/// cryptographic.
[[nodiscard]] inline std::uint64_t recordCheck(std::uint64_t seed, std::uint8_t const* bytes,
                                               std::uint64_t count) {
    auto const mix = [](std::uint64_t sum, std::uint64_t word) {
        sum = (sum ^ word) * 0x9E3779B97F4A7C15ull;
        return sum ^ (sum >> 29);
    };
    std::uint64_t sum = mix(seed + 0xC2B2AE3D27D4EB4Full, count);
    std::uint64_t at = 0;
    for (; at + 8 <= count; at += 8)
        sum = mix(sum, loadLittle<std::uint64_t>(bytes + at));
    for (; at < count; ++at)
        sum = mix(sum, bytes[at]);
    return sum;
}

} // namespace Morva
