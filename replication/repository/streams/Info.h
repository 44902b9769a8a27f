#pragma once

#include "replication/repository/streams/TreeParameters.h"
#include "replication/repository/streams/TreeRecord.h"

#include <array>
#include <cstdint>

namespace Replication {

/// Works on the tree of one record: maps byte offsets of a stream to data blocks.
///
/// At depth 0 the bytes stand in the record. At depth d the record's entries lead through d - 1
/// levels of indirect blocks to data blocks of 4096 bytes. An entry of 0 is a hole and reads as
/// zeros. Blocks can be shared between trees: whatever a write touches is made private first.
///
/// What holds between two calls:
/// - the depth is the smallest that holds the length, or more where content stood before;
/// - no indirect block in a tree is all holes;
/// - a data block is whole in the file before an entry names it;
/// - bytes behind the length are zero;
/// - no block is pinned.
///
/// Failures of the block stores have no result here: they are traced, counted in
/// `TreeParameters::failed`, and leave a whole tree. What can't be read gives zeros. What can't be
/// written keeps its old block (or hole), and the write ends there; the length then covers what
/// was written before it.
///
/// Not thread-safe: whoever owns the record locks. No operation allocates.
class Info {
public:
    /// An offset that stands for the end of the stream.
    static constexpr std::uint64_t append = ~std::uint64_t{0};

    /// The parameters and the record must outlive the object.
    Info(TreeParameters const* parameters, TreeRecord record)
        : parameters_(parameters), record_(record) {}
    Info(Info const&) = delete;
    Info& operator=(Info const&) = delete;

    /// Re-aims the object at another record of the same width; `dirty` is cleared.
    void attach(TreeRecord record) {
        record_ = record;
        dirty_ = false;
    }
    [[nodiscard]] TreeRecord record() const { return record_; }

    /// Writes at `offset` (`append`: at the end). With `noExtend` only what lies below the length
    /// is written. False, with nothing written and the failure counted, when the end would pass
    /// what the deepest tree holds; else true.
    bool write(std::uint64_t offset, void const* data, std::uint32_t count, bool noExtend);
    /// Bytes delivered: `count`, or what there is up to the length.
    [[nodiscard]] std::uint32_t read(std::uint64_t offset, void* data, std::uint32_t count);
    /// The data blocks of the first `count` bytes, 0 for a hole: one entry of `blocks` for each
    /// block begun. False when they don't all lie in blocks that are told here: at depth 0, behind
    /// the length, and where an indirect block can't be read.
    [[nodiscard]] bool locate(std::uint64_t count, std::uint64_t* blocks);
    /// Finds the next content at or behind `start`: `start` moves to it, and `end` is where a hole
    /// or the stream's end follows, or an earlier point where more content may follow at once.
    /// False when there are only holes up to the end. Reads no data, only indirect blocks; the
    /// work is that of one path down the tree for each hole passed. What can't be read counts as
    /// content, so that reading it shows the failure.
    [[nodiscard]] bool findData(std::uint64_t& start, std::uint64_t& end);
    /// Cuts or extends; what is added is a hole. False as for `write`, else true.
    bool truncate(std::uint64_t length);
    /// Makes the range zeros and, as far as it can, holes. A start within a block of depth 1 or
    /// more clears that block to its end, also when `end` lies before. Extends the length to
    /// `end`. False as for `write`, else true.
    bool zeroData(std::uint64_t start, std::uint64_t end);
    /// Whether the range lies below the length and holds nothing but zeros.
    [[nodiscard]] bool isZero(std::uint64_t start, std::uint64_t end);
    /// Drops the record's references to its whole tree and leaves a record without entries.
    void release();
    /// Does at most about `budget` blocks of `release`; true when all is done. A state between two
    /// calls is whole: called again for the same record, also after a restart, it goes on with
    /// what is left. The last call alone drops the record's own entries.
    [[nodiscard]] bool releaseSlice(std::uint32_t budget);

    [[nodiscard]] std::uint64_t length() const { return record_.length(); }
    /// Stores the length.
    void length(std::uint64_t value) {
        record_.length(value);
        dirty_ = true;
    }

    /// The record has changed and its owner must write it. The owner clears it.
    [[nodiscard]] bool dirty() const { return dirty_; }
    void clearDirty() { dirty_ = false; }
    void setDirty() { dirty_ = true; }

    /// Whether a block failed in an operation since `clearFailed`.
    [[nodiscard]] bool hasFailed() const { return failed_; }
    void clearFailed() { failed_ = false; }

private:
    /// One step of the path to a data block. Level 0 is the record.
    struct Level {
        std::uint32_t index = 0;
        bool dirty = false;
        std::uint64_t block = 0;
        std::uint8_t* buffer = nullptr;
    };
    /// The part of a write or read that is still to be done.
    struct Span {
        std::uint64_t offset;
        std::uint8_t const* data;
        std::uint32_t count;
    };

    [[nodiscard]] std::uint32_t depth() const { return record_.depth(); }
    [[nodiscard]] bool damaged() const { return depth() > TreeParameters::maximumDepth; }
    [[nodiscard]] std::uint32_t entriesOf(std::uint32_t level) const {
        return level == 0 ? parameters_->levelZeroEntries() : TreeParameters::fanOut;
    }

    // The path to an offset (Info.cpp).
    void setOffset(std::uint64_t offset);
    [[nodiscard]] bool next(std::uint32_t level);
    [[nodiscard]] std::uint64_t entry(std::uint32_t level) const;
    void setEntry(std::uint32_t level, std::uint64_t block);
    /// Pins the block of a level; false when it is there and can't be had.
    [[nodiscard]] bool load(std::uint32_t level);
    /// Loads levels downwards as far as there are blocks. `last` gets the level whose entry was
    /// used last. False when a block is there and can't be had.
    [[nodiscard]] bool loadPath(std::uint32_t& last);
    void giveBack(std::uint32_t lowest);
    /// As giveBack, and frees the private blocks that hold nothing any more, from the lowest up.
    void giveBackPruned(std::uint32_t lowest);
    [[nodiscard]] std::uint64_t holeEnd(std::uint64_t offset, std::uint32_t last) const;
    void failed() const {
        failed_ = true;
        parameters_->failed();
    }

    [[nodiscard]] bool increaseDepth();
    [[nodiscard]] bool decreaseDepth();
    [[nodiscard]] bool pullUpData(std::uint64_t block);
    [[nodiscard]] bool pullUpEntries(std::uint64_t block);
    [[nodiscard]] bool makeUnique(std::uint32_t level);

    // Writing and reading (InfoData.cpp).
    [[nodiscard]] bool extendTo(std::uint64_t end);
    [[nodiscard]] bool doWrite(Span& span);
    [[nodiscard]] bool writeWhole(Span& span, std::uint32_t blocks);
    [[nodiscard]] bool writePartial(Span& span, std::uint32_t chunk);
    /// Gives the entry of a leaf level the whole block in `scratch_`.
    [[nodiscard]] bool replaceBlock(std::uint32_t leaf, std::uint64_t old);
    [[nodiscard]] std::uint64_t doRead(std::uint64_t offset, std::uint64_t end,
                                       std::uint8_t* buffer);
    /// The blocks from the one of `offset` on, as far as one leaf level names them.
    struct Run {
        std::uint64_t end; ///< the bytes up to here lie in them, or in a hole
        std::uint32_t count = 0;
        bool hole = false;
        bool failed = false; ///< of a hole: a block that can't be had
        std::array<std::uint64_t, TreeParameters::fanOut> blocks;
    };
    void findRun(std::uint64_t offset, std::uint64_t end, Run& run);
    void readBlocks(std::uint64_t const* blocks, std::uint32_t blockCount, std::uint8_t* buffer,
                    std::uint32_t offset, std::uint32_t count);

    // Zeros and ends (InfoZero.cpp).
    void clear();
    /// `zeroData` for a range that the tree can hold, without a look at the length.
    [[nodiscard]] bool zeroRange(std::uint64_t start, std::uint64_t end);
    [[nodiscard]] bool zeroEntries(std::uint32_t leaf, std::uint64_t start, std::uint64_t end);
    [[nodiscard]] bool zeroPart(std::uint32_t leaf, std::uint32_t offset, std::uint32_t count);
    [[nodiscard]] bool leafIsHole(std::uint32_t leaf, std::uint64_t start, std::uint64_t end) const;
    [[nodiscard]] bool blocksAreZero(std::uint32_t leaf, std::uint64_t start, std::uint64_t end);

    // Release (InfoRelease.cpp). The height of an indirect block is 1 when it names data.
    [[nodiscard]] bool emptyTop(std::uint32_t height, std::uint64_t block, std::uint32_t& budget);
    [[nodiscard]] bool emptyEntries(std::uint32_t height, std::uint8_t* entries,
                                    std::uint32_t& budget);
    /// `index` is that of the entry which names the block.
    [[nodiscard]] bool dropTree(std::uint32_t height, std::uint64_t block, std::uint32_t index,
                                std::uint32_t& budget);

    TreeParameters const* parameters_;
    TreeRecord record_;
    bool dirty_ = false;
    mutable bool failed_ = false;
    std::array<Level, TreeParameters::maximumDepth + 1> levels_;
    /// A block under work, within one call; a member would make every open stream larger by it.
    alignas(8) static inline thread_local std::uint8_t scratch_[TreeParameters::blockSize];
};

} // namespace Replication
