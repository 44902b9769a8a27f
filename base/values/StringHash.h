#pragma once

#include <QStringView>

#include <cstdint>

// Hashes whose values are stored in files: they must never change, nor be replaced by a
// library's hash.

namespace Morva {

/// One step of the stored hash: a shift by four bits that folds the top bits back in. The value
/// never has its top four bits set.
[[nodiscard]] constexpr std::uint32_t hashStep(std::uint32_t hash, std::uint32_t unit) {
    std::uint32_t const sum = (hash << 4) + unit;
    std::uint32_t const top = sum & 0xF0000000U;
    return (sum ^ (top >> 23)) & ~top;
}

/// The stored hash of a text, over its 16-bit units.
[[nodiscard]] inline std::uint32_t stringHash(QStringView text) {
    std::uint32_t hash = 0;
    for (QChar unit : text)
        hash = hashStep(hash, unit.unicode());
    return hash;
}

/// The stored hash of bytes.
[[nodiscard]] constexpr std::uint32_t byteHash(std::uint8_t const* bytes, std::size_t count) {
    std::uint32_t hash = 0;
    for (std::size_t i = 0; i < count; ++i)
        hash = hashStep(hash, bytes[i]);
    return hash;
}

/// The stored hash of a 64-bit number: the low 32 bits of `(id >> 31) ^ id`.
[[nodiscard]] constexpr std::uint32_t idHash(std::uint64_t id) {
    return static_cast<std::uint32_t>((id >> 31) ^ id);
}

} // namespace Morva
