#pragma once

#include "replication/common/values/Ids.h"
#include "replication/common/values/PosixObject.h"
#include "replication/repository/store/FileNode.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Replication {
class Store;
class StreamHandle;
} // namespace Replication

namespace Morva {

/// What an object of a tree is, apart from its content and extended attributes.
struct ObjectAttributes {
    /// `mode` has the type bits, which always fit the node's type.
    Replication::PosixSecurity security;
    /// Exact as far as the store has them so; `security.times` may hold ones that count no more.
    Replication::FileTime modified = Replication::FileTime::wholeSeconds(0);
    Replication::FileTime changed = Replication::FileTime::wholeSeconds(0);
    Replication::FileTime accessed; ///< as of `modified`; often not known
    /// 0 for an older version of a file that has had several names: how many there were is not
    /// kept.
    std::uint32_t links = 1;
    /// False for what no log of a POSIX source ever described; `security` is then a plain default.
    bool described = true;
};

/// Reads one tree of a store: a snapshot, which never changes, or the live tree, which only the
/// thread that writes it may read.
///
/// What is read of a snapshot can be read by any number of threads. The store must outlive the
/// reader. Damage gives nothing (or null), and has been traced where it was met.
class FileTree {
public:
    struct Entry {
        QString name;
        Replication::FileId id;
        Replication::LinkId link;
        bool isDirectory = false;
    };

    /// `instance` 0 is the live tree.
    FileTree(Replication::Store& store, Replication::Instance instance)
        : store_(&store), instance_(instance) {}

    [[nodiscard]] Replication::Store& store() const { return *store_; }
    [[nodiscard]] Replication::Instance instance() const { return instance_; }
    [[nodiscard]] bool live() const { return !instance_; }

    /// The entry of the tree's root, which has no name.
    [[nodiscard]] Entry root() const;
    /// The node of a file in this tree; 0 when it isn't there. Two trees with the same node have
    /// the same version of the file; of a directory that tells of its names alone.
    [[nodiscard]] Replication::NodeNumber nodeNumber(Replication::FileId id) const;
    /// Null when it isn't there or can't be read.
    [[nodiscard]] Replication::FileNode::Pointer node(Replication::FileId id) const;
    /// The entry at a path, "." left out; nothing when there is none. Ends the command, as
    /// `nodeNumber` and `size` do, when that can't be told.
    [[nodiscard]] std::optional<Entry> find(QStringList const& path) const;

    /// Calls for each name in a directory, in the order in which they are stored, until the
    /// visitor gives false. False when the directory can't be read to its end. A snapshot's
    /// names that were live-only are left out.
    [[nodiscard]] bool forEach(Replication::FileNode& directory, Replication::FileId id,
                               std::function<bool(Entry const&)> const& visit) const;
    /// Adds all names to `entries`, sorted by their bytes. As `forEach`.
    [[nodiscard]] bool list(Replication::FileNode& directory, Replication::FileId id,
                            std::vector<Entry>& entries) const;

    /// Called for each object of a walk with its path; whether to go into a directory. An entry
    /// without an id says that the names of that directory can't all be read.
    using Visitor = std::function<bool(QByteArray const& path, Entry const& entry)>;
    /// Visits an object and all below it, a directory before what is in it and the names of one
    /// sorted. `path` is that of the start; those below it are joined with "/".
    void walk(Entry const& start, QByteArray const& path, Visitor const& visit) const;

    /// Nothing when they are lost, damaged or contradict the node's type.
    [[nodiscard]] static std::optional<ObjectAttributes> attributes(Replication::FileNode& node);
    /// The bytes of a symbolic link's target.
    [[nodiscard]] static std::optional<QByteArray> linkTarget(Replication::FileNode& node);
    [[nodiscard]] static std::optional<Replication::PosixAttributes>
    extendedAttributes(Replication::FileNode& node);
    /// The content of a regular file; null when it is lost.
    [[nodiscard]] static std::shared_ptr<Replication::StreamHandle>
    content(Replication::FileNode& node);
    /// Bytes of a regular file's content or of a symbolic link's target, else 0.
    [[nodiscard]] static std::uint64_t size(Replication::FileNode& node,
                                            ObjectAttributes const& attributes);

private:
    Replication::Store* store_;
    Replication::Instance instance_;
};

/// The bytes of a stored name.
[[nodiscard]] QByteArray nameBytes(QString const& name);
[[nodiscard]] QByteArray joinPath(QByteArray const& directory, QByteArray const& name);
/// Whether a name can be one in a directory of Linux: not empty, no "/" or NUL, neither "." nor
/// "..". What a damaged or hostile store says otherwise must not reach a file system.
[[nodiscard]] bool isFileName(QByteArray const& name);

} // namespace Morva
