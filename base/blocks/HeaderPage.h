#pragma once

#include "base/values/LittleEndian.h"

#include <cstdint>

namespace Morva {

/// A check word over the bytes of a file's header page, so that a damaged header is told from a
/// sound one. Not cryptographic.
[[nodiscard]] inline std::uint32_t headerCheck(std::uint8_t const* bytes, std::uint32_t count) {
    std::uint64_t sum = 0x9E3779B97F4A7C15ull ^ count;
    for (std::uint32_t at = 0; at + 4 <= count; at += 4) {
        sum = (sum ^ loadLittle<std::uint32_t>(bytes + at)) * 0xD6E8FEB86659FD93ull;
        sum ^= sum >> 32;
    }
    return static_cast<std::uint32_t>(sum);
}

} // namespace Morva
