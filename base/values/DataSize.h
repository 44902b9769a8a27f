#pragma once

#include <QString>

#include <cstdint>

namespace Morva {

/// A count of bytes which the log prints in a readable unit.
struct DataSize {
    std::uint64_t bytes = 0;

    constexpr DataSize() = default;
    constexpr explicit DataSize(std::uint64_t count) : bytes(count) {}
    constexpr auto operator<=>(DataSize const&) const = default;
};

/// A count of bytes that can be moved to a larger unit for printing.
class ConvertableDataSize {
public:
    explicit ConvertableDataSize(DataSize size) : bytes_(size.bytes) {}
    explicit ConvertableDataSize(std::uint64_t bytes) : bytes_(bytes) {}

    /// Moves to the largest unit (powers of 1024) that keeps the number at or above 1.
    void normalise();
    /// "1 byte", "1536 bytes", "1.5 KiB": one decimal at most, rounded down.
    [[nodiscard]] QString toString() const;

private:
    std::uint64_t bytes_;
    unsigned unit_ = 0;
};

} // namespace Morva
