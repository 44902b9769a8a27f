#pragma once

#include <cstdint>

namespace Replication {

/// Counters of one pass of deduplication, 40 bytes where they are stored:
///
///  off  size  field          trace label
///    0     8  reserved
///    8     8  streams        "Deduped    "  streams that are in the index now
///   16     8  uniqueStreams  "Unique     "  those whose content was not there before
///   24     8  dedupedSize    "DedupedSize"  bytes of the former
///   32     8  uniqueSize     "UniqueSize "  bytes of the latter
struct DedupStatistics {
    std::uint64_t reserved = 0;
    std::uint64_t streams = 0;
    std::uint64_t uniqueStreams = 0;
    std::uint64_t dedupedSize = 0;
    std::uint64_t uniqueSize = 0;

    DedupStatistics& operator+=(DedupStatistics const& other);
    bool operator==(DedupStatistics const&) const = default;
    /// Traces the four counters at level Normal.
    void trace() const;
};

} // namespace Replication
