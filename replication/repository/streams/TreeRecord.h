#pragma once

#include "base/values/LittleEndian.h"

#include <cstdint>

namespace Replication {

/// View of a tree record: the root of one stream's content, little-endian.
///
///  off  size  field     meaning
///    0     8  length    of the stream in bytes
///    8     4  depth     0 to 4
///   12     4  reserved  zero
///   16   8*n  entries   depth 0: the stream's bytes, inline. Depth 1 or more: n block numbers,
///                       0 = a hole. Depth 1: data blocks; above: indirect blocks
///
/// A record takes 200 bytes (n = 23) in a stream's node and 960 bytes (n = 118) in a node of a
/// store; the record itself does not tell its width, `TreeParameters` does. An indirect block is
/// 512 block numbers of 8 bytes and nothing else.
///
/// The view owns nothing and needs no alignment.
class TreeRecord {
public:
    static constexpr std::uint32_t lengthAt = 0;
    static constexpr std::uint32_t depthAt = 8;
    static constexpr std::uint32_t entriesAt = 16;
    static constexpr std::uint32_t streamSize = 200;
    static constexpr std::uint32_t nodeSize = 960;
    static constexpr std::uint32_t maximumDepth = 4;

    explicit TreeRecord(void* bytes = nullptr) : bytes_(static_cast<std::uint8_t*>(bytes)) {}
    /// For reading only: the caller then uses none of the setters.
    [[nodiscard]] static TreeRecord readOnly(void const* bytes) {
        return TreeRecord(const_cast<void*>(bytes));
    }

    [[nodiscard]] std::uint64_t length() const {
        return Morva::loadLittle<std::uint64_t>(bytes_ + lengthAt);
    }
    void length(std::uint64_t value) { Morva::storeLittle(bytes_ + lengthAt, value); }
    [[nodiscard]] std::uint32_t depth() const {
        return Morva::loadLittle<std::uint32_t>(bytes_ + depthAt);
    }
    void depth(std::uint32_t value) { Morva::storeLittle(bytes_ + depthAt, value); }

    [[nodiscard]] std::uint8_t* entries() const { return bytes_ + entriesAt; }
    [[nodiscard]] std::uint64_t entry(std::uint32_t index) const {
        return Morva::loadLittle<std::uint64_t>(bytes_ + entriesAt + index * 8);
    }
    void entry(std::uint32_t index, std::uint64_t block) {
        Morva::storeLittle(bytes_ + entriesAt + index * 8, block);
    }

    [[nodiscard]] std::uint8_t* bytes() const { return bytes_; }

private:
    std::uint8_t* bytes_;
};

} // namespace Replication
