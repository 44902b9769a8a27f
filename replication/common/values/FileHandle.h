#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"

#include <array>
#include <cstdint>

namespace Replication {

/// How everything outside a store names a file. On the wire and in memory 32 bytes,
/// little-endian:
///
///  off  size  field     meaning
///    0     8  id        file id, or node number with kind Raw
///    8     8  StoreId
///   16     4  kind
///   20     4  instance  the instance it is valid in; 0 means the live tree
///   24     4  link id   0 stands for 1
///   28     4  reserved  zero
struct FileHandle {
    enum Kind : std::uint32_t {
        Invalid = 0,
        Raw = 1,       ///< `id` is a node number
        Passive = 2,   ///< `id` is a file id, read at `instance`
        Snapshot = 3,  ///< the root of the snapshot `instance`
        FileIdOnly = 4 ///< a file id with no instance yet
    };
    static constexpr std::uint32_t packedSize = 32;

    std::uint64_t id = 0;
    StoreId store;
    std::uint32_t kind = Invalid;
    Instance instance;
    LinkId link;
    std::uint32_t reserved = 0;

    [[nodiscard]] FileId fileId() const { return FileId{id}; }
    [[nodiscard]] NodeNumber node() const { return NodeNumber{id}; }

    [[nodiscard]] std::array<std::uint8_t, packedSize> encode() const;
    /// False, and nothing changed, when fewer than 32 bytes are given. Any kind is taken.
    [[nodiscard]] bool decode(Morva::Extent const& bytes);

    bool operator==(FileHandle const&) const = default;
};

} // namespace Replication
