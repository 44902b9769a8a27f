#include "replication/common/log/LogList.h"

#include "base/trace/Trace.h"

namespace Replication {

using Morva::TracedLock;

LogList::LogList()
    : lock_({"================ Lock LogList ================",
             "================ Unlock LogList ================"}) {}

std::uint32_t LogList::add(LogPointer log) {
    if (!log)
        return 0;
    TracedLock const held(lock_);
    logs_.push_back(std::move(log));
    MORVA_TRACE(Debug) << "add item number" << logs_.size();
    return static_cast<std::uint32_t>(logs_.size());
}

LogPointer LogList::take() {
    TracedLock const held(lock_);
    if (logs_.empty())
        return nullptr;
    LogPointer log = std::move(logs_.front());
    logs_.pop_front();
    return log;
}

LogPointer LogList::peek() {
    TracedLock const held(lock_);
    return logs_.empty() ? nullptr : logs_.front();
}

bool LogList::highWaterReached() {
    TracedLock const held(lock_);
    if (!stalled_ && logs_.size() >= highWater)
        stalled_ = true;
    return stalled_;
}

bool LogList::lowWaterReached() {
    TracedLock const held(lock_);
    if (!stalled_ || logs_.size() >= lowWater)
        return false;
    stalled_ = false;
    return true;
}

std::uint32_t LogList::count() {
    TracedLock const held(lock_);
    return static_cast<std::uint32_t>(logs_.size());
}

bool LogList::stalled() {
    TracedLock const held(lock_);
    return stalled_;
}

void LogList::clear() {
    std::deque<LogPointer> dropped;
    TracedLock const held(lock_);
    dropped.swap(logs_);
}

} // namespace Replication
