#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/SafePoint.h"
#include "replication/repository/store/SnapshotFile.h"
#include "replication/repository/store/SnapshotRequests.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

namespace Replication {

class Store;
struct DedupStatistics;

/// The snapshots of a store, oldest first; the last is the active one, which collects the
/// versions that end during the current instance.
///
/// The list is made from the names of the files; but for the active one, a file is opened when
/// something is asked of its snapshot. One that turns out to be damaged stays in the list, and
/// holds what it holds: neither it nor the one behind it is retired, which would have to add to its
/// file.
///
/// A wish for retirement or deduplication that is written in a snapshot's file, and a dedup list
/// that is there, are put into the pool's dedup queue when the store is opened, unless they are
/// there. What fails is noted with its reason (`waiting`) and tried again from there.
///
/// Thread-safe under `snapshotLock`; the active snapshot is changed by the live tree's writer
/// alone. On store 0 every operation does nothing and reports success.
class SnapshotList {
public:
    explicit SnapshotList(Store& store);

    /// A new store: the snapshot file of instance 1, of type Initial.
    [[nodiscard]] Morva::Status create(QString const& snapshotPath);
    /// Reads the names in the snapshot directory, and the active snapshot, without which there is
    /// no success. `upgraded`: the control block was of an old version. Files of instances above
    /// the store's are left alone, and their numbers are passed over.
    [[nodiscard]] Morva::Status load(QString const& snapshotPath, bool upgraded);
    void close();

    // Taking a snapshot closes the current instance and opens the next, under whose number the tree
    // as it is now can be read from then on. Nothing is flushed, so it takes the same short time
    // for a tree of any size. When it fails the instance is unchanged. By the writer of the live
    // tree. The time is the source's, in seconds since 1970; 0 for that of the store's clock.
    [[nodiscard]] Morva::Status snapshot(std::uint32_t sourceTime, bool needResync,
                                         std::uint32_t policy, std::uint32_t opId,
                                         std::uint32_t ruleSet, QString const& machine,
                                         QString const& label);
    [[nodiscard]] Morva::Status userSnapshot(std::uint32_t opId, std::uint32_t time,
                                             QString const& label);
    [[nodiscard]] Morva::Status resyncSnapshot(std::uint32_t time, QString const& label);
    /// The instance that is current afterwards.
    [[nodiscard]] Morva::Result<Instance> validateSnapshot();

    // Changing and deleting. These are for any thread.

    /// Makes the record that a policy wanted of a synchronization snapshot; nothing happens to any
    /// other. Fails when it can't be read or written.
    [[nodiscard]] Morva::Status updateSnapshot(Instance instance, std::uint32_t policy,
                                               std::uint32_t opId, std::uint32_t ruleSet,
                                               bool indexed, QString const& label);
    /// Asks the background work to retire a snapshot; the active one goes with the next snapshot.
    /// Success for one that isn't there. Success means that the wish is written and will be done;
    /// asking again is harmless, and puts a retirement that failed back into the queue.
    [[nodiscard]] Morva::Status deleteSnapshot(Instance instance);
    /// The same for all validation snapshots.
    [[nodiscard]] Morva::Status deleteValidateSnapshot();
    /// The user's wish to delete a snapshot, which the metadata store is told of once it is
    /// written. Fails, with a text for the user, for the active snapshot, the last indexed one and
    /// one that isn't there.
    [[nodiscard]] Morva::Status markSnapshot(QString& reason, Instance instance);
    /// Frees what only this snapshot held, hands on to the snapshot before it what that one holds
    /// too, and removes its file. Run by background work, on one thread. Stops early, with
    /// success, when the store is to go. After a failure, or an end of the process, it can be asked
    /// for again and goes on where the file says; a failure is noted for `waiting`. `safePoint` is
    /// called between steps.
    [[nodiscard]] Morva::Status retireSnapshot(Instance instance, SafePoint const& safePoint = {});
    [[nodiscard]] Morva::Status snapshotAnalyzed(Instance instance, std::uint64_t logicalSize,
                                                 std::uint64_t directories, std::uint64_t files);
    [[nodiscard]] bool isSnapshotAnalyzed(std::uint64_t& logicalSize, std::uint64_t& directories,
                                          std::uint64_t& files, Instance instance) const;
    /// True also when there is no such snapshot, and for a damaged one.
    [[nodiscard]] bool retireRequested(Instance instance) const;
    /// Deduplicates the streams made before the snapshot. `Stopped` when the pool is stopping or
    /// the store is to go; after that and after a failure, which is noted for `waiting`, the next
    /// call goes on from there. `checkForFreeze` and `buffer` as for `Streams::dedupStream`. Run by
    /// background work.
    [[nodiscard]] Morva::Status dedupSnapshot(std::function<void()> const& checkForFreeze,
                                              Instance instance, Morva::Extent& buffer);

    /// Enters (id, instance) in the active snapshot: that version has ended. An entry that the file
    /// doesn't take is kept, for nothing else would ever free the version, and goes with
    /// `writeEntries`. By the writer of the live tree.
    void addEntry(FileId id, Instance instance);
    /// Writes the entries kept, if any; fails when some are left. By the writer of the live tree,
    /// or while it stands still.
    [[nodiscard]] Morva::Status writeEntries();
    /// Brings the list of new streams to its file.
    [[nodiscard]] bool flushDedup();
    /// A new stream, to be deduplicated after the next snapshot.
    void addToDedup(StreamId id);

    [[nodiscard]] std::shared_ptr<SnapshotFile> find(Instance instance) const;
    [[nodiscard]] std::shared_ptr<SnapshotFile> active() const;
    /// A copy of the list, the active one last.
    [[nodiscard]] std::vector<std::shared_ptr<SnapshotFile>> all() const;
    /// Calls for each snapshot, the active one last, under the list's lock.
    void forEach(std::function<void(SnapshotFile const&)> const& visit) const;
    /// Retirements asked for and not done yet, and deduplications that failed, each with the
    /// reason of its last failure, empty while there was none.
    [[nodiscard]] SnapshotRequests::Reasons waiting() const;
    /// Names in the snapshot directory whose instances the store has not reached.
    [[nodiscard]] QStringList strangers() const;

private:
    struct Private;
    [[nodiscard]] Morva::Status upgrade(std::vector<std::shared_ptr<SnapshotFile>> const& list);

    std::unique_ptr<Private> p_;

public:
    ~SnapshotList();
};

} // namespace Replication
