#pragma once

#include "base/values/Extent.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace Morva {

/// Builds a flat little-endian record. Every value is aligned to its own size from the record's
/// start (just behind the count word of `extent()`), with zero padding. The record has no type
/// tags: a reader takes the same sequence of types.
///
///  value            bytes   form
///  bool                1    0 or 1
///  int, unsigned       4    two's complement
///  unsigned 64         8
///  QString        4 + 2n    byte length (2n) as unsigned 32, then n UTF-16 code units
///  raw bytes           n    as they are, unaligned
///
/// Not thread-safe. Memory is kept over `reset()`, so that a reused buffer does not allocate.
class PackBuffer {
public:
    explicit PackBuffer(std::uint32_t initialSize = 256);

    void append(bool value);
    void append(std::int32_t value);
    void append(std::uint32_t value);
    void append(std::uint64_t value);
    void append(QString const& text);
    void append(void const* bytes, std::uint32_t count);
    void append(char const*) = delete;

    /// A 32-bit count of the bytes that follow, then the record. Valid until the next change.
    [[nodiscard]] Extent extent();
    /// The record alone. Valid until the next change.
    [[nodiscard]] Extent extentWithoutSize();
    /// Bytes packed so far, without the count word.
    [[nodiscard]] std::uint32_t size() const;
    /// Overwrites bytes that are already there, as for a field known only at the end.
    void patch(std::uint32_t offset, void const* bytes, std::uint32_t count);
    /// Back to an empty record.
    void reset();

private:
    std::uint8_t* grow(std::uint32_t alignment, std::uint32_t count);

    std::vector<std::uint8_t> bytes_;
};

/// Reads a flat record made by `PackBuffer`. Each `take` returns false, and takes nothing, when
/// too few bytes remain.
class UnpackBuffer {
public:
    UnpackBuffer() = default;

    /// Copies the record.
    void reset(Extent const& record);
    /// Reads the record where it lies; it must outlive the reader.
    void fromRawData(Extent const& record);

    [[nodiscard]] bool take(bool& value);
    [[nodiscard]] bool take(std::int32_t& value);
    [[nodiscard]] bool take(std::uint32_t& value);
    [[nodiscard]] bool take(std::uint64_t& value);
    [[nodiscard]] bool take(QString& text);
    [[nodiscard]] bool take(void* bytes, std::uint32_t count);

    /// What is left.
    [[nodiscard]] Extent extent() const;
    /// Cuts the record to `count` bytes from its start; a larger count changes nothing.
    void size(std::uint32_t count);

private:
    [[nodiscard]] std::uint8_t const* next(std::uint32_t alignment, std::uint32_t count);

    QByteArray owned_;
    std::uint8_t const* record_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t position_ = 0;
};

} // namespace Morva
