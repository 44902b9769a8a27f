#pragma once

#include <QByteArray>

#include <cstdint>

namespace Morva {

/// A range of memory, passed by value. It owns nothing: whoever hands one out says how long
/// the memory behind it stays valid.
///
/// `size` is the number of bytes in the range, `available` the number that may still be used;
/// a writer moves `available` down, so the written part is `size - available`.
struct Extent {
    void* data = nullptr;
    std::uint32_t size = 0;
    std::uint32_t available = 0;

    constexpr Extent() = default;
    constexpr Extent(void* bytes, std::uint32_t count)
        : data(bytes), size(count), available(count) {}
    /// A read-only view: callers that take an `Extent const&` only read through it.
    Extent(void const* bytes, std::uint32_t count)
        : data(const_cast<void*>(bytes)), size(count), available(count) {}
    explicit Extent(QByteArray const& bytes)
        : Extent(static_cast<void const*>(bytes.constData()),
                 static_cast<std::uint32_t>(bytes.size())) {}

    [[nodiscard]] std::uint8_t const* bytes() const {
        return static_cast<std::uint8_t const*>(data);
    }
    [[nodiscard]] std::uint8_t* bytes() { return static_cast<std::uint8_t*>(data); }
    /// An independent copy of the range.
    [[nodiscard]] QByteArray toByteArray() const {
        return {static_cast<char const*>(data), static_cast<qsizetype>(size)};
    }
};

} // namespace Morva
