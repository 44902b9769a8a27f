#pragma once

#include "replication/common/values/FileHandle.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/StoreTable.h"

#include <cstdint>
#include <optional>
#include <unordered_set>
#include <vector>

namespace Morva {
struct Extent;
}

namespace Replication {

class DirectoryEntry;

/// Walks a snapshot and counts what is in it, since a store doesn't keep how large a snapshot is.
/// The result goes into the snapshot's record, and is taken from there the next time.
///
/// The walk is done in steps of one directory, so that whoever drives it can do other things in
/// between. It only reads, apart from the record at the end, and may run beside the store's writer
/// and a retirement of the snapshot, which ends it. Belongs to one thread, which must not hold the
/// operation gate. The store stays open until the end of the walk.
class SnapshotAnalysis {
public:
    enum class State {
        Walking,
        Done,
        /// There is no such snapshot (any more), or a part of it can't be read.
        Failed
    };

    /// The handle that a request names a snapshot by, 32 bytes; nothing, with a trace, when it is
    /// none of a snapshot.
    [[nodiscard]] static std::optional<FileHandle> requested(Morva::Extent const& id);

    /// Opens the store. `Done` at once when the snapshot was analysed before, `Failed` when the
    /// store or the snapshot isn't there.
    explicit SnapshotAnalysis(FileHandle const& snapshot);
    ~SnapshotAnalysis();
    SnapshotAnalysis(SnapshotAnalysis const&) = delete;
    SnapshotAnalysis& operator=(SnapshotAnalysis const&) = delete;

    /// Counts one directory more. The state afterwards; nothing happens unless it is `Walking`.
    State step();
    [[nodiscard]] State state() const { return state_; }
    [[nodiscard]] FileHandle const& snapshot() const { return snapshot_; }
    /// Whether the figures come from an earlier analysis.
    [[nodiscard]] bool known() const { return known_; }

    // The figures: so far, and whole when `Done`. Names that were live-only don't count.

    /// Bytes of the files' contents, holes counted.
    [[nodiscard]] std::uint64_t logicalSize() const { return logicalSize_; }
    /// Without the root.
    [[nodiscard]] std::uint64_t directoryCount() const { return directoryCount_; }
    /// Files with several names count once.
    [[nodiscard]] std::uint64_t fileCount() const { return fileCount_; }

private:
    void begin();
    [[nodiscard]] bool countDirectory(FileId directory);
    [[nodiscard]] bool count(DirectoryEntry const& entry);
    [[nodiscard]] bool record();
    void end(State state);

    FileHandle snapshot_;
    StorePointer store_;
    State state_ = State::Walking;
    bool known_ = false;
    std::uint64_t logicalSize_ = 0;
    std::uint64_t directoryCount_ = 0;
    std::uint64_t fileCount_ = 0;
    std::vector<FileId> directories_; ///< to be walked; the last is next
    /// Files that had several names, and directories: those that must not be counted again.
    std::unordered_set<FileId> counted_;
};

} // namespace Replication
