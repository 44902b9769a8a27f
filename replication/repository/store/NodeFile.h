#pragma once

#include "base/files/RawFile.h"
#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"
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
    [[nodiscard]] Morva::Status create(QString const& path, std::uint64_t growSize,
                                       Morva::RawFile::Mode mode);
    /// Opens the file and pins its first block.
    [[nodiscard]] Morva::Status open(QString const& path, std::uint64_t growSize,
                                     Morva::RawFile::Mode mode);
    /// Gives the control block back and closes. All other pins have ended by then.
    Morva::Status close();
    /// Writes what has changed; with `sync` it is on the disk itself afterwards.
    [[nodiscard]] Morva::Status flush(bool sync = true);
    [[nodiscard]] bool isOpen() const { return control_ != nullptr; }

    // The control block, 1024 bytes, pinned for as long as the file is open.

    /// Reads under the lock: `read(void const* block)`, whose result is returned. Only while open.
    template <class Read> auto readControl(Read&& read) const {
        Morva::TracedLock guard(lock_);
        return read(static_cast<void const*>(control_));
    }
    /// Changes the block under the lock, `change(void* block)`, and writes it through to the file.
    /// When that failed the change stands in memory. Only while open.
    template <class Change> [[nodiscard]] Morva::Status changeControl(Change&& change) {
        Morva::TracedLock guard(lock_);
        change(control_);
        return writeControl();
    }

    // Nodes.

    /// A new node: its number, the instance and the next link set, all else zero.
    [[nodiscard]] Morva::Result<NodePin> newNode(Instance instance);
    /// As `newNode`, with the given type word, claims of one link and one reference, times, and the
    /// packed record, all in one go. Nothing is left behind on failure.
    [[nodiscard]] Morva::Result<NodePin> newNode(Instance instance, std::uint32_t typeWord,
                                                 NodeTimes const& times,
                                                 Morva::Extent const& record);
    /// A node and its packed record; an empty pin for a block that is no node, and for a number
    /// that the file doesn't have. With `allowStale` the comparison ignores the reserved high bits
    /// of the stored number. A record that is too long is given as empty. Fails when the block or
    /// the record can't be read.
    [[nodiscard]] Morva::Result<NodePin>
    getNode(NodeNumber number, std::vector<std::uint8_t>& record, bool allowStale = false) const;
    /// The pinned node has changed, and goes to the file with the next flush.
    void update(NodePin const& node);
    /// Writes the packed record and the node. On failure the record is what it was.
    [[nodiscard]] Morva::Status writeRecord(NodePin const& node, Morva::Extent const& record);
    /// Makes `to`'s record a second holder of `from`'s content, or changes nothing.
    [[nodiscard]] Morva::Status copyRecord(NodePin const& to, NodePin const& from);
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

    [[nodiscard]] Morva::Status writeControl() MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Result<void*> allocate(Instance instance) MORVA_REQUIRES(lock_);
    [[nodiscard]] Morva::Status putRecord(void* block, Morva::Extent const& record)
        MORVA_REQUIRES(lock_);
    /// A failure at a block of the file.
    [[nodiscard]] Morva::Status failed(char const* operation, std::uint64_t block) const
        MORVA_REQUIRES(lock_);
    void giveBack(void* block);

    Streams& pool_;
    mutable Morva::TracedMutex lock_;
    std::unique_ptr<File> blocks_ MORVA_GUARDED_BY(lock_);
    void* control_ = nullptr;
    QString path_;
};

} // namespace Replication
