#pragma once

#include "base/blocks/FreeList.h"
#include "base/blocks/ReferenceCount.h"
#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace Replication {

/// The data blocks of all streams: one large file of blocks that each have a persistent count of
/// references, with a separate list of the free ones. It has no cache and hands out no buffers:
/// callers read and write byte ranges of numbered blocks, straight to the file.
///
/// Three files are named by appending to one path: ".blocks", ".free" and ".refs". Block n lies
/// at byte n * blockSize of ".blocks". Block 0 begins with the control block and is never given
/// out; the number 0 in a list of blocks is a hole, all zero, without storage.
///
/// Control block, 32 bytes at offset 0 of ".blocks", little-endian:
///
///  off  size  field       meaning
///    0     8  next block  first number never given to the free list or a caller
///    8     8  reserved    zero
///   16     8  mask        2^64 - 1 shifted right by the reserved bits
///   24     4  block size  in bytes
///   28     4  reserved    zero
///
/// Thread-safe. One lock guards counts, the free list and the control block. Reading and writing
/// take no lock: each thread uses a handle of its own on the file, opened at its first use. Two
/// threads never write one block, since a block with more than one reference is copied first, and
/// a block with one belongs to one stream.
class RawRefCountedBlocks {
public:
    static constexpr std::uint32_t controlSize = 32;
    static constexpr std::uint64_t defaultGrowBlocks = 20480;

    /// `cacheSize`: pages of reference counts, 1024 each, kept in memory.
    explicit RawRefCountedBlocks(std::uint32_t cacheSize);
    ~RawRefCountedBlocks();
    RawRefCountedBlocks(RawRefCountedBlocks const&) = delete;
    RawRefCountedBlocks& operator=(RawRefCountedBlocks const&) = delete;

    /// Makes the three files. `growSize` in bytes is the step in which the file is extended: 0
    /// gives 20480 blocks, one block or less means block by block. False on any failure, with all
    /// three closed; nothing is made when `blockSize` is below 32.
    [[nodiscard]] bool create(QString const& path, std::uint32_t blockSize,
                              std::uint32_t reservedBits, std::uint64_t growSize,
                              bool randomAccess);
    /// False, with all three closed, when one is missing or damaged. None is made.
    [[nodiscard]] bool open(QString const& path, std::uint64_t growSize, bool randomAccess);
    /// The control block of a file that nobody need have open.
    struct Control {
        std::uint64_t nextBlock = 0;
        std::uint64_t mask = 0;
        std::uint32_t blockSize = 0;
    };
    /// Reads it from the open ".blocks". False when it can't be read or isn't sound; `control` has
    /// what was read.
    [[nodiscard]] static bool readControl(Morva::RawFile& file, Control& control);
    /// Writes what is in memory and closes; false if anything could not be written.
    bool close();
    [[nodiscard]] bool isOpen() const { return file_ != nullptr; }

    /// Opens the calling thread's handle now instead of at its first use; 4 (`Mode::Random`) or 2.
    void beginThread(Morva::RawFile::Mode mode);
    /// Closes the calling thread's handle. Also happens when the thread ends.
    void endThread();

    /// Reads `count` bytes at `offset` of a block. False when the file fails or the number lies
    /// outside it; the buffer is then undefined. A count of 0 touches nothing and is true.
    [[nodiscard]] bool read(std::uint64_t block, void* buffer, std::uint32_t offset,
                            std::uint32_t count);
    /// Reads over a list of blocks as if they lay one behind the other; `offset` applies to the
    /// first. Holes give zeros, and a run of consecutive numbers is one read of the file.
    [[nodiscard]] bool read(std::uint64_t const* blocks, std::uint32_t blockCount, void* buffer,
                            std::uint32_t offset, std::uint32_t count);
    /// As `read`. False when the file fails or takes less, or the number is 0 or outside the file.
    [[nodiscard]] bool write(std::uint64_t block, void const* buffer, std::uint32_t offset,
                             std::uint32_t count);
    /// As the list form of `read`; a hole ends it with false after what stood before it.
    [[nodiscard]] bool write(std::uint64_t const* blocks, std::uint32_t blockCount,
                             void const* buffer, std::uint32_t offset, std::uint32_t count);

    /// A free block, with one reference; its content is undefined. Waits for a freed block only
    /// while every number is in use, and gives that up when `stop` is called. 0 when stopped, when
    /// the disk is full and when a file fails.
    [[nodiscard]] std::uint64_t newBlock();
    /// Takes as many blocks as `numbers` holds under one lock, mostly consecutive. Returns how
    /// many there are; fewer on a failure as for `newBlock`.
    [[nodiscard]] std::uint32_t newBlocks(std::span<std::uint64_t> numbers);
    /// Drops one reference. True when it was the last: the block is free then. 0 gives false. The
    /// content stays as it is.
    bool freeBlock(std::uint64_t block);
    /// The count, 0 for a block that has none; false when the table can't be read.
    [[nodiscard]] bool count(std::uint32_t& count, std::uint64_t block) const;
    /// Adds one reference; `count` gets the new count. False for a block that has none.
    [[nodiscard]] bool increment(std::uint32_t& count, std::uint64_t block);
    /// The count could be read and is exactly 1.
    [[nodiscard]] bool unique(std::uint64_t block) const;

    /// Free list, then reference counts. False if anything could not be written.
    [[nodiscard]] bool flush();
    /// Brings all three files to the disk itself.
    [[nodiscard]] bool sync();
    /// Lets waiting and later calls of `newBlock` end with 0 where they would wait.
    void stop();

    [[nodiscard]] std::uint32_t blockSize() const { return blockSize_; }
    [[nodiscard]] std::uint64_t mask() const { return mask_; }
    /// Next block minus the free ones; `*total`, if given, gets next block.
    [[nodiscard]] std::uint64_t blocksUsed(std::uint64_t* total) const;
    [[nodiscard]] std::uint64_t cacheHits() const;
    [[nodiscard]] std::uint64_t cacheMisses() const;
    [[nodiscard]] std::uint32_t cacheSize() const;

    /// For a checker: every block with a count, ascending; every run of free numbers. They end
    /// when the function gives false. Under the lock: it must not call back. False when a table
    /// can't be read to its end.
    [[nodiscard]] bool
    forEachCount(std::function<bool(std::uint64_t block, std::uint32_t count)> const& visit) const;
    [[nodiscard]] bool
    forEachFree(std::function<bool(std::uint64_t first, std::uint64_t count)> const& visit) const;

private:
    [[nodiscard]] bool getControl();
    [[nodiscard]] bool flushControl();
    void growStep(std::uint64_t growSize);
    void closeAll();
    /// Makes the number `first` and those behind it known to the file; false when it can't grow.
    [[nodiscard]] bool extend(std::uint64_t first);
    /// One number with one reference, 0 if there is none now.
    [[nodiscard]] std::uint64_t takeBlock(bool& exhausted);
    /// The calling thread's handle, opened if it has none; null when that fails.
    [[nodiscard]] Morva::RawFile* ownFile(Morva::RawFile::Mode mode);
    [[nodiscard]] bool inFile(std::uint64_t first, std::uint64_t count) const;
    /// The calling thread's file, if these blocks lie in it; else null, and `failure` is traced.
    [[nodiscard]] Morva::RawFile* fileOf(std::uint64_t first, std::uint64_t blocks,
                                         char const* failure);
    /// Calls `run` for each run of adjacent blocks, with its part of the bytes at `at`.
    template <class Bytes, class Run>
    [[nodiscard]] bool inRuns(std::uint64_t const* blocks, std::uint32_t blockCount, Bytes* at,
                              std::uint32_t offset, std::uint32_t count, Run&& run);
    [[nodiscard]] bool readRun(std::uint64_t first, std::uint64_t blocks, void* buffer,
                               std::uint32_t offset, std::uint32_t count);
    [[nodiscard]] bool writeRun(std::uint64_t first, std::uint64_t blocks, void const* buffer,
                                std::uint32_t offset, std::uint32_t count);
    [[nodiscard]] std::uint32_t runLength(std::uint64_t const* blocks,
                                          std::uint32_t blockCount) const;

    mutable Morva::TracedMutex lock_;
    std::condition_variable freed_;
    Morva::ReferenceCount counts_;             // guarded by lock_
    Morva::FreeList freeList_;                 // guarded by lock_
    std::unique_ptr<Morva::RawFile> file_;     // guarded by lock_
    std::atomic<std::uint64_t> nextBlock_ = 0; // written under lock_
    std::uint64_t mask_ = 0;
    std::uint32_t blockSize_ = 0;
    QString name_;
    std::uint64_t growBlocks_ = 0;
    Morva::RawFile::Mode mode_ = Morva::RawFile::Mode::ReadWrite;
    bool stopping_ = false;          // guarded by lock_
    std::uint32_t waiting_ = 0;      // guarded by lock_
    std::shared_ptr<char> identity_; // see ThreadFiles; set while open
};

} // namespace Replication
