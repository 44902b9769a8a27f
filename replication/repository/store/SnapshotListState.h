#pragma once

#include "base/trace/TracedLock.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/store/SnapshotList.h"
#include "replication/repository/store/Store.h"
#include "replication/repository/streams/DedupFile.h"
#include "replication/repository/streams/DedupRequest.h"

#include <functional>
#include <memory>
#include <set>
#include <vector>

namespace Replication {

/// The state of a `SnapshotList`, shared by its source files alone.
struct SnapshotList::Private {
    explicit Private(Store& owner) : store(owner) {}

    [[nodiscard]] Morva::Status openDedup();
    /// Under the lock: a snapshot of the list; null when there is none.
    [[nodiscard]] std::shared_ptr<SnapshotFile> find(Instance instance) const MORVA_REQUIRES(lock);
    /// Under the lock: a snapshot of the list other than the last.
    [[nodiscard]] std::shared_ptr<SnapshotFile> findOlder(Instance instance) const
        MORVA_REQUIRES(lock);
    /// The requests of the file, or, where that is of no use, those that the headers tell of.
    [[nodiscard]] Morva::Status loadRequests() MORVA_REQUIRES(lock);
    /// Under the lock: puts what is to be done, and isn't in the pool's queue, back into it.
    void queueAgain(std::vector<Instance> const& dedupFiles) MORVA_REQUIRES(lock);
    /// Under the lock: notes that a snapshot is to be retired.
    [[nodiscard]] Morva::Status requestRetirement(SnapshotFile& file) MORVA_REQUIRES(lock);
    /// What waits in the pool's queue for this store.
    [[nodiscard]] Morva::Result<std::set<DedupRequest>> queuedRequests() const;
    /// The same, and asks the background work for it.
    [[nodiscard]] Morva::Status queueDeletion(SnapshotFile& file) MORVA_REQUIRES(lock);
    /// Closes the current instance and opens the next. `describe` says on the new file what kind
    /// of snapshot it is. On failure the instance is unchanged.
    [[nodiscard]] Morva::Status take(std::uint32_t sourceTime,
                                     std::function<void(SnapshotFile&)> const& describe);
    void queueWishes() MORVA_REQUIRES(lock);
    [[nodiscard]] Morva::Status advance(Instance old, SnapshotFile const& file);
    /// Removes the file of a snapshot that could not be taken, now or later.
    void discard(SnapshotFile& file);
    void moveDedup(Instance instance);
    [[nodiscard]] Morva::Status dedup(std::function<void()> const& checkForFreeze,
                                      Instance instance, Morva::Extent& buffer);
    [[nodiscard]] Morva::Status beginDedup(Instance instance, DedupFile& list);
    [[nodiscard]] Morva::Status endDedup(Instance instance, DedupFile& list,
                                         struct DedupStatistics const& statistics, bool finished);
    struct Neighbours {
        std::shared_ptr<SnapshotFile> file, previous, next;
    };
    /// A snapshot to be retired, and those beside it; no `file` when there is none.
    [[nodiscard]] Neighbours neighbours(Instance instance);
    [[nodiscard]] Morva::Status retire(Neighbours const& near, SafePoint const& safePoint);
    /// Fails where a file that the entries would go to is missing or damaged.
    [[nodiscard]] Morva::Status checkNeighbours(Neighbours const& near);
    [[nodiscard]] Morva::Status freeEntries(SnapshotFile& file, SnapshotFile* previous,
                                            SafePoint const& safePoint);
    [[nodiscard]] Morva::Result<bool> freeSlice(SnapshotFile& file, SnapshotFile* previous);
    /// Writes in the file how far its retirement has come.
    [[nodiscard]] Morva::Status noteProgress(SnapshotFile& file, std::uint64_t done,
                                             SnapshotFile* previous);
    [[nodiscard]] Morva::Status queueValidations() MORVA_REQUIRES(lock);
    [[nodiscard]] bool laterIndexed(Instance instance) const MORVA_REQUIRES(lock);
    /// Tells the snapshot behind one that is about to go which one is before it from then on.
    [[nodiscard]] Morva::Status relink(Neighbours const& near);
    void askAgain(SnapshotFile& file, Morva::Status const& reason);
    /// Frees the version of an entry, if it has ended.
    [[nodiscard]] Morva::Status freeEntry(SnapshotEntry const& entry);

    Store& store;
    QString path;
    /// "Lock Snapshots": the list and the headers of its files.
    mutable Morva::TracedMutex lock{{"Lock Snapshots", "Unlock Snapshots"}};
    std::vector<std::shared_ptr<SnapshotFile>> snapshots MORVA_GUARDED_BY(lock);
    /// Changed by the writer of the live tree alone, under the lock; so that one reads it without.
    std::shared_ptr<SnapshotFile> active;
    /// Entries that the active file didn't take, in their order. The writer's, as `active`.
    std::vector<SnapshotEntry> unwritten;
    SnapshotRequests requests MORVA_GUARDED_BY(lock);
    QStringList strangers MORVA_GUARDED_BY(lock);
    Instance highestStranger MORVA_GUARDED_BY(lock);
    Morva::TracedMutex dedupLock{{"Lock Dedup List", "Unlock Dedup List"}};
    std::unique_ptr<DedupFile> newStreams MORVA_GUARDED_BY(dedupLock);
};

} // namespace Replication
