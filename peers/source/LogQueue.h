#pragma once

#include "peers/source/LogSink.h"
#include "replication/common/log/LogPool.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

namespace Replication {

/// Hands logs to a thread of the same process. Bounded by count and by bytes: the writer waits
/// while it is full, so memory stays bounded however slow the reader is. The logs' memory is used
/// again, and a file's contents are read straight into it.
///
/// One writer (the `LogSink` operations, `finish`) and one reader (`take`, `cancel`).
class LogQueue : public LogSink {
public:
    /// What stands between the two; the reader may hold as much again.
    static constexpr std::uint32_t maximumLogs = 1024;
    static constexpr std::uint64_t maximumBytes = 8U << 20;
    /// What a waiting reader is woken for; less waits for more, for `flush` or for `finish`.
    static constexpr std::uint32_t wakeLogs = 32;
    static constexpr std::uint64_t wakeBytes = 256U << 10;

    LogQueue() = default;

    [[nodiscard]] std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size) override;
    /// False once the reader has cancelled.
    [[nodiscard]] bool put(LogBuilder& builder) override;
    [[nodiscard]] bool flush() override;
    /// No log will follow: `take` gives null once the queue is empty.
    void finish();

    /// The next log; waits until enough are there or what is there was flushed. Null when there
    /// will be none.
    [[nodiscard]] LogPointer take();
    /// The reader wants no more: the writer's `put` fails from now on, and `take` gives null.
    void cancel();

private:
    std::mutex lock_;
    std::condition_variable notEmpty_;
    std::condition_variable notFull_;
    std::deque<LogPointer> logs_;
    std::uint64_t bytes_ = 0;
    bool readerWaits_ = false;
    bool writerWaits_ = false;
    bool flushed_ = false;
    bool finished_ = false;
    bool cancelled_ = false;

    /// The reader's: what it has taken out in one go, so that it locks once for many logs.
    std::deque<LogPointer> taken_;

    LogPool pool_;
    /// The writer's: the log being made, kept from `dataSpace` to `put`.
    LogPointer next_;
};

} // namespace Replication
