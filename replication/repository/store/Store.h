#pragma once

#include "base/messages/XmlList.h"
#include "base/trace/TracedLock.h"
#include "base/values/Status.h"
#include "replication/common/values/FileHandle.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/ControlBlock.h"
#include "replication/repository/store/SafePoint.h"
#include "replication/repository/store/StoreTable.h"
#include "replication/repository/store/Unfinished.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Morva {
class PagedList;
}

namespace Replication {

class ActiveHandle;
class ActiveHandles;
class DirKey;
class Directories;
class Event;
class EventChannel;
class FileNode;
class NodeFile;
class NodePointer;
class PassiveHandles;
class PathOperations;
class RepositoryStream;
class RetireList;
class SavedState;
class SnapshotDirectories;
class SnapshotList;
class Streams;
struct DedupStatistics;

/// One versioned file tree: all that the repository keeps of one source under one policy, apart
/// from file contents, which live in the shared `Streams` pool.
///
/// The store is a face: its work is done by collaborators that own their data and their lock,
/// reached by the accessors below. It has one writer of its live tree (the thread of its sink);
/// readers, statistics and background work share only what locks itself.
///
/// Lock order, outermost first: store table; FileNode; SnapshotList or PassiveHandles; NodeFile;
/// the locks inside NodePointer and the block files.
class Store {
public:
    struct Configuration {
        std::uint32_t directoryCacheSize = 1024;     ///< pages, "DirectoryCacheSize"
        std::uint32_t fileNodeCacheSize = 1024;      ///< blocks, "FileNodeCacheSize"
        std::uint64_t fileNodeGrowSize = 0;          ///< bytes, "FileNodeGrowSize"
        bool fileNodeRandomAccess = false;           ///< "FileNodeRandomAccess"
        std::uint32_t filePointerCacheSize = 131072; ///< entries, "FilePointerCacheSize"
    };

    /// Keeps the pool and the channel (which may be null: no events) and reads the configuration
    /// list "StoreConfiguration"; absent keys keep their defaults. Called once, before any store.
    static void configure(Morva::XmlList const& configuration, std::shared_ptr<Streams> streams,
                          std::shared_ptr<EventChannel> channel);
    /// Whether there is a pool; without one no store can be made or opened.
    [[nodiscard]] static bool configured();
    /// See StoreTable.
    [[nodiscard]] static Morva::Result<StorePointer>
    create(StoreId id, StoreIdentity const& identity, bool caseSensitive) {
        return StoreTable::create(id, identity, caseSensitive);
    }
    [[nodiscard]] static Morva::Result<StorePointer> open(StoreId id, bool forDeletion) {
        return StoreTable::open(id, forDeletion);
    }
    [[nodiscard]] static Morva::Result<StorePointer> open(StoreId id,
                                                          StoreIdentity const& identity) {
        return StoreTable::open(id, identity);
    }
    [[nodiscard]] static Morva::Result<bool> exists(StoreId id) { return StoreTable::exists(id); }
    /// Traces the stores that are still open and drops the pool and the channel.
    static void closeAll();
    [[nodiscard]] static QList<StoreId> list() { return StoreTable::list(); }
    /// FixedPath::repositoryStores() + "/" + 16 hexadecimal digits.
    [[nodiscard]] static QString directoryOf(StoreId id);

    ~Store();
    Store(Store const&) = delete;
    Store& operator=(Store const&) = delete;

    // --- the collaborators
    [[nodiscard]] ControlBlock& control() const { return *control_; }
    [[nodiscard]] NodeFile& nodes() const { return *nodes_; }
    [[nodiscard]] NodePointer& pointers() const { return *pointers_; }
    [[nodiscard]] PassiveHandles& passiveHandles() const { return *passive_; }
    [[nodiscard]] ActiveHandles& activeHandles() const { return *active_; }
    [[nodiscard]] Directories& directories() const { return *directories_; }
    [[nodiscard]] SnapshotDirectories& snapshotDirectories() const { return *snapshotDirectories_; }
    [[nodiscard]] SnapshotList& snapshots() const { return *snapshots_; }
    [[nodiscard]] RetireList& retired() const { return *retired_; }
    [[nodiscard]] PathOperations& paths() const { return *paths_; }
    [[nodiscard]] SavedState& saved() const { return *saved_; }
    [[nodiscard]] Unfinished& unfinished() { return unfinished_; }
    [[nodiscard]] Streams& streams() const { return *streams_; }
    /// Null when no metadata store is told of changes.
    [[nodiscard]] Event* event() const { return event_.get(); }

    // --- identity and flags
    [[nodiscard]] StoreId id() const { return id_; }
    [[nodiscard]] ReplayId replayId() const;
    [[nodiscard]] bool valid() const { return valid_; }
    /// Why a store that isn't valid isn't, unless it is marked for deletion.
    [[nodiscard]] Morva::Status const& invalidity() const { return invalidity_; }
    /// The process that last had it open did not close it.
    [[nodiscard]] bool unclean() const { return unclean_; }
    [[nodiscard]] bool caseSensitive() const { return caseSensitive_; }
    [[nodiscard]] Qt::CaseSensitivity caseSensitivity() const {
        return caseSensitive_ ? Qt::CaseSensitive : Qt::CaseInsensitive;
    }
    [[nodiscard]] QString type() const;
    [[nodiscard]] std::uint32_t filterType() const;
    [[nodiscard]] QString const& name() const { return name_; }
    [[nodiscard]] QString const& sourceMachine() const { return sourceMachine_; }
    [[nodiscard]] bool active() const;
    /// A change to true has no effect once the metadata store has been told of the deletion.
    [[nodiscard]] Morva::Status active(bool value);
    [[nodiscard]] bool markedForDeletion() const { return control_->markedForDeletion(); }
    /// Marks the store as one to be erased. Refused for an active store.
    [[nodiscard]] Morva::Status markForDeletion();
    [[nodiscard]] FileId rootId() const { return rootId_; }
    [[nodiscard]] FileHandle const& rootHandle() const { return rootHandle_; }
    [[nodiscard]] QString const& path() const { return storePath_; }
    [[nodiscard]] QString const& snapshotPath() const { return snapshotPath_; }
    [[nodiscard]] Instance currentInstance() const {
        return Instance{currentInstance_.load(std::memory_order_acquire)};
    }

    /// The three settings and the exclusions of the rule set; no effect on store 0.
    void settings(bool indexSnapshots, bool dedupSnapshots, bool dedupVersions,
                  QStringList const& dedupExclude);
    /// The first is what tells the metadata store of single files.
    [[nodiscard]] bool indexSnapshots() const { return indexSnapshots_; }
    [[nodiscard]] bool dedupSnapshots() const { return dedupSnapshots_; }
    [[nodiscard]] bool dedupVersions() const { return dedupVersions_; }
    [[nodiscard]] QStringList const& dedupExclude() const { return dedupExclude_; }

    // --- file handles (see FileHandles.cpp)
    [[nodiscard]] Morva::Result<NodeNumber> fileNode(FileId id, Instance instance) const;
    // Null for what isn't there.
    [[nodiscard]] Morva::Result<std::shared_ptr<FileNode>> passiveHandle(FileId id,
                                                                         Instance instance) const;
    [[nodiscard]] Morva::Result<std::shared_ptr<FileNode>> passiveHandle(QStringList const& path,
                                                                         Instance instance) const;
    [[nodiscard]] Morva::Result<std::shared_ptr<FileNode>>
    passiveHandle(FileHandle const& handle) const;
    /// 0, or 22 or 18.
    [[nodiscard]] std::uint32_t mungeFh(FileHandle& handle, FileHandle const& mount) const;
    /// Only kind `Raw` can fail.
    [[nodiscard]] Morva::Result<FileHandle> fileHandle(FileId id, Instance instance,
                                                       FileHandle::Kind kind) const;
    /// Whether there is such a name.
    [[nodiscard]] Morva::Result<bool> lookup(FileHandle& result, FileHandle const& directory,
                                             QString const& name) const;
    [[nodiscard]] std::uint32_t lookupParent(FileHandle& result, FileHandle const& object) const;

    // --- versions (see Versions.cpp)

    /// Enters a new node in the id's chain; the old node's fate follows from who saw it: nobody,
    /// and it loses its reference, or a snapshot, and the active snapshot notes that it ended. A
    /// file without names isn't in the chain any more: its new node goes with its handle. When no
    /// entry could be had the new node is left without its reference.
    [[nodiscard]] Morva::Status updateFileId(std::uint32_t time, FileId id, FileNode& oldNode,
                                             FileNode& newNode);
    /// Drops one link of the file that `key` names (its name has been taken out of the directory
    /// already) and, with the last one, the file. With `retire` the version goes to the metadata
    /// store. Takes the name off the counters. What the disk refuses stays in `unfinished`.
    void removeFileId(DirKey const& key, bool retire);
    /// A claim on a version is over: with `version` that of a retained version, else a reference.
    /// Success for one that isn't there any more; fails, with the claim kept, when it can't be
    /// read.
    [[nodiscard]] Morva::Status releaseFileNode(NodeNumber node, bool version);
    /// Deduplicates the streams of one node. `Stopped` when the pool is stopping or the store is
    /// to go. `checkForFreeze` and `buffer` as for `Streams::dedupStream`.
    [[nodiscard]] Morva::Status dedupVersion(std::function<void()> const& checkForFreeze,
                                             NodeNumber node, Morva::Extent& buffer);
    /// Held while the last name of a file or one of its versions goes: both change the id's chain
    /// and then the version that is left. Outside of all other locks of the store.
    [[nodiscard]] Morva::TracedMutex& endings() { return endings_; }
    /// The same as `dedupVersion` for one stream; false when the pool is stopping or the store is
    /// to go.
    [[nodiscard]] bool dedupStream(std::function<void()> const& checkForFreeze, StreamId id,
                                   DedupStatistics& statistics, Morva::Extent& buffer);

    // --- state

    /// Ends what operations that the disk failed have left over. When it fails still, nothing may
    /// change the live tree. By the writer of the live tree.
    [[nodiscard]] Morva::Status settle();
    /// Writes all that changed to the files and the disk. What a sink has to find again is saved,
    /// so that it is of one state with the tree. Then the pool goes first, since nodes point
    /// to streams; then "files", the pointer file, whose entries point to nodes, and the tree,
    /// whose keys name ids. So what is on the disk never points to what isn't there. `OpenMark`
    /// stays set. The first failure of any of it; the rest has been tried all the same. The caller
    /// holds the operation gate alone.
    [[nodiscard]] Morva::Status flush();
    /// As `flush` without the pool, which the caller has flushed; then clears `OpenMark`, which
    /// stays set if anything failed. Until `markOpen` nothing may change the store.
    [[nodiscard]] Morva::Status flushForFreeze();
    [[nodiscard]] Morva::Status markOpen();
    /// Sends the versions that wait for it, flushes, clears `OpenMark` if that worked, and closes
    /// the files. Harmless when closed.
    Morva::Status close();
    /// As the last reference goes. Of a store that was marked for deletion, the metadata store is
    /// told now.
    void closed();
    /// The end of a store that is not valid any more and whose deletion has been told of: frees
    /// every node and drops its streams, then removes the files, "files" last, so that an end in
    /// between can be taken up again. Success, and nothing done, for any other store. Fails before
    /// all nodes were freed, and then it can be tried again, or with the directory still there.
    /// `safePoint` is called between steps. The caller holds the only pointer, and not the
    /// operation gate.
    [[nodiscard]] Morva::Status erase(SafePoint const& safePoint = {});
    /// Frees the versions that nothing claims: those of files that were deleted while they were
    /// open, when the process that had them open is gone. Reads every node. For a store that was
    /// just opened. Fails when not every node could be read. The caller doesn't hold the operation
    /// gate.
    [[nodiscard]] Morva::Status freeUnclaimed();

    // --- statistics, from any thread; what isn't open counts as 0 (see StoreStatistics.cpp)

    /// An HTML table with a row for each figure.
    void statistics(QString& html) const;
    /// The binary form: the figures of the store and one "SnapShotEntry" for each snapshot. With
    /// background work that waits "StoreWaitingWork", how much, and with some that failed
    /// "StoreFailedWork", the reasons.
    void statistics(Morva::XmlList& result) const;
    /// For the statistics of the process: adds a list "Snapshot" for each snapshot that is told
    /// of, with the figures of the store, "Instance", and again under "Snapshot" its own figures.
    /// `machine` and `store` name the store; for the two times see `SnapshotFile::statistics`.
    void statistics(Morva::XmlList& result, QString const& machine, QString const& store,
                    std::uint32_t from = 0, std::uint32_t to = 0) const;

private:
    friend class StoreTable;
    friend class StorePointer;
    friend class SnapshotList;

    explicit Store(StoreId id);
    [[nodiscard]] Morva::Status outcome(bool good, char const* operation) const;
    [[nodiscard]] Morva::Status createFiles(StoreIdentity const& identity, bool caseSensitive);
    [[nodiscard]] Morva::Status makeFiles(bool caseSensitive, StoreIdentity const& identity);
    void removeMade();
    void makeEvent(std::uint32_t opening);
    void takeRoot(FileId root);
    [[nodiscard]] Morva::Status createRoot();
    [[nodiscard]] Morva::Status createSnapshots();
    [[nodiscard]] Morva::Status openFiles();
    [[nodiscard]] Morva::Status openControl();
    [[nodiscard]] Morva::Status openTree();
    [[nodiscard]] Morva::Status saveState();
    [[nodiscard]] Morva::Status flushFiles();
    [[nodiscard]] Morva::Status forEachNode(Morva::Status (PassiveHandles::*work)(NodeNumber),
                                            SafePoint const& safePoint);
    struct Figures;
    void setWaiting(Morva::XmlList& result) const;
    [[nodiscard]] Figures figures() const;
    [[nodiscard]] Morva::Status dropLink(DirKey const& key, bool retire);
    [[nodiscard]] Morva::Status dropLastLink(DirKey const& key, ActiveHandle& handle, bool retire);

    std::atomic<bool> valid_{false};
    Morva::Status invalidity_;
    bool caseSensitive_ = true;
    std::atomic<std::uint32_t> currentInstance_{0};
    StoreId id_;
    QString storePath_, snapshotPath_, statePath_;
    QString name_, sourceMachine_;
    FileId rootId_;
    FileHandle rootHandle_;
    std::atomic<bool> indexSnapshots_{true}, dedupSnapshots_{true}, dedupVersions_{true};
    QStringList dedupExclude_;
    bool upgraded_ = false;
    bool unclean_ = false; // found with OpenMark set
    bool open_ = false;    // "files" is open
    std::atomic<int> referenceCount_{0};

    std::shared_ptr<Streams> streams_;
    std::unique_ptr<SavedState> saved_; // asked by the nodes as they go
    std::unique_ptr<Event> event_;
    std::unique_ptr<NodeFile> nodes_;
    std::unique_ptr<ControlBlock> control_;
    std::unique_ptr<NodePointer> pointers_;
    std::unique_ptr<PassiveHandles> passive_;
    std::unique_ptr<Directories> directories_;
    std::unique_ptr<SnapshotDirectories> snapshotDirectories_;
    std::unique_ptr<SnapshotList> snapshots_;
    std::unique_ptr<RetireList> retired_;
    std::unique_ptr<ActiveHandles> active_;
    std::unique_ptr<PathOperations> paths_;
    Unfinished unfinished_;
    Morva::TracedMutex endings_{{"Lock Endings", "Unlock Endings"}};
};

} // namespace Replication
