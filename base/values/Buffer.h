#pragma once

#include "base/values/Extent.h"

#include <cstdint>
#include <memory>

namespace Morva {

/// An owned, growable block of bytes with the three numbers of an `Extent`: `size` bytes in all,
/// of which `available` may still be used; the first `size - available` are written.
///
/// The memory is one byte longer than `size`, and that byte is 0. Bytes that were never written
/// are undefined. Not thread-safe; shared between threads it must not change.
class Buffer {
public:
    Buffer() : Buffer(0) {}
    /// `size` bytes, all available.
    explicit Buffer(std::uint32_t size);
    /// A copy of `count` bytes, none available.
    Buffer(void const* bytes, std::uint32_t count);
    Buffer(Buffer const& other);
    Buffer& operator=(Buffer const& other);
    Buffer(Buffer&& other) noexcept;
    Buffer& operator=(Buffer&& other) noexcept;

    [[nodiscard]] std::uint8_t* data() { return bytes_.get(); }
    [[nodiscard]] std::uint8_t const* data() const { return bytes_.get(); }
    [[nodiscard]] std::uint32_t size() const { return size_; }
    [[nodiscard]] std::uint32_t available() const { return available_; }
    [[nodiscard]] std::uint32_t written() const { return size_ - available_; }

    /// Sets what may still be used, after bytes were written in place; at most `size`.
    void available(std::uint32_t count);
    /// Changes the size and keeps the bytes. Growth is available; when it shrinks below the
    /// written part, that is cut.
    void resize(std::uint32_t size);
    /// Writes behind the written part, growing at least twofold when there is too little space.
    /// `bytes` may lie in this buffer. False, and nothing changed, if the size would pass 32 bits.
    [[nodiscard]] bool append(void const* bytes, std::uint32_t count);
    /// Everything available again; the memory is kept.
    void clear() { available_ = size_; }

    /// The whole block, with `available` as it stands. Valid until the size changes.
    [[nodiscard]] Extent extent();
    /// The written part alone. Valid until the size changes.
    [[nodiscard]] Extent writtenExtent() const;

private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::uint32_t size_ = 0;
    std::uint32_t available_ = 0;
};

} // namespace Morva
