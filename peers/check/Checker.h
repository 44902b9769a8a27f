#pragma once

#include "peers/check/CheckReport.h"

#include <QString>

#include <cstdint>
#include <functional>

namespace Morva {

class Journal;

/// Where the files of a repository lie.
struct RepositoryPaths {
    QString streams;    ///< directory of the pool's files
    QString streamData; ///< directory of the pool's data files
    QString stores;     ///< directory of the stores' directories

    /// As `FixedPath` tells them for the root in force.
    [[nodiscard]] static RepositoryPaths current();
};

struct CheckOptions {
    /// Also read every page of "data.blocks" and every data block of every stream, and verify the
    /// digests that are known.
    bool readData = false;
    /// Called now and then with the bytes read so far. What it throws ends the check.
    std::function<void(std::uint64_t bytesRead)> progress;
    /// The journal in force, if there is one: all pages that it guards are verified first.
    Journal* journal = nullptr;
};

/// Checks every record of a repository against every other: reference counts against the
/// references there are, free lists against what is in use, pointer chains, directory pages
/// against the tree of names, snapshots, streams, the deduplication index, queues and lists.
/// Nothing may be lost and nothing counted twice.
///
/// Opens all files for reading alone and changes nothing. Nobody may change them meanwhile, and
/// what another object of this process holds in memory must have been flushed. A damaged record
/// is a fault of the report, and the check goes on with the rest; it ends whatever the files hold.
/// Memory: about 100 bytes a file, and one byte a data block.
[[nodiscard]] CheckReport checkRepository(RepositoryPaths const& paths,
                                          CheckOptions const& options = {});

} // namespace Morva
