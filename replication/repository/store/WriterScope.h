#pragma once

#include "base/trace/Trace.h"

#include <atomic>
#include <thread>

namespace Replication {

/// Notices a second thread in operations that only one may run. Nests in a thread.
class WriterScope {
public:
    explicit WriterScope(std::atomic<std::thread::id>& writer)
        : writer_(writer),
          outer_(writer.exchange(std::this_thread::get_id(), std::memory_order_acq_rel)) {
        MORVA_CHECK(outer_ == std::thread::id() || outer_ == std::this_thread::get_id(),
                    "one writer");
    }
    ~WriterScope() { writer_.store(outer_, std::memory_order_release); }
    WriterScope(WriterScope const&) = delete;
    WriterScope& operator=(WriterScope const&) = delete;

private:
    std::atomic<std::thread::id>& writer_;
    std::thread::id outer_;
};

} // namespace Replication
