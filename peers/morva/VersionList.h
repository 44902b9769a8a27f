#pragma once

#include "peers/morva/FileTree.h"

#include <QByteArray>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <vector>

namespace Morva {

/// One version of what has a path.
struct ObjectVersion {
    Replication::Instance
        instance;            ///< the first snapshot that shows it; 0: only the live tree does
    std::uint32_t taken = 0; ///< when that was taken, seconds since 1970
    std::optional<ObjectAttributes> attributes; ///< nothing when they can't be read
    std::uint64_t size = 0;
    QByteArray sha1; ///< hexadecimal; empty when the content has not been hashed
};

/// The versions that snapshots and the live tree show at a path, oldest first, each once for a run
/// of snapshots that show the same.
[[nodiscard]] std::vector<ObjectVersion> versionList(Replication::Store& store,
                                                     QStringList const& path);

} // namespace Morva
