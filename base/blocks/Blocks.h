#pragma once

#include "base/blocks/HeadedFile.h"
#include <QString>

#include <cstdint>
#include <functional>
#include <utility>

namespace Morva {

/// A file of numbered blocks of one size, with a write-back cache.
///
/// Blocks are handed out as pointers into cached buffers. Each such pin is ended by exactly one
/// of `returnBlock`, `discardBlock` and `freeBlock` (or by a `BlockPin`). Block 0 is the file's
/// own header; numbers from `firstBlock()` to `blockCount() - 1` exist, in use or free. Freed
/// blocks are given out again, the last one freed first; otherwise numbers ascend.
///
/// The file grows in steps whose disk space is reserved at once, so a full disk is `NoSpace` from
/// `newBlock`, with nothing changed, and never a failed write later. Its format and what a crash
/// can leave: docs/formats/block-file.md. Failures are traced. Operations on a pin that give a
/// boolean are false for a buffer without a pin, a fault of the caller. Not thread-safe.
class Blocks : public HeadedFile {
public:
    static constexpr std::uint32_t minimumBlockSize = 256;
    static constexpr std::uint32_t maximumBlockSize = 32768;

    explicit Blocks(std::uint32_t cacheBlocks);
    /// Closes the file.
    ~Blocks();

    /// Makes a new file, replacing one that is there. The block size is a multiple of 8 from 256
    /// to 32768; `reservedBits`, below 64, is the count of high bits that aren't part of a block
    /// number. `growSize` is the growth step in bytes, 0 for 1 MiB.
    [[nodiscard]] Status create(QString const& name, std::uint32_t blockSize,
                                std::uint32_t reservedBits, std::uint64_t growSize,
                                RawFile::Mode mode);
    /// `NotFound` when the file isn't there, and then none is made; `Corruption` when it isn't a
    /// sound block file.
    [[nodiscard]] Status open(QString const& name, std::uint64_t growSize, RawFile::Mode mode);
    /// Flushes and closes; a failure when something could not be written. Pins become invalid.
    /// Closing a closed file is harmless. A file that wasn't changed isn't written to.
    Status close();
    /// Writes all changed blocks and the header to the file; what fails stays changed and is
    /// tried again at the next flush. Doesn't sync.
    [[nodiscard]] Status flush();

    [[nodiscard]] std::uint32_t blockSize() const { return blockSize_; }
    /// The largest block number that the file can hold.
    [[nodiscard]] std::uint64_t mask() const { return mask_; }
    [[nodiscard]] static constexpr std::uint64_t firstBlock() { return 1; }
    /// Blocks of the file, the header counted.
    [[nodiscard]] std::uint64_t blockCount() const { return blockCount_; }
    /// How many of them are free.
    [[nodiscard]] std::uint64_t freeCount() const { return freeCount_; }

    /// A pinned block of zero bytes and its number. `NoSpace` when the disk or the range of numbers
    /// is full, `IoError`; then `number` is 0 and nothing has changed. A damaged chain of free
    /// blocks is given up, which loses their space and nothing else.
    [[nodiscard]] Result<void*> newBlock(std::uint64_t& number);
    /// A pinned block. Pins nest and give the same buffer. `Corruption` for a number that the file
    /// doesn't have, since numbers come from what was stored, and for wrong bytes; `IoError`. A
    /// free block can be pinned too; its first eight bytes are 0.
    [[nodiscard]] Result<void*> getBlock(std::uint64_t number);
    [[nodiscard]] Result<void const*> getBlock(std::uint64_t number) const;
    /// Gives one pin back; `dirty` says that the buffer was changed.
    bool returnBlock(void const* block, bool dirty);
    bool returnBlock(void const* block) const;
    /// Says that a pinned buffer was changed; the pin stays.
    bool updateBlock(void const* block);
    /// Gives the pin back and forgets the buffer. Changes that were told of before, by any pin,
    /// still reach the file.
    bool discardBlock(void const* block);
    /// Gives the pin back and the block to the free ones. `Corruption`, with only the pin given
    /// back, for a block that is free already.
    [[nodiscard]] Status freeBlock(void const* block);
    /// The number of a pinned buffer, 0 for null.
    [[nodiscard]] std::uint64_t number(void const* block) const;

    /// Whether a block of the file is marked as free.
    [[nodiscard]] Result<bool> isFree(std::uint64_t number) const;
    /// Calls back for each free block, along the chain that holds them, until the callback returns
    /// false. `Corruption` when the chain is damaged: it leaves the file, meets a block that isn't
    /// marked as free, or doesn't end after `freeCount()` blocks. Changes nothing.
    [[nodiscard]] Status
    forEachFree(std::function<bool(std::uint64_t number)> const& callback) const;

private:
    void setUp(std::uint32_t blockSize, std::uint64_t growSize);
    [[nodiscard]] Status readHeader(std::uint64_t growSize);
    void storeHeader();
    [[nodiscard]] Status writeHeader();
    [[nodiscard]] Status markChanged();
    [[nodiscard]] Status recoverCount();
    [[nodiscard]] Status reserve();
    [[nodiscard]] Status growTo(std::uint64_t blocks);
    [[nodiscard]] Result<void*> takeFree(std::uint64_t& number);
    [[nodiscard]] Status noBlock(std::uint64_t number) const;
    [[nodiscard]] Status badChain(std::uint64_t number) const;

    std::uint32_t blockSize_ = 0;
    std::uint32_t growBlocks_ = 0;
    std::uint64_t mask_ = 0;
    std::uint64_t blockCount_ = 0;
    std::uint64_t reservedCount_ = 0; // blocks that the disk has space for
    std::uint64_t freeCount_ = 0;
    std::uint64_t freeHead_ = 0;
    std::uint32_t reservedBits_ = 0;
    bool headerChanged_ = false;
    bool marked_ = false; // the header on disk says that the file is in use
};

/// Holds one pin of a block and ends it exactly once: by `discard`, `free` or `release`, or else
/// by returning the block, changed if `changed()` was called. A pin that could not be had is empty
/// and says why in `status()`. `Owner` is `Blocks` or a class that has its operations. The owner
/// must outlive the pin.
template <class Owner> class BasicBlockPin {
public:
    BasicBlockPin() = default;
    BasicBlockPin(Owner& owner, Result<void*> block) {
        if (block) {
            owner_ = &owner;
            block_ = *block;
        } else {
            status_ = std::move(block).status();
        }
    }
    BasicBlockPin(BasicBlockPin&& other) noexcept { swap(other); }
    BasicBlockPin& operator=(BasicBlockPin&& other) noexcept {
        BasicBlockPin(std::move(other)).swap(*this);
        return *this;
    }
    ~BasicBlockPin() { reset(); }

    [[nodiscard]] static BasicBlockPin get(Owner& owner, std::uint64_t number) {
        return {owner, owner.getBlock(number)};
    }
    [[nodiscard]] static BasicBlockPin make(Owner& owner, std::uint64_t& number) {
        return {owner, owner.newBlock(number)};
    }

    [[nodiscard]] explicit operator bool() const { return block_ != nullptr; }
    /// Why the pin could not be had; success otherwise, also for a pin that has ended.
    [[nodiscard]] Status const& status() const { return status_; }
    [[nodiscard]] std::uint8_t* bytes() const { return static_cast<std::uint8_t*>(block_); }
    [[nodiscard]] void* get() const { return block_; }

    /// The block goes back as changed.
    void changed() { changed_ = true; }
    /// Makes changes so far known to the owner, and keeps the pin.
    bool update() { return owner_->updateBlock(block_); }
    /// Returns the block now; true for an empty pin.
    bool reset() {
        if (!block_)
            return true;
        bool dirty = std::exchange(changed_, false);
        return std::exchange(owner_, nullptr)->returnBlock(std::exchange(block_, nullptr), dirty);
    }
    bool discard() {
        changed_ = false;
        return std::exchange(owner_, nullptr)->discardBlock(std::exchange(block_, nullptr));
    }
    [[nodiscard]] Status free() {
        changed_ = false;
        return std::exchange(owner_, nullptr)->freeBlock(std::exchange(block_, nullptr));
    }
    /// Hands the pin to the caller, who ends it.
    [[nodiscard]] void* release() {
        owner_ = nullptr;
        changed_ = false;
        return std::exchange(block_, nullptr);
    }
    void swap(BasicBlockPin& other) noexcept {
        std::swap(owner_, other.owner_);
        std::swap(block_, other.block_);
        std::swap(changed_, other.changed_);
        std::swap(status_, other.status_);
    }

private:
    Owner* owner_ = nullptr;
    void* block_ = nullptr;
    bool changed_ = false;
    Status status_;
};

using BlockPin = BasicBlockPin<Blocks>;

} // namespace Morva
