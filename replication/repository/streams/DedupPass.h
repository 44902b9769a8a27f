#pragma once

#include "base/values/Extent.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/StreamHasher.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Replication {

class StreamHandle;
class Streams;
struct DedupStatistics;

/// Deduplicates one stream after the other: hashes each as far as that is needed and enters it in
/// the pool's index, in the order in which they were added.
///
/// Streams are gathered in jobs. A second thread takes one job after the other, and so does the
/// owner when enough of them wait, so that both processors have work to the end. The second thread
/// starts when the first job is full: few small streams are hashed by the caller. It reads the pool
/// and changes nothing there.
///
/// A pass belongs to one thread. The operation gate is held for changes of the pool only; the
/// caller must not hold it.
class DedupPass {
public:
    /// `checkForFreeze` is called between two reads of the owner while the pool is freezing, and
    /// holds it until that is over. All reading goes to `buffer`, which must outlive the pass; with
    /// an empty one streams are frozen and entered only where their digests are known.
    DedupPass(Streams& pool, std::function<void()> checkForFreeze, DedupStatistics& statistics,
              Morva::Extent const& buffer);
    /// What is still being hashed stays without a digest.
    ~DedupPass();
    DedupPass(DedupPass const&) = delete;
    DedupPass& operator=(DedupPass const&) = delete;

    /// The next stream; one that isn't there, can't be read, or needs nothing, is passed over.
    /// False only when the pool is stopping.
    [[nodiscard]] bool add(StreamId id);
    /// Waits until all that was added is in the index. False only when the pool is stopping.
    [[nodiscard]] bool finish();
    /// So many of the streams that were added, from the first on, need nothing more.
    [[nodiscard]] std::uint64_t done() const { return done_; }

private:
    static constexpr std::size_t mostJobs = 32;

    struct Job {
        std::vector<StreamHasher::Item> items;
        std::uint64_t bytes = 0;
        std::uint64_t ended = 0; ///< streams that were added before the job was handed on
        bool done = false;       ///< guarded by lock_
    };

    [[nodiscard]] bool goOn();
    [[nodiscard]] Job& job(std::uint64_t number) { return jobs_[number % mostJobs]; }
    void handOn(bool more);
    void startSecond();
    void work();
    void helpUntilDone(std::uint64_t number);
    [[nodiscard]] bool isDone(std::uint64_t number);
    void settleDone();
    void settle(Job& job);

    Streams& pool_;
    std::function<void()> checkForFreeze_;
    DedupStatistics& statistics_;
    std::array<Job, mostJobs> jobs_; // used in turn
    std::unique_ptr<StreamHasher> ownHasher_;
    std::unique_ptr<StreamHasher> secondHasher_; // null: there is no second thread to be had
    std::uint64_t added_ = 0;
    std::uint64_t done_ = 0;
    std::uint64_t settled_ = 0; // jobs

    std::thread second_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::uint64_t handed_ = 0; // jobs; guarded by lock_, as are the rest; written by the owner only
    std::uint64_t claimed_ = 0;
    std::uint64_t wanted_ = 0; // the job that the owner waits for
    bool quit_ = false;
};

} // namespace Replication
