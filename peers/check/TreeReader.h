#pragma once

#include "base/files/RawFile.h"
#include "peers/check/BlockFile.h"
#include "replication/repository/streams/TreeRecord.h"

#include <cstdint>
#include <functional>

namespace Morva {

/// Reads what tree records hold, from the pool's files and without the pool. For one thread.
class TreeReader {
public:
    static constexpr std::uint32_t blockSize = 4096;
    static constexpr std::uint32_t fanOut = 512;

    /// `data` may be null and `indirect` closed: what they would hold can't be read then. Both
    /// must outlive the object. `nextBlock` ends the data blocks.
    TreeReader(RawFile* data, std::uint64_t nextBlock, BlockFile& indirect)
        : data_(data), nextBlock_(nextBlock), indirect_(indirect) {}

    /// Entries of a record of `width` bytes, 200 or 960.
    [[nodiscard]] static constexpr std::uint32_t entries(std::uint32_t width) {
        return (width - Replication::TreeRecord::entriesAt) / 8;
    }
    /// Largest length of a record of that width and depth; 0 for a depth that can't be.
    [[nodiscard]] static std::uint64_t maximum(std::uint32_t width, std::uint32_t depth);
    /// Whether depth and length can be.
    [[nodiscard]] static bool sound(Replication::TreeRecord record, std::uint32_t width) {
        return record.depth() <= Replication::TreeRecord::maximumDepth &&
               record.length() <= maximum(width, record.depth());
    }

    /// Reads `count` bytes at `offset`; holes give zeros. False beyond the length, for a record
    /// that isn't sound, and when a block can't be read.
    [[nodiscard]] bool read(Replication::TreeRecord record, std::uint32_t width,
                            std::uint64_t offset, void* buffer, std::uint32_t count);
    /// The number of the data block at an index of a record of depth 1 or more; 0 is a hole.
    /// False when an indirect block can't be read.
    [[nodiscard]] bool blockAt(Replication::TreeRecord record, std::uint64_t index,
                               std::uint64_t& block);
    /// Bytes read from the data file so far.
    [[nodiscard]] std::uint64_t bytesRead() const { return bytesRead_; }
    [[nodiscard]] std::uint64_t nextBlock() const { return nextBlock_; }

private:
    [[nodiscard]] bool readRun(std::uint64_t block, std::uint64_t skip, void* buffer,
                               std::uint32_t count);

    RawFile* data_;
    std::uint64_t nextBlock_;
    BlockFile& indirect_;
    std::uint64_t bytesRead_ = 0;
};

} // namespace Morva
