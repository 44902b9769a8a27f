#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace Morva {
class PagedQueue;
}

namespace Replication {

class Streams;

/// An entry of the pool's "cleanupqueue", little-endian:
///
///  off  size  field        meaning
///    0     4  type         1 delete a stream, 2 release a tree
///    4     4  reserved     zero
///    8     8  id           type 1, 16 bytes in all: the stream
///    8   200  tree record  type 2, 208 bytes in all: of a stream
///    8   960  tree record  type 2, 968 bytes in all: of a store's node
struct CleanupRequest {
    enum Type : std::uint32_t { DeleteStream = 1, DeleteInfo = 2 };
    static constexpr std::uint32_t payloadAt = 8;

    std::uint32_t type = 0;
    StreamId stream;
    /// A view into the entry that was decoded.
    Morva::Extent record;

    /// False, with nothing changed, when the entry is no request of a known type and size.
    [[nodiscard]] bool decode(Morva::Extent const& bytes);

    /// Any thread can send; false when the queue doesn't take it.
    static bool deleteStream(Morva::PagedQueue& queue, StreamId id);
    static bool deleteInfo(Morva::PagedQueue& queue, Morva::Extent const& record);
};

/// Works off all that waits in a queue of a pool, on the calling thread. `work` releases each entry
/// that it has done. False when the queue or `work` fails, or the pool is stopping.
[[nodiscard]] bool drainQueue(Streams const& streams, Morva::PagedQueue& queue,
                              std::function<bool(Morva::Extent const&)> const& work);

/// Deletes streams and releases trees in the background, in the order asked. A request leaves the
/// queue only when it is done, so that it outlives a stop or a crash.
///
/// One worker a pool. `start`, `stop` and `drain` belong to one thread.
class CleanupWorker {
public:
    explicit CleanupWorker(std::shared_ptr<Streams> streams);
    /// Stops.
    ~CleanupWorker();
    CleanupWorker(CleanupWorker const&) = delete;
    CleanupWorker& operator=(CleanupWorker const&) = delete;

    /// Starts the thread. False when it runs already or the pool is stopping.
    bool start();
    /// Ends the thread after the request at hand, and waits for that. What is left stays in the
    /// queue. Harmless when it doesn't run.
    void stop();
    [[nodiscard]] bool running() const { return thread_.joinable(); }

    /// Works off all that waits, on the calling thread; a running worker is stopped for that and
    /// started again. The caller must not hold the operation gate. False when the queue fails or
    /// the pool is stopping.
    bool drain();

private:
    void run();
    /// False when it stays in the queue.
    [[nodiscard]] bool work(Morva::Extent const& entry);

    std::shared_ptr<Streams> streams_;
    std::thread thread_;
    std::atomic<bool> stop_ = false;
    int wake_ = -1; // becomes readable to end the thread's wait
};

} // namespace Replication
