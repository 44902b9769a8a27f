#pragma once

#include "replication/repository/store/ActiveHandle.h"

#include <QHash>

namespace Replication {

class Store;

/// What becomes of a directory entry's live-only mark when its file is opened or made.
enum class LiveMode : std::uint32_t { Clear = 1, LiveOnly = 2 };

/// The open handles of a store's live tree: file id to weak pointer. For the one writer thread.
class ActiveHandles {
public:
    explicit ActiveHandles(Store& store);

    /// The handle of a file; null for id 0 and for an id that no longer resolves.
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> get(FileId id);
    /// The same where the file must be there: Corruption when the id doesn't resolve.
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> open(FileId id);
    /// The handle of a directory entry; its link is noted in the handle, and the entry's
    /// live-only mark follows `mode`. Never null.
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> get(DirKey& key, LiveMode mode);
    /// Makes a file: node, id, directory entry, event. `key` has the parent, the name and the
    /// type, and gets the new id and its position. Never null.
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> create(DirKey& key, QStringList const& path,
                                                              LiveMode mode,
                                                              std::uint32_t sourceTime,
                                                              NodeInfo info);
    /// For saved state: the handle of an existing id with the given node; null when the id is 0
    /// or the node is none.
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> restore(FileId id, NodeNumber node);
    void release(FileId id);

    /// Reads a saved handle into the pending records; state versions 1 to 3.
    [[nodiscard]] bool loadHandle(std::uint32_t stateVersion, Morva::UnpackBuffer& record);
    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(handles_.size()); }
    /// All living handles, for saving.
    [[nodiscard]] std::vector<ActiveHandle::Pointer> all() const;

private:
    [[nodiscard]] ActiveHandle::Pointer enter(FileId id, FileNode::Pointer node);
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer> createRoot(DirKey const& key,
                                                                  FileNode::Pointer node);
    [[nodiscard]] Morva::Status enterInDirectory(DirKey& key, ActiveHandle& handle,
                                                 QStringList const& path, bool liveOnly);

    Store& store_;
    QHash<FileId, std::weak_ptr<ActiveHandle>> handles_;
    QHash<FileId, Version> pending_;
};

} // namespace Replication
