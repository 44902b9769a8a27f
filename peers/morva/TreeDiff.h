#pragma once

#include "peers/morva/FileTree.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_set>
#include <vector>

namespace Morva {

/// Finds what differs between two trees of one store. What both share is not read: a file with
/// the same node is the same, contents are compared by their streams and digests before bytes.
class TreeDiff {
public:
    enum class Change : char {
        None = 0,
        Added = '+',
        Removed = '-',
        Content = 'M',
        Metadata = 'm', ///< mode, owner, time, device or extended attributes alone
        Type = 'T',
        Unread = '!' ///< one of both can't be read
    };
    /// Called for each difference, never with `None`, the names of a directory sorted.
    using Report = std::function<void(Change change, QByteArray const& path)>;

    TreeDiff(FileTree const& before, FileTree const& after, Report report);

    /// Compares the objects at one path, of which at least one is there.
    void compare(QByteArray const& path, std::optional<FileTree::Entry> const& before,
                 std::optional<FileTree::Entry> const& after);

private:
    struct Pair {
        QByteArray path;
        std::optional<FileTree::Entry> before;
        std::optional<FileTree::Entry> after;
    };

    void compareOne(Pair const& pair);
    void compareNames(Pair const& pair);
    [[nodiscard]] Change compareEntries(FileTree::Entry const& before,
                                        FileTree::Entry const& after);
    [[nodiscard]] Change compareNodes(Replication::FileNode& before, Replication::FileNode& after);
    [[nodiscard]] Change compareFiles(Replication::FileNode& before, Replication::FileNode& after);
    void reportAll(FileTree const& tree, Change change, QByteArray const& path,
                   FileTree::Entry const& entry, bool itself);

    FileTree before_;
    FileTree after_;
    Report report_;
    std::vector<Pair> ahead_;
    std::unordered_set<Replication::FileId> seen_; ///< directories of `before` that were compared
    std::vector<std::uint8_t> bytes_;
};

} // namespace Morva
