#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"

#include <array>
#include <cstdint>

namespace Replication {

class Streams;

/// An entry of the pool's "dedupqueue", 24 bytes, little-endian:
///
///  off  size  field     meaning
///    0     4  type      1 dedup a snapshot, 2 delete a snapshot, 3 dedup a version
///    4     4  reserved  zero
///    8     8  storeId
///   16     8  value     types 1 and 2: the instance in the low 4 bytes. Type 3: the version's id
struct DedupRequest {
    enum Type : std::uint32_t { DedupSnapshot = 1, DeleteSnapshot = 2, DedupVersion = 3 };
    static constexpr std::uint32_t packedSize = 24;

    std::uint32_t type = 0;
    StoreId store;
    std::uint64_t value = 0;

    [[nodiscard]] Instance instance() const { return Instance{static_cast<std::uint32_t>(value)}; }

    [[nodiscard]] std::array<std::uint8_t, packedSize> encode() const;
    /// False, and nothing changed, when the size isn't 24. Any type is taken.
    [[nodiscard]] bool decode(Morva::Extent const& bytes);

    auto operator<=>(DedupRequest const&) const = default;
};

/// Requests to the deduplication of a pool, from any thread: each puts an entry into the pool's
/// "dedupqueue" and returns at once. False when the queue doesn't take it.
struct DedupRequests {
    static bool dedupSnapshot(Streams& streams, StoreId store, Instance instance);
    static bool deleteSnapshot(Streams& streams, StoreId store, Instance instance);
    static bool dedupVersion(Streams& streams, StoreId store, std::uint64_t version);
};

} // namespace Replication
