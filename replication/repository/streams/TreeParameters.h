#pragma once

#include "base/blocks/Failures.h"
#include "replication/repository/streams/TreeRecord.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace Morva {
class PagedQueue;
}

namespace Replication {

class RawRefCountedBlocks;
class RefCountedBlocks;

/// The shape of a tree for one width of record, and the stores that its blocks live in. Shared
/// by all `Info` objects of that width; made once when the pool starts, never changed.
///
/// Thread-safe, as far as no two threads use one record.
class TreeParameters {
public:
    static constexpr std::uint32_t blockSize = 4096;
    static constexpr std::uint32_t blockShift = 12;
    static constexpr std::uint32_t fanOut = 512;
    static constexpr std::uint32_t fanOutShift = 9;
    static constexpr std::uint32_t maximumDepth = TreeRecord::maximumDepth;

    /// `recordBytes`: 200 or 960. `failures` is counted up at each failure of a block.
    TreeParameters(std::uint32_t recordBytes, std::shared_ptr<Morva::PagedQueue> cleanupQueue,
                   std::shared_ptr<RawRefCountedBlocks> data,
                   std::shared_ptr<RefCountedBlocks> indirect,
                   std::shared_ptr<std::atomic<std::uint64_t>> failures);

    /// False when a record of that width can't be: it would need more than 512 entries.
    [[nodiscard]] explicit operator bool() const;

    /// Bytes of a record, entries in it, and the bytes that it holds at depth 0.
    [[nodiscard]] std::uint32_t recordSize() const { return levelZeroEntries_ * 8 + 16; }
    [[nodiscard]] std::uint32_t levelZeroEntries() const { return levelZeroEntries_; }
    [[nodiscard]] std::uint32_t inlineSize() const { return levelZeroEntries_ * 8; }
    /// Largest length that a depth of 0 to 4 can hold.
    [[nodiscard]] std::uint64_t maximum(std::uint32_t depth) const { return maximum_[depth]; }
    /// Offset mask of what one entry `distance` (1 to 5) levels above the data covers.
    [[nodiscard]] std::uint64_t coverage(std::uint32_t distance) const {
        return (std::uint64_t{blockSize} << (fanOutShift * (distance - 1))) - 1;
    }

    [[nodiscard]] RawRefCountedBlocks& data() const { return *data_; }
    [[nodiscard]] RefCountedBlocks& indirect() const { return *indirect_; }

    /// Makes `to` a second record of the content of `from`: copies it and adds one reference to
    /// each block that it names. False, with nothing counted and `to` as it was, when a count
    /// can't be changed or the record is damaged.
    [[nodiscard]] bool takeCopy(TreeRecord to, TreeRecord from) const;
    /// Adds the references alone. False with nothing counted, as above.
    [[nodiscard]] bool incrementEntry(TreeRecord record) const;
    /// The same for `count` entries that stand in a record or block; `dataEntries` tells that they
    /// name data blocks and not indirect ones.
    [[nodiscard]] bool addReferences(std::uint8_t const* entries, std::uint32_t count,
                                     bool dataEntries) const;
    /// Takes back what `addReferences` added, while the blocks have other references.
    void takeBackReferences(std::uint8_t const* entries, std::uint32_t count,
                            bool dataEntries) const;
    /// Hands the record's references to the cleanup queue and returns at once. A record of depth
    /// 0 has none. False, and the failure counted, when the queue doesn't take it: the blocks stay
    /// counted then.
    bool decrementEntry(TreeRecord record) const;

    /// Notes a block that could not be read, written or had, also on the calling thread.
    void failed() const {
        failures_->fetch_add(1, std::memory_order_relaxed);
        Morva::Failures::note();
    }

    enum class Visit { Enter, Skip };
    /// Called for every block that a tree names, parents before children. `level` is 0 for a data
    /// block and rises towards the record. The answer tells whether to go into an indirect block.
    using Visitor = std::function<Visit(std::uint32_t level, std::uint64_t block)>;
    /// Walks the tree of a record and changes nothing. False when something in it could not be
    /// read or can't be: a depth above 4, an indirect block outside the file. The walk goes on
    /// with the rest. Of a damaged tree whose blocks name each other it is the visitor that ends
    /// the walk, by skipping what it has seen.
    [[nodiscard]] bool walk(TreeRecord record, Visitor const& visit) const;

private:
    [[nodiscard]] bool walkBlock(std::uint32_t level, std::uint64_t block,
                                 Visitor const& visit) const;

    std::shared_ptr<Morva::PagedQueue> cleanupQueue_;
    std::shared_ptr<RawRefCountedBlocks> data_;
    std::shared_ptr<RefCountedBlocks> indirect_;
    std::shared_ptr<std::atomic<std::uint64_t>> failures_;
    std::uint32_t levelZeroEntries_ = 0;
    std::array<std::uint64_t, maximumDepth + 1> maximum_{};
};

} // namespace Replication
