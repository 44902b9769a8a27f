#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/FileNode.h"

#include <memory>
#include <unordered_map>

namespace Replication {

class Store;
struct NodeFileFigures;

enum class MustExist : bool { No, Yes };

/// The one `FileNode` of each node in memory: a table from node number to weak pointer.
///
/// Thread-safe, under `passiveLock`, which comes before the lock of `NodeFile`. The lock is not
/// held while a weak pointer is locked, since a FileNode dying on another thread needs it.
class PassiveHandles {
public:
    explicit PassiveHandles(Store& store);

    /// The FileNode of a node; null for 0, for a block that is no node, and for a node that
    /// nothing claims (with `MustExist::Yes` that is reported at level 0).
    [[nodiscard]] Morva::Result<FileNode::Pointer> get(NodeNumber number,
                                                       MustExist mustExist = MustExist::No);
    /// As `get` without retry, while saved state is taken up; also of a node that is kept for it
    /// and that nothing claims.
    [[nodiscard]] Morva::Result<FileNode::Pointer> restore(NodeNumber number);
    /// A node of a new file with one link and one reference, entered in the table.
    [[nodiscard]] Morva::Result<FileNode::Pointer> create(std::uint32_t type, bool liveOnly,
                                                          std::uint32_t sourceTime, NodeInfo info);
    /// A new version with the same contents. The caller holds the old node's lock.
    [[nodiscard]] Morva::Result<FileNode::Pointer> copyOf(FileNode const& node);
    /// From FileNode's destructor: takes the entry out, frees or returns the block.
    void release(FileNode& node, bool keep);
    [[nodiscard]] std::size_t size() const;
    /// As `size`; `files` gets the figures of "files" of the same moment.
    [[nodiscard]] std::size_t size(NodeFileFigures& files) const;
    /// Frees a node and drops its streams, whatever claims it; nothing for a block that is no
    /// node. For the erasing of a store, when nobody else uses it.
    [[nodiscard]] Morva::Status erase(NodeNumber number);
    /// Frees a node that nothing claims, no saved state keeps and nobody has in memory, if it is
    /// one.
    [[nodiscard]] Morva::Status freeUnclaimed(NodeNumber number);

private:
    /// Makes the object of a node and enters it; both under the lock.
    [[nodiscard]] FileNode::Pointer enter(NodePin pin, NodeInfo info) MORVA_REQUIRES(lock_);
    /// As a node stands in its block, and only an unclaimed one if so asked.
    [[nodiscard]] Morva::Result<FileNode::Pointer> enterStale(NodeNumber number, bool unclaimed);
    /// `kept`: also one that nothing claims.
    [[nodiscard]] Morva::Result<FileNode::Pointer> load(NodeNumber number, bool kept)
        MORVA_REQUIRES(lock_);

    Store& store_;
    mutable Morva::TracedMutex lock_;
    std::unordered_map<NodeNumber, std::weak_ptr<FileNode>> nodes_ MORVA_GUARDED_BY(lock_);
};

} // namespace Replication
