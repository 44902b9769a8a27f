#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/store/StoreTable.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

namespace Replication {

class Streams;
struct DedupRequest;

/// Works off the pool's "dedupqueue": deduplicates snapshots and versions, and retires snapshots.
/// A request leaves the queue only when it is done, so that it outlives a stop or a crash.
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
    /// started again. False when the queue fails or the pool is stopping; what is left stays.
    bool drain();
    /// Closes the stores that were last used five minutes ago or earlier, by
    /// `Context::systemTime`. The worker calls it by itself. Returns how many are left open.
    std::size_t closeIdle(std::uint64_t now);

private:
    struct OpenStore {
        StorePointer store;
        std::uint64_t retire = 0;
    };

    void run();
    /// False when it must stay in the queue.
    [[nodiscard]] bool work(Morva::Extent const& entry);
    [[nodiscard]] bool handle(DedupRequest const& request, Store& store);
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
};

} // namespace Replication
