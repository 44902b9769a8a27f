#pragma once

#include "replication/common/log/LogList.h"

#include <cstdint>
#include <memory>

namespace Replication {

/// Hands out shared logs whose memory comes back to the pool with the last pointer, so that a
/// stream of logs costs no allocation. Logs may outlive the pool, and may be dropped on any
/// thread. Thread-safe.
class LogPool {
public:
    /// Idle logs hold at most this much memory together; what is beyond is freed.
    static constexpr std::uint64_t defaultIdleBytes = 32U << 20;

    explicit LogPool(std::uint64_t maximumIdleBytes = defaultIdleBytes);
    ~LogPool();
    LogPool(LogPool const&) = delete;
    LogPool& operator=(LogPool const&) = delete;

    /// An unused log, with memory for `bytes` (see `LogEntry::usedSize`) if the pool has one. Its
    /// old content is undefined: receive or build into it.
    [[nodiscard]] LogPointer acquire(std::uint64_t bytes = 0);
    /// Logs now idle in the pool.
    [[nodiscard]] std::uint32_t idle() const;

private:
    struct State;
    struct Node;
    template <class T> struct ControlAllocator;

    /// Freed by whoever is last: the pool or a log in use.
    State* state_;
};

} // namespace Replication
