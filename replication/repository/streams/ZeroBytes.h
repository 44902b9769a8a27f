#pragma once

#include <cstdint>
#include <cstring>

namespace Replication {

/// Whether a range of memory is all zero bytes; an empty one is.
[[nodiscard]] inline bool allZero(void const* bytes, std::size_t count) {
    auto const* at = static_cast<std::uint8_t const*>(bytes);
    // A range that equals itself moved on by one byte has one value throughout.
    return count == 0 || (at[0] == 0 && std::memcmp(at, at + 1, count - 1) == 0);
}

} // namespace Replication
