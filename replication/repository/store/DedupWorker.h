#pragma once

#include "base/trace/TracedLock.h"
#include "base/values/Extent.h"
#include "base/values/Status.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/SafePoint.h"
#include "replication/repository/store/StoreTable.h"
#include "replication/repository/streams/DedupRequest.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

namespace Replication {

class Streams;

/// Works off the pool's "dedupqueue": deduplicates snapshots and versions, and retires snapshots.
/// A request leaves the queue only when it is done, so that it outlives a stop or a crash.
///
/// A request that fails is *parked*: logged, kept with its reason, and put back into the queue when
/// the work ends, so that it is tried again at the next start; the next ones go on. No failure ends
/// the thread: a queue that fails is tried again every minute.
///
/// Stores are opened for it and stay open for five minutes after use, since the next request often
/// concerns the same one.
///
/// One worker a pool. `start`, `stop` and `drain` belong to one thread. The operation gate is held
/// for the changes only; the caller of `drain` must not hold it.
class DedupWorker {
public:
    static constexpr std::uint64_t keepOpenMs = 300000;
    static constexpr std::uint32_t bufferSize = 2097152;

    /// `checkForFreeze` is called while the pool is freezing, on the worker's thread, and holds it
    /// until that is over; without one the worker goes on.
    explicit DedupWorker(std::shared_ptr<Streams> streams,
                         std::function<void()> checkForFreeze = {});
    /// Stops.
    ~DedupWorker();
    DedupWorker(DedupWorker const&) = delete;
    DedupWorker& operator=(DedupWorker const&) = delete;

    /// Starts the thread. False when it runs already or the pool is stopping.
    bool start();
    /// Ends the thread after the request at hand, waits for that, and gives up the open stores.
    /// What is left stays in the queue. Harmless when it doesn't run.
    void stop();
    [[nodiscard]] bool running() const { return thread_.joinable(); }
    /// Works off all that waits, on the calling thread; a running worker is stopped for that and
    /// started again. Fails when the queue fails, the pool is stopping, or `safePoint` fails, which
    /// is called between requests and between the steps of one; what is left stays. What is parked
    /// is no failure: see `parked`.
    [[nodiscard]] Morva::Status drain(SafePoint const& safePoint = {});
    /// A request that failed, and why.
    struct Parked {
        DedupRequest request;
        Morva::Status reason;
    };
    /// What has failed since the start, or in the last `drain`. Any thread.
    [[nodiscard]] std::vector<Parked> parked() const;
    /// Closes the stores that were last used five minutes ago or earlier, by
    /// `Context::systemTime`. The worker calls it by itself. Returns how many are left open.
    std::size_t closeIdle(std::uint64_t now);

private:
    struct OpenStore {
        StorePointer store;
        std::uint64_t retire = 0;
    };

    void run();
    /// Serves the queue until a stop, or it fails.
    [[nodiscard]] Morva::Status serveQueue();
    [[nodiscard]] Morva::Status putBack(DedupRequest const& request);
    /// Fails when it must stay in the queue, or the queue fails.
    [[nodiscard]] Morva::Status work(Morva::Extent const& entry, SafePoint const& safePoint);
    [[nodiscard]] Morva::Status serve(DedupRequest const& request, SafePoint const& safePoint);
    [[nodiscard]] Morva::Status handle(DedupRequest const& request, Store& store,
                                       SafePoint const& safePoint);
    bool takeTimer();
    void forgetParked();
    void park(DedupRequest const& request, Morva::Status reason);
    /// Puts what is parked back into the queue.
    void close();

    std::shared_ptr<Streams> streams_;
    std::function<void()> checkForFreeze_;
    // Descriptors: the stop, the look at idle stores, and both as one that ends a wait.
    int stopEvent_;
    int timer_;
    int wake_;
    std::vector<std::uint8_t> buffer_;
    std::map<StoreId, OpenStore> stores_; // of the thread that works
    std::thread thread_;
    std::atomic<bool> stop_ = false;
    mutable Morva::TracedMutex parkedLock_{{"Lock Parked Requests", "Unlock Parked Requests"}};
    std::vector<Parked> parked_ MORVA_GUARDED_BY(parkedLock_);
    bool returned_ MORVA_GUARDED_BY(parkedLock_) = false; ///< they are in the queue again
};

} // namespace Replication
