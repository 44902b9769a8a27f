#pragma once

#include "base/trace/TracedLock.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupFile.h"

#include <functional>
#include <memory>
#include <vector>

namespace Replication {

/// The state of a `SnapshotList`, shared by its source files alone.
struct SnapshotList::Private {
    explicit Private(Store& owner) : store(owner) {}

    [[nodiscard]] bool openDedup();
    /// Under the lock: a snapshot of the list; null when there is none.
    [[nodiscard]] std::shared_ptr<SnapshotFile> find(Instance instance) const MORVA_REQUIRES(lock);
    /// Under the lock: a snapshot of the list other than the last.
    [[nodiscard]] std::shared_ptr<SnapshotFile> findOlder(Instance instance) const
        MORVA_REQUIRES(lock);
    /// Under the lock: asks the background work to retire a snapshot.
    void queueDeletion(SnapshotFile& file) MORVA_REQUIRES(lock);
    /// Closes the current instance and opens the next. `describe` says on the new file what kind
    /// of snapshot it is. False, and the instance unchanged, when a file can't be made or written.
    [[nodiscard]] bool take(std::function<void(SnapshotFile&)> const& describe);
    /// Removes the file of a snapshot that could not be taken, now or later.
    void discard(Instance instance);
    void moveDedup(Instance instance);
    void endDedup(Instance instance, DedupFile& list, struct DedupStatistics const& statistics,
                  bool finished);
    [[nodiscard]] bool freeEntries(SnapshotFile& file, SnapshotFile* previous);
    void askAgain(SnapshotFile& file);
    /// Frees the version of an entry, if it has ended. False when the disk failed.
    [[nodiscard]] bool freeEntry(SnapshotEntry const& entry);

    Store& store;
    QString path;
    /// "Lock Snapshots": the list and the headers of its files.
    mutable Morva::TracedMutex lock{{"Lock Snapshots", "Unlock Snapshots"}};
    std::vector<std::shared_ptr<SnapshotFile>> snapshots MORVA_GUARDED_BY(lock);
    /// Changed by the writer of the live tree alone, under the lock; so that one reads it without.
    std::shared_ptr<SnapshotFile> active;
    /// Entries that the active file didn't take, in their order. The writer's, as `active`.
    std::vector<SnapshotEntry> unwritten;
    Morva::TracedMutex dedupLock{{"Lock Dedup List", "Unlock Dedup List"}};
    std::unique_ptr<DedupFile> dedup MORVA_GUARDED_BY(dedupLock);
};

} // namespace Replication
