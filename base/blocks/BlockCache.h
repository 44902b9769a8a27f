#pragma once

#include "base/blocks/PageCache.h"

#include <cstdint>

namespace Morva {

/// The cache part of a block file: what the statistics see of it. Not thread-safe.
class BlockCache {
public:
    /// Requests that found their block in memory, and those that didn't, since construction.
    [[nodiscard]] std::uint64_t hits() const { return cache_.hits(); }
    [[nodiscard]] std::uint64_t misses() const { return cache_.misses(); }
    /// Blocks now held in memory.
    [[nodiscard]] std::uint32_t size() const { return cache_.size(); }

protected:
    explicit BlockCache(std::uint32_t blocks) : cache_(blocks) {}
    ~BlockCache() = default;

    mutable PageCache cache_;
};

} // namespace Morva
