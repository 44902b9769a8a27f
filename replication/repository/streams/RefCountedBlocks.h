#pragma once

#include "base/blocks/Blocks.h"
#include "base/blocks/ReferenceCount.h"
#include "base/trace/TracedLock.h"

#include <cstdint>
#include <functional>

namespace Replication {

/// The indirect blocks of all streams: a cached block file and a persistent count of references
/// for each block, so that a subtree can be shared by counting its root.
///
/// Two files are named by appending to one path: ".blocks" and ".refs".
///
/// Thread-safe: one lock guards blocks and counts together. The buffers are used outside the lock:
/// the pin keeps them, and a block with one reference is reached from a single stream only.
class RefCountedBlocks : public Morva::Blocks {
public:
    /// Blocks, and pages of 1024 reference counts, that are kept in memory.
    RefCountedBlocks(std::uint32_t cacheBlocks, std::uint32_t referenceCacheSize);

    /// Makes both files; false, with both closed, when one can't be made.
    [[nodiscard]] bool create(QString const& path, std::uint32_t blockSize,
                              std::uint32_t reservedBits);
    /// False, with both closed, when one is missing or damaged. None is made.
    [[nodiscard]] bool open(QString const& path);
    /// True when both could be closed. Takes no lock.
    bool close();

    /// A pinned buffer of zeros with one reference, null when there is none to be had.
    [[nodiscard]] void* newBlock(std::uint64_t& number);
    /// The pinned block; null when it can't be read or lies outside the file.
    [[nodiscard]] void* getBlock(std::uint64_t number);
    [[nodiscard]] void const* getBlock(std::uint64_t number) const;
    /// Ends a pin.
    bool returnBlock(void const* block, bool dirty);
    bool returnBlock(void const* block) const;
    /// Ends a pin and drops one reference. True when that was the last: the block is free then. A
    /// changed buffer is lost; false says that somebody still shares the block.
    bool freeBlock(void const* block);
    enum class Drop {
        Done,  ///< one reference dropped, another one remains; the pin is ended
        Sole,  ///< the caller holds the only one; nothing changed
        Failed ///< the count can't be read or written; nothing changed
    };
    /// Drops one reference only if another one remains, in one step.
    [[nodiscard]] Drop dropShared(void const* block);

    /// The count, 0 for a block that has none; false when the table can't be read.
    [[nodiscard]] bool count(std::uint32_t& count, std::uint64_t number) const;
    /// The count could be read and is exactly 1.
    [[nodiscard]] bool unique(std::uint64_t number) const;
    [[nodiscard]] bool increment(std::uint32_t& count, std::uint64_t number);
    /// Takes back one reference that the caller added and that isn't the last.
    bool decrement(std::uint64_t number);

    /// Blocks, then reference counts. False if anything could not be written.
    [[nodiscard]] bool flush();
    /// Brings both files to the disk itself.
    [[nodiscard]] bool sync();

    /// Blocks in use; `*total`, if given, gets all blocks of the file.
    [[nodiscard]] std::uint64_t blocksUsed(std::uint64_t* total) const;
    [[nodiscard]] std::uint64_t cacheHits() const;
    [[nodiscard]] std::uint64_t cacheMisses() const;
    [[nodiscard]] std::uint32_t cacheSize() const;
    [[nodiscard]] std::uint64_t refCacheHits() const;
    [[nodiscard]] std::uint64_t refCacheMisses() const;
    [[nodiscard]] std::uint32_t refCacheSize() const;

    /// For a checker: every block with a count, ascending; every free number. They end when the
    /// function gives false. Under the lock: it must not call back. False when a table or the
    /// chain of free blocks can't be read to its end.
    [[nodiscard]] bool
    forEachCount(std::function<bool(std::uint64_t block, std::uint32_t count)> const& visit) const;
    [[nodiscard]] bool forEachFree(std::function<bool(std::uint64_t block)> const& visit) const;

private:
    mutable Morva::TracedMutex lock_;
    Morva::ReferenceCount counts_; // guarded by lock_
};

} // namespace Replication
