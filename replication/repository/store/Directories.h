#pragma once

#include "base/trees/BPlusTree.h"
#include "base/trace/TracedLock.h"
#include "replication/common/rules/NotToBackup.h"
#include "replication/repository/store/ActiveHandle.h"
#include "replication/repository/store/DirKey.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace Morva {
class PagedList;
}

namespace Replication {

class Store;

enum class PathMode : std::uint32_t { DoNotBuildPath = 0, BuildPath = 1 };

/// The directories of a store's live tree: the page streams and the tree that indexes them, kept
/// in step. Every change goes to the page first, then to the tree.
///
/// For the one writer thread of the live tree; the tree itself stands behind a leaf lock, so that
/// statistics may read its figures from any thread. Reading directories of snapshots is in
/// `SnapshotDirectories`.
class Directories {
public:
    Directories(Store& store, std::uint32_t cachePages);
    ~Directories();

    [[nodiscard]] bool create(QString const& path);
    [[nodiscard]] bool open(QString const& path);
    [[nodiscard]] bool flush();
    bool close();

    /// A key for a name in a directory, the name in the store's normal form.
    [[nodiscard]] DirKey key(FileId directory, QString const& name, std::uint32_t type = 0) const;
    /// The name in the store's normal form.
    [[nodiscard]] QString normal(QString const& name) const;
    [[nodiscard]] bool find(DirKey& key);
    /// Walks a path in the live tree. `result` is the object's key, or has file id 0; `parent`,
    /// if not null, receives the key of the last directory that was reached.
    struct Located {
        bool found = false;      ///< `key` names the object
        bool parentFound = false; ///< `parent` names the directory that would hold it
        DirKey key;
        DirKey parent;
    };
    [[nodiscard]] Located locate(QStringList const& path, PathMode mode);

    [[nodiscard]] bool insert(NotToBackup::OpType opType, ActiveHandle& directory, DirKey& key,
                              QString const& name);
    [[nodiscard]] bool remove(DirKey& key, bool force);
    [[nodiscard]] bool liveOnly(DirKey& key);
    [[nodiscard]] bool emptyDirectory(DirKey const& key);
    [[nodiscard]] bool discardDirectory(ActiveHandle& directory);
    [[nodiscard]] bool removeLink(DirKey& key);
    /// Deletes the object of a located key (the handle form checks open counts).
    [[nodiscard]] bool unlink(DirKey& key, ActiveHandle& handle, QString const& stream);
    [[nodiscard]] bool link(NotToBackup::OpType opType, DirKey& from, QStringList const& path);
    [[nodiscard]] bool rename(NotToBackup::OpType opType, ActiveHandle& handle, DirKey& from,
                              DirKey& to, QString const& toName);
    [[nodiscard]] bool rename(NotToBackup::OpType opType, NotToBackup const& rules,
                              ActiveHandle& handle, DirKey& from, QStringList const& path);
    void checkOperations(NotToBackup const& rules, ActiveHandle& directory, QStringList& path);
    [[nodiscard]] bool setParent(ActiveHandle& directory, FileId parent);

    // Scans of the live tree.
    [[nodiscard]] bool findName(DirKey& key);
    [[nodiscard]] bool dirscan(std::uint32_t& count, Morva::PagedList& list, FileNode& node,
                               FileId directory);
    [[nodiscard]] bool validDirectory(FileNode& node, FileId directory);

    [[nodiscard]] std::uint64_t cacheHits() const;
    [[nodiscard]] std::uint64_t cacheMisses() const;
    [[nodiscard]] std::uint32_t cacheSize() const;
    /// Forgets cached handles and slot indexes, as before a snapshot, a save of state or a close.
    void forget();

private:
    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace Replication
