#pragma once

#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/NodeBlock.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace Replication {

class Streams;

/// What "files" holds at one moment, and its cache.
struct NodeFileFigures {
    std::uint64_t blocks = 0; ///< of 1024 bytes, free ones and the control block included
    std::uint64_t freeBlocks = 0;
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
    std::uint32_t cacheSize = 0; ///< blocks
};

/// A store's "files": the block file whose first block is the control block and every other block
/// a node. The packed record of a node lies in the tree record at the node's end, and beyond 944
/// bytes in blocks of the pool.
///
/// Thread-safe under `nodeLock`, the innermost lock of the store but for the ones inside the block
/// and pointer files. The bytes of a pinned node belong to the `FileNode` that holds it.
class NodeFile {
public:
    static constexpr std::uint32_t blockSize = NodeBlock::size;
    static constexpr std::uint32_t reservedBits = 24;
    /// A record beyond this is damage.
    static constexpr std::uint32_t maximumRecord = 16u << 20;

    /// Records beyond the node go to the pool's blocks. The pool must outlive the object.
    NodeFile(std::uint32_t cacheBlocks, Streams& pool);
    ~NodeFile();
    NodeFile(NodeFile const&) = delete;
    NodeFile& operator=(NodeFile const&) = delete;

    /// Makes the file and pins its first block, all zero, as the control block.
    [[nodiscard]] bool create(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode);
    /// Opens the file and pins its first block.
    [[nodiscard]] bool open(QString const& path, std::uint64_t growSize, Morva::RawFile::Mode);
    /// Gives the control block back and closes. All other pins have ended by then.
    bool close();
    /// Writes what has changed; with `sync` it is on the disk itself afterwards.
    [[nodiscard]] bool flush(bool sync = true);
    [[nodiscard]] bool isOpen() const { return control_ != nullptr; }

    // The control block, 1024 bytes, pinned for as long as the file is open.

    /// Reads under the lock: `read(void const* block)`, whose result is returned. Only while open.
    template <class Read> auto readControl(Read&& read) const {
        Morva::TracedLock guard(lock_);
        return read(static_cast<void const*>(control_));
    }
    /// Changes the block under the lock, `change(void* block)`, and writes it through to the file.
    /// False when that failed; the change stands in memory then. Only while open.
    template <class Change> [[nodiscard]] bool changeControl(Change&& change) {
        Morva::TracedLock guard(lock_);
        change(control_);
        return writeControl();
    }

    // Nodes.

    /// A new node: its number, the instance and the next link set, all else zero. Empty when no
    /// block can be had.
    [[nodiscard]] NodePin newNode(Instance instance);
    /// As `newNode`, with the given type word, claims of one link and one reference, times, and the
    /// packed record, all in one go. Empty, and nothing left behind, on failure.
    [[nodiscard]] NodePin newNode(Instance instance, std::uint32_t typeWord, NodeTimes const& times,
                                  Morva::Extent const& record);
    /// A node and its packed record. Empty for a block that is no node. With `allowStale` the
    /// comparison ignores the reserved high bits of the stored number. A damaged record is
    /// given as empty, and the node with a record that the disk refuses isn't given.
    [[nodiscard]] NodePin getNode(NodeNumber number, std::vector<std::uint8_t>& record,
                                  bool allowStale = false) const;
    /// The pinned node has changed. False when the file didn't take it.
    bool update(NodePin const& node);
    /// Writes the packed record and the node. False, with the failure counted by the pool, when
    /// blocks of the pool could not be had or written.
    [[nodiscard]] bool writeRecord(NodePin const& node, Morva::Extent const& record);
    /// Makes `to`'s record a second holder of `from`'s content. False with nothing changed.
    [[nodiscard]] bool copyRecord(NodePin const& to, NodePin const& from);
    /// Gives the block back unchanged.
    void returnNode(NodePin&& node);
    /// Clears the record and frees the block.
    void freeNode(NodePin&& node);

    /// All zero when the file isn't open.
    [[nodiscard]] NodeFileFigures figures() const;
    /// Blocks in the file, free ones and the control block included, and how many are free.
    [[nodiscard]] std::uint64_t totalBlocks() const;
    [[nodiscard]] std::uint64_t freeBlocks() const;
    [[nodiscard]] std::uint64_t firstBlock() const;

private:
    friend class NodePin;
    class File;

    [[nodiscard]] bool writeControl() MORVA_REQUIRES(lock_);
    [[nodiscard]] void* allocate(Instance instance) MORVA_REQUIRES(lock_);
    [[nodiscard]] bool putRecord(void* block, Morva::Extent const& record) MORVA_REQUIRES(lock_);
    void giveBack(void* block);

    Streams& pool_;
    mutable Morva::TracedMutex lock_;
    std::unique_ptr<File> blocks_ MORVA_GUARDED_BY(lock_);
    void* control_ = nullptr;
};

} // namespace Replication
