#pragma once

#include "base/values/StrongId.h"

#include <cstdint>

namespace Replication {

/// Id of a store; the name of its directory (16 hexadecimal digits).
using StoreId = Morva::StrongId<struct StoreIdTag, std::uint64_t>;
/// Id of the replay stream of the rule set that feeds a store.
using ReplayId = Morva::StrongId<struct ReplayIdTag, std::uint32_t>;
/// Stable id of a file in its store: low 32 bits the entry number in the pointer file, high 32
/// bits the entry's generation.
using FileId = Morva::StrongId<struct FileIdTag, std::uint64_t>;
/// Block number of a node (one version of a file) in a store's "files".
using NodeNumber = Morva::StrongId<struct NodeNumberTag, std::uint64_t>;
/// Version counter of a store: 1 in a new store, one more at each snapshot, never reused. A
/// version made during instance n first shows in snapshot n + 1. 0 means the live tree in a
/// `FileHandle`.
using Instance = Morva::StrongId<struct InstanceTag, std::uint32_t>;
/// Which hard link of a file a directory entry is. 0 is read as 1.
using LinkId = Morva::StrongId<struct LinkIdTag, std::uint32_t>;
/// Block number of a stream's node in the pool's "nodes".
using StreamId = Morva::StrongId<struct StreamIdTag, std::uint64_t>;

/// File type of a directory, the one type that the store interprets. POSIX sources send 1 for
/// everything else.
inline constexpr std::uint32_t directoryType = 2;
inline constexpr std::uint32_t fileType = 1;

} // namespace Replication
