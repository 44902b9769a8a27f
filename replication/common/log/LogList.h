#pragma once

#include "base/trace/TracedLock.h"
#include "replication/common/log/LogEntry.h"

#include <cstdint>
#include <deque>
#include <memory>

namespace Replication {

using LogPointer = std::shared_ptr<LogEntry>;

/// The bounded hand-over of logs from a collector's thread to one sink's thread. The bound is kept
/// by the collector: it stops reading while a list reports that it is stalled. Thread-safe.
class LogList {
public:
    static constexpr std::uint32_t highWater = 100;
    static constexpr std::uint32_t lowWater = 51;

    LogList();

    /// Appends and returns the new count, so that 1 means that the list was empty. A null log
    /// adds nothing and gives 0.
    std::uint32_t add(LogPointer log) MORVA_EXCLUDES(lock_);
    /// The first log, taken out; null when there is none.
    [[nodiscard]] LogPointer take() MORVA_EXCLUDES(lock_);
    /// The first log, left in place; null when there is none.
    [[nodiscard]] LogPointer peek() MORVA_EXCLUDES(lock_);
    /// Becomes stalled with `highWater` logs or more; gives whether it is stalled.
    [[nodiscard]] bool highWaterReached() MORVA_EXCLUDES(lock_);
    /// Ends the stall with fewer than `lowWater` logs; true only when this call ended it.
    [[nodiscard]] bool lowWaterReached() MORVA_EXCLUDES(lock_);

    [[nodiscard]] std::uint32_t count() MORVA_EXCLUDES(lock_);
    [[nodiscard]] bool stalled() MORVA_EXCLUDES(lock_);
    void clear() MORVA_EXCLUDES(lock_);

private:
    Morva::TracedMutex lock_;
    std::deque<LogPointer> logs_ MORVA_GUARDED_BY(lock_);
    bool stalled_ MORVA_GUARDED_BY(lock_) = false;
};

} // namespace Replication
