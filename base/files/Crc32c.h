#pragma once

#include <cstddef>
#include <cstdint>

namespace Morva {

/// CRC-32C (Castagnoli, RFC 3720) by the processor's instruction, as a register that goes on: no
/// inversion at its beginning or end. The result of some bytes is the seed of those behind them.
/// With all bits set as the first seed and the last result inverted it is the standard's checksum.
[[nodiscard]] std::uint32_t crc32c(std::uint32_t seed, void const* bytes, std::size_t count);
/// The same for that many bytes of 0.
[[nodiscard]] std::uint32_t crc32cOfZeros(std::uint32_t seed, std::size_t count);

} // namespace Morva
