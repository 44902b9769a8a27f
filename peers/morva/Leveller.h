#pragma once

#include "peers/morva/FileTree.h"
#include "peers/source/OperationLogger.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Morva {

/// Prepares a walk of a directory tree whose store holds an older state of it: logs the removal of
/// what is gone, and knows what is unchanged, so that it need not be logged again.
///
/// A file counts as unchanged when its size, mode, owner, modification and change time are those
/// that the store has, to the nanosecond where the store has them so. The clock of a file system
/// moves in steps, and that of the store in seconds, so a file that changed in the second in which
/// it was replicated, or later, counts as changed.
class Leveller {
public:
    /// `directory` is the source root of the store: an absolute path.
    Leveller(FileTree const& live, std::string directory);

    /// Looks at every stored object. False when a stored directory can't be read. By the writer of
    /// the live tree, before anything is replayed.
    [[nodiscard]] bool run();
    /// Logs what is gone; false when a log could not be handed on. Any thread, after `run`.
    [[nodiscard]] bool logRemovals(Replication::OperationLogger& operations) const;
    /// For the walk; thread-safe once `run` has ended.
    [[nodiscard]] bool unchanged(std::string_view path, struct stat const& status) const;
    [[nodiscard]] std::uint64_t removed() const { return removals_.size(); }
    /// Names in the store that are no directories, and those of them that are gone.
    [[nodiscard]] std::uint64_t files() const { return files_; }
    [[nodiscard]] std::uint64_t removedFiles() const { return removedFiles_; }

private:
    struct Known {
        std::uint64_t size;
        std::uint32_t mode;
        std::uint32_t uid;
        std::uint32_t gid;
        Replication::FileTime modified; ///< of a whole second: its nanoseconds aren't known
        Replication::FileTime changed;  ///< likewise
        std::uint32_t stored;           ///< when it came here, by the repository's clock
    };

    [[nodiscard]] bool level(FileTree::Entry const& directory, std::string const& path);
    [[nodiscard]] bool levelEntry(FileTree::Entry const& entry, std::string const& path);
    [[nodiscard]] bool remove(FileTree::Entry const& entry, std::string const& path);
    void removeLostAttributes(Replication::FileNode& node, std::string const& path);
    void remember(Replication::FileNode& node, std::string const& path);

    FileTree const& live_;
    std::string directory_;
    /// By the hash of the path: a collision could at worst match all six values too.
    std::unordered_map<std::size_t, Known> known_;
    struct Removal {
        std::string path;
        bool isDirectory;
        std::string attribute; ///< only this extended attribute, if it isn't empty
    };
    std::vector<Removal> removals_;
    std::uint64_t files_ = 0;
    std::uint64_t removedFiles_ = 0;
};

} // namespace Morva
