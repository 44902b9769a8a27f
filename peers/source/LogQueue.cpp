#include "peers/source/LogQueue.h"

namespace Replication {

std::uint8_t* LogQueue::dataSpace(LogBuilder const& builder, std::uint32_t size) {
    if (!next_)
        next_ = pool_.acquire(LogEntry::sizeOf(builder) + size);
    return next_->dataSpace(builder, size);
}

bool LogQueue::put(LogBuilder& builder) {
    LogPointer log = next_ ? std::move(next_) : pool_.acquire(LogEntry::sizeOf(builder));
    next_.reset();
    if (!log->build(builder))
        return false;
    std::uint64_t const size = log->usedSize();
    std::unique_lock held(lock_);
    while (!cancelled_ && (logs_.size() >= maximumLogs || bytes_ >= maximumBytes)) {
        writerWaits_ = true;
        notFull_.wait(held);
    }
    writerWaits_ = false;
    if (cancelled_)
        return false;
    logs_.push_back(std::move(log));
    bytes_ += size;
    if (readerWaits_ && (logs_.size() >= wakeLogs || bytes_ >= wakeBytes))
        notEmpty_.notify_one();
    return true;
}

bool LogQueue::flush() {
    std::scoped_lock const held(lock_);
    flushed_ = true;
    notEmpty_.notify_one();
    return !cancelled_;
}

void LogQueue::finish() {
    std::scoped_lock const held(lock_);
    finished_ = true;
    notEmpty_.notify_one();
}

LogPointer LogQueue::take() {
    if (taken_.empty()) {
        std::unique_lock held(lock_);
        while (!finished_ && !cancelled_ && !(flushed_ && !logs_.empty()) &&
               logs_.size() < wakeLogs && bytes_ < wakeBytes) {
            readerWaits_ = true;
            notEmpty_.wait(held);
        }
        readerWaits_ = false;
        flushed_ = false;
        if (logs_.empty() || cancelled_)
            return nullptr;
        taken_.swap(logs_);
        bytes_ = 0;
        if (writerWaits_)
            notFull_.notify_one();
    }
    LogPointer log = std::move(taken_.front());
    taken_.pop_front();
    return log;
}

void LogQueue::cancel() {
    std::deque<LogPointer> dropped;
    taken_.clear();
    std::scoped_lock const held(lock_);
    cancelled_ = true;
    dropped.swap(logs_);
    notFull_.notify_one();
    notEmpty_.notify_one();
}

} // namespace Replication
