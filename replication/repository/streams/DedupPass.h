#pragma once

#include "base/values/Extent.h"
#include "base/values/Sha1.h"
#include "replication/common/values/Ids.h"

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
/// What is read goes in batches to a thread that does nothing but hash, so that one processor
/// reads and enters while another one hashes. That thread starts when the first batch is full: few
/// small streams are hashed by the caller. It touches the batch at hand and nothing of the pool.
///
/// A pass belongs to one thread. The operation gate is held for changes of the pool only; the
/// caller must not hold it.
class DedupPass {
public:
    /// `checkForFreeze` is called between two reads while the pool is freezing, and holds the
    /// thread until that is over. All reading goes to `buffer`, which must outlive the pass; with
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
    /// A part of a stream.
    struct Piece {
        std::shared_ptr<StreamHandle> stream;
        std::uint32_t at;
        std::uint32_t count;
        bool last;
        bool whole; ///< of a last one: all of the stream was read
        std::array<std::uint8_t, Morva::Sha1::digestSize> digest;
    };
    struct Batch {
        std::uint8_t* room = nullptr;
        std::uint32_t used = 0;
        std::uint64_t ended = 0; ///< streams that have ended with this batch
        std::vector<Piece> pieces;
    };

    [[nodiscard]] bool readStream(std::shared_ptr<StreamHandle> const& stream);
    [[nodiscard]] Batch& batchWithRoom();
    void handOn(bool more);
    void startHashing();
    void settle();
    void settleHashed(std::uint64_t atLeast);
    void hash(Batch& batch);
    void hashBatches();

    Streams& pool_;
    std::function<void()> checkForFreeze_;
    DedupStatistics& statistics_;
    std::vector<Batch> batches_; // used in turn
    std::uint32_t batchSize_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t done_ = 0;
    std::uint64_t settled_ = 0; // batches
    Morva::Sha1 sha_;           // of the thread that hashes

    std::thread hasher_;
    bool alone_ = false; // no thread to be had
    std::mutex lock_;
    std::condition_variable changed_;
    std::uint64_t handed_ = 0; // batches; guarded by lock_, as are the rest
    std::uint64_t hashed_ = 0;
    std::uint64_t wanted_ = 0; // batches that the owner waits for
    bool quit_ = false;
};

} // namespace Replication
