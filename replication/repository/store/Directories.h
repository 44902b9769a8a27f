#pragma once

#include "base/trace/TracedLock.h"
#include "base/trees/BPlusTree.h"
#include "base/values/Status.h"
#include "replication/common/rules/NotToBackup.h"
#include "replication/repository/store/ActiveHandle.h"
#include "replication/repository/store/DirKey.h"
#include "replication/repository/store/OpenDirectories.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace Morva {
class PagedList;
}

namespace Replication {

class Store;

enum class PathMode : std::uint32_t { DoNotBuildPath = 0, BuildPath = 1 };

/// The directories of a store's live tree: the page streams and the tree that indexes them, kept
/// in step. Every change goes to the page first, then to the tree, so that an entry without a key
/// is the damage that a crash in between leaves; `validDirectory` finds it. A failure in the page
/// half leaves page and tree as they were; what a removal has left to do behind it, and what undoes
/// half an insertion, is done later if the disk refuses it, and nothing is committed before that
/// (see `Unfinished`).
///
/// The counts of files and directories in the control block: `insert` counts a name,
/// `Store::removeFileId`, which ends every removal of a name, takes one off, and a rename nets to
/// nothing. liveOnly names aren't counted.
///
/// For the one writer thread of the live tree; the tree itself stands behind a leaf lock, so that
/// statistics may read its figures from any thread. Reading directories of snapshots is in
/// `SnapshotDirectories`. Failures are traced at their site. NotFound: a name that the operation
/// expects isn't there; InvalidArgument: what was asked for doesn't fit the tree as it is.
class Directories {
public:
    Directories(Store& store, std::uint32_t cachePages);
    ~Directories();
    Directories(Directories const&) = delete;
    Directories& operator=(Directories const&) = delete;

    /// Makes or opens the tree; the path is the file's, with its suffix.
    [[nodiscard]] Morva::Status create(QString const& path);
    [[nodiscard]] Morva::Status open(QString const& path);
    [[nodiscard]] Morva::Status flush();
    /// Forgets, then closes the tree. The store's other parts must still be there.
    Morva::Status close();

    /// A key for a name in a directory, the name in the store's normal form.
    [[nodiscard]] DirKey key(FileId directory, QString const& name, std::uint32_t type = 0) const;
    /// The name in the store's normal form: lower case unless the store is case-sensitive.
    [[nodiscard]] QString normal(QString const& name) const;
    /// Fills the key from the tree; false, with the key unchanged, when there is no such name.
    [[nodiscard]] Morva::Result<bool> find(DirKey& key);
    struct Located {
        bool found = false;       ///< `key` names the object
        bool parentFound = false; ///< `parent` names the directory that would hold it
        DirKey key;
        DirKey parent;
    };
    /// Walks a path; an empty one is the root. With `BuildPath` missing directories on the way
    /// (never the last element) are made.
    [[nodiscard]] Morva::Result<Located> locate(QStringList const& path, PathMode mode);

    /// Makes an entry and its key, the name in the spelling given. `key` has directory, name, file
    /// id, link and type, and gets its position and the liveOnly bit by `opType`. Corruption: a
    /// damaged page before the first that has room.
    [[nodiscard]] Morva::Status insert(NotToBackup::OpType opType, ActiveHandle& directory,
                                       DirKey& key, QString const& name);
    /// Takes the entry and the key of a name away that `find` has filled in. Without `force` a
    /// directory must be empty. The object and the counts are left to the caller: `removeLink` is
    /// the whole removal.
    [[nodiscard]] Morva::Status remove(DirKey& key, bool force);
    /// Writes the key's liveOnly bit and type to its entry and the tree, and counts the change.
    [[nodiscard]] Morva::Status liveOnly(DirKey& key);
    /// Whether the directory that the key names holds no names; false for a file.
    [[nodiscard]] Morva::Result<bool> emptyDirectory(DirKey const& key);
    /// Removes all that is in a directory, at any depth, with constant stack. What can't be
    /// removed, since the tree doesn't match, stays, and the operation has failed.
    [[nodiscard]] Morva::Status discardDirectory(ActiveHandle& directory);
    /// `remove` without force, then drops the link from the file.
    [[nodiscard]] Morva::Status removeLink(DirKey& key);
    /// Deletes what `key` names, whole or, with another stream than "Data", that stream alone. The
    /// caller has seen to it that the handle is the last on the object. Success when the name is
    /// gone already.
    [[nodiscard]] Morva::Status unlink(DirKey& key, ActiveHandle& handle, QString const& stream);
    /// A further name for the file of `from`; directories on the way are made.
    [[nodiscard]] Morva::Status link(NotToBackup::OpType opType, DirKey& from,
                                     QStringList const& path);
    /// Moves a name. What has the new name is removed first, unless it is a directory with names.
    /// A directory can't be moved into itself or below itself. A name that is the same but for its
    /// case is spelled anew; onto itself nothing changes. `to` is the key of the moved name then.
    [[nodiscard]] Morva::Status rename(NotToBackup::OpType opType, ActiveHandle& handle,
                                       DirKey& from, DirKey& to, QString const& toName);
    /// Moves a name to a path that must be free; directories on the way are made. Then applies the
    /// rules to what was moved; a failure of that alone is left to the next pass. `to` gets the key
    /// of the moved name.
    [[nodiscard]] Morva::Status rename(NotToBackup::OpType opType, NotToBackup const& rules,
                                       ActiveHandle& handle, DirKey& from, QStringList const& path,
                                       DirKey& to);
    /// Applies exclusion rules to all that is stored below a directory: removes what is excluded
    /// and sets or clears liveOnly. `path` is the directory's, and is the same on return. Goes on
    /// with other directories after a failure, and gives the first; what was begun is left to
    /// `Unfinished`, and the rest to the next pass.
    [[nodiscard]] Morva::Status checkOperations(NotToBackup const& rules, ActiveHandle& directory,
                                                QStringList& path);
    /// Writes the parent entry; makes the data stream and the first page if they are missing.
    [[nodiscard]] Morva::Status setParent(ActiveHandle& directory, FileId parent);

    // Scans of the live tree, by its pages.
    /// Fills the key from the directory's pages, not from the tree; false when they don't have it.
    [[nodiscard]] Morva::Result<bool> findName(DirKey& key);
    /// See `SnapshotDirectories::dirscan`.
    [[nodiscard]] Morva::Status dirscan(std::uint32_t& count, Morva::PagedList& list,
                                        FileNode& node, FileId directory);
    /// Checks each entry of a directory against the tree: Corruption when they don't match.
    [[nodiscard]] Morva::Status validDirectory(FileNode& node, FileId directory);

    [[nodiscard]] std::uint64_t cacheHits() const;
    [[nodiscard]] std::uint64_t cacheMisses() const;
    [[nodiscard]] std::uint32_t cacheSize() const;
    [[nodiscard]] std::uint64_t keyCount() const;
    /// Directory pages read by changes since the start.
    [[nodiscard]] std::uint64_t pagesRead() const { return open_.pagesRead(); }
    /// Calls back for each key in the order of the hashes, for checks; Corruption when a damaged
    /// page was met. The tree must not be changed meanwhile.
    [[nodiscard]] Morva::Status
    forEachKey(std::function<bool(Morva::Extent const& stored)> const& callback) const;
    /// Checks the tree's file; see `BPlusTree::verify`.
    bool verify(QStringList& faults) const;
    /// Forgets open directories and their indexes, and gives up their handles: to be called before
    /// a snapshot, a save of state or a close.
    void forget() { open_.clear(); }
    /// The same for one directory, whose id is about to go.
    void forget(FileId directory) { open_.drop(directory); }

private:
    struct DiscardFrame;
    struct CheckFrame;
    enum class Step { Done, Descend };
    /// One pass over a page by `checkOperations`.
    struct Check {
        NotToBackup const& rules;
        CheckFrame& frame;
        QStringList& path;
        bool dirty = false;
        bool descend = false;
    };

    /// Writes the page that was asked for last. On failure the page is put back to what it was, now
    /// or later.
    [[nodiscard]] Morva::Status writePage(OpenDirectory& open);
    /// The same where what the page tells has come about: it is written now or later.
    void finishPage(OpenDirectory& open);
    void finishImage(FileId directory, std::uint64_t page, OpenDirectory::Image const& image);
    /// Takes a name's entry off its page; what is done already is no failure.
    [[nodiscard]] Morva::Status takeEntryBack(DirKey const& key);
    void finishParent(FileId directory, FileId parent);
    void finishInsert(NotToBackup::OpType opType, DirKey const& key, QString const& name);
    /// Makes a change of the tree now or later. Corruption when the tree has no such key.
    [[nodiscard]] Morva::Status finishKey(Morva::Status (Directories::*change)(DirKey const&),
                                          DirKey const& key);
    [[nodiscard]] Morva::Status treeInsert(DirKey& key);
    // NotFound when the tree has no such key.
    [[nodiscard]] Morva::Status treeRemove(DirKey const& key);
    [[nodiscard]] Morva::Status treeUpdate(DirKey const& key);
    void count(DirKey const& key, bool added);

    [[nodiscard]] Morva::Result<DirKey> buildElement(DirKey const& parent, QStringList const& path);
    [[nodiscard]] Morva::Result<std::uint8_t*>
    findSpace(OpenDirectory& directory, std::uint32_t needed, std::uint64_t& position);
    /// The entry of a key, in the directory's page; Corruption when page and key don't match.
    [[nodiscard]] Morva::Result<std::uint8_t*> entryOf(OpenDirectory& directory, DirKey const& key);
    [[nodiscard]] bool sameEntryName(QStringView entry, QString const& wanted) const;
    [[nodiscard]] bool matches(DirKey const& key, DirectoryEntry const& entry,
                               std::uint64_t position) const;
    /// What a change says that doesn't fit the tree, and what one says that finds it damaged.
    [[nodiscard]] static Morva::Status misfit(char const* operation, QString const& name,
                                              char const* reason);
    [[nodiscard]] static Morva::Status damaged(char const* operation, QString const& name,
                                               char const* reason);

    [[nodiscard]] Morva::Result<Step> discardPages(DiscardFrame& frame);
    [[nodiscard]] Morva::Result<bool> discardEntry(DiscardFrame& frame, DirectoryEntry const& entry,
                                                   std::uint32_t offset, bool& descend);
    void dropObject(DirKey const& key);

    [[nodiscard]] Morva::Status moveName(NotToBackup::OpType opType, ActiveHandle& handle,
                                         DirKey& from, DirKey& to, QString const& toName);
    [[nodiscard]] Morva::Result<bool> isBelow(FileId directory, FileId ancestor);
    /// A name as its entry has it.
    [[nodiscard]] Morva::Result<QString> spelling(DirKey const& key);
    /// Tell the search index, if it has, or had, an entry for the object: those with a second name
    /// have none.
    void tellRenamed(ActiveHandle const& handle, bool wasLiveOnly, DirKey const& to,
                     QString const& toName);
    void tellLiveOnly(ActiveHandle const& handle, DirKey const& key, QString const& name);

    [[nodiscard]] Morva::Result<Step> checkPages(NotToBackup const& rules, CheckFrame& frame,
                                                 QStringList& path);
    [[nodiscard]] Morva::Result<bool> checkEntry(Check& check, OpenDirectory& open,
                                                 DirectoryEntry& entry);
    [[nodiscard]] Morva::Result<bool> checkRemove(DirKey& key);
    [[nodiscard]] Morva::Status checkLiveOnly(DirKey& key, QString const& name, bool value);

    Store& store_;
    mutable Morva::TracedMutex lock_{{"Lock Directory", "Unlock Directory"}};
    Morva::BPlusTree tree_ MORVA_GUARDED_BY(lock_);
    OpenDirectories open_;
    /// The thread that is in a changing operation, to notice a second one.
    std::atomic<std::thread::id> writer_{};
};

} // namespace Replication
