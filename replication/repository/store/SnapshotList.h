#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/SnapshotFile.h"

#include <QString>

#include <functional>
#include <memory>
#include <vector>

namespace Replication {

class Store;
struct DedupStatistics;

/// The snapshots of a store, oldest first; the last is the active one, which collects the
/// versions that end during the current instance.
///
/// Thread-safe under `snapshotLock`; the active snapshot is changed by the live tree's writer
/// alone. On store 0 every operation does nothing and reports success.
class SnapshotList {
public:
    explicit SnapshotList(Store& store);

    /// A new store: the snapshot file of instance 1, of type Initial.
    [[nodiscard]] bool create(QString const& snapshotPath);
    /// Reads the snapshot directory; true when the active snapshot was found. `upgraded`: the
    /// control block was of an old version. After an `unclean` end, snapshot and dedup files of
    /// instances above the store's are removed: the snapshot was never finished.
    [[nodiscard]] bool load(QString const& snapshotPath, bool upgraded, bool unclean);
    void close();

    // Taking a snapshot closes the current instance and opens the next, under whose number the tree
    // as it is now can be read from then on. Nothing is flushed, so it takes the same short time
    // for a tree of any size. False, and the instance unchanged, when a file can't be written. By
    // the writer of the live tree.
    [[nodiscard]] bool snapshot(std::uint32_t sourceTime, bool needResync, std::uint32_t policy,
                                std::uint32_t opId, std::uint32_t ruleSet, QString const& machine,
                                QString const& label);
    [[nodiscard]] bool userSnapshot(std::uint32_t opId, std::uint32_t time, QString const& label);
    [[nodiscard]] bool resyncSnapshot(std::uint32_t time, QString const& label);
    /// The instance that is current afterwards.
    Instance validateSnapshot();

    // Changing and deleting. These are for any thread.

    /// Makes the record that a policy wanted of a synchronization snapshot; nothing happens to any
    /// other. Always true.
    bool updateSnapshot(Instance instance, std::uint32_t policy, std::uint32_t opId,
                        std::uint32_t ruleSet, bool indexed, QString const& label);
    /// Asks the background work to retire a snapshot; the active one goes with the next snapshot.
    /// Always true.
    bool deleteSnapshot(Instance instance);
    /// The same for all validation snapshots.
    void deleteValidateSnapshot();
    /// The user's wish to delete a snapshot, which the metadata store is told of. False, with a
    /// text for the user, for the active snapshot, the last indexed one and one that isn't there.
    [[nodiscard]] bool markSnapshot(QString& reason, Instance instance);
    /// Frees what only this snapshot held, hands on to the snapshot before it what that one holds
    /// too, and removes its file. Run by background work, on one thread. Stops early when the store
    /// is to go. Doing it again after a crash is harmless. False when it could not
    /// be done for now; it is asked for again at the next snapshot then.
    bool retireSnapshot(Instance instance);
    bool snapshotAnalyzed(Instance instance, std::uint64_t logicalSize, std::uint64_t directories,
                          std::uint64_t files);
    [[nodiscard]] bool isSnapshotAnalyzed(std::uint64_t& logicalSize, std::uint64_t& directories,
                                          std::uint64_t& files, Instance instance) const;
    /// True also when there is no such snapshot.
    [[nodiscard]] bool retireRequested(Instance instance) const;
    /// Deduplicates the streams made before the snapshot; false when stopped before the end, and
    /// the next call goes on from there. `checkForFreeze` and `buffer` as for
    /// `Streams::dedupStream`. Run by background work.
    bool dedupSnapshot(std::function<void()> const& checkForFreeze, Instance instance,
                       Morva::Extent& buffer);

    /// Enters (id, instance) in the active snapshot: that version has ended. An entry that the file
    /// doesn't take is kept, for nothing else would ever free the version, and goes with
    /// `writeEntries`. By the writer of the live tree.
    void addEntry(FileId id, Instance instance);
    /// Writes the entries kept, if any; false when some are left. By the writer of the live tree,
    /// or while it stands still.
    [[nodiscard]] bool writeEntries();
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

private:
    struct Private;
    std::unique_ptr<Private> p_;

public:
    ~SnapshotList();
};

} // namespace Replication
