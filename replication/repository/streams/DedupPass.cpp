#include "replication/repository/streams/DedupPass.h"

#include "base/trace/Trace.h"
#include "replication/common/values/Digest.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"
#include "replication/repository/streams/TreeParameters.h"

#include <algorithm>
#include <cstring>
#include <system_error>

namespace Replication {

namespace {

constexpr std::uint32_t mostBatches = 4;
constexpr std::uint32_t smallestBatch = 65536;
/// Their results are entered in one hold of the operation gate.
constexpr std::size_t mostPieces = 256;
constexpr std::uint32_t blockSize = TreeParameters::blockSize;
constexpr std::uint32_t alignment = 64;

} // namespace

DedupPass::DedupPass(Streams& pool, std::function<void()> checkForFreeze,
                     DedupStatistics& statistics, Morva::Extent const& buffer)
    : pool_(pool), checkForFreeze_(std::move(checkForFreeze)), statistics_(statistics) {
    if (buffer.size == 0)
        return;
    batches_.resize(std::clamp(buffer.size / smallestBatch, 1u, mostBatches));
    batchSize_ = buffer.size / static_cast<std::uint32_t>(batches_.size());
    auto* room = static_cast<std::uint8_t*>(buffer.data);
    for (Batch& batch : batches_)
        batch.room = std::exchange(room, room + batchSize_);
}

DedupPass::~DedupPass() {
    if (hasher_.joinable()) {
        {
            std::lock_guard const guard(lock_);
            quit_ = true;
        }
        changed_.notify_all();
        hasher_.join();
    }
    OperationGate::Enter const gate;
    batches_.clear();
}

bool DedupPass::add(StreamId id) {
    if (std::shared_ptr<StreamHandle> stream = pool_.handle(id, true)) {
        bool wanted = false;
        {
            OperationGate::Enter const gate;
            wanted = stream->prepareDedup(statistics_) && batchSize_ != 0;
        }
        bool const read = !wanted || readStream(stream);
        OperationGate::Enter const gate;
        stream.reset();
        if (!read)
            return false;
    }
    ++added_;
    return !pool_.stopping();
}

bool DedupPass::readStream(std::shared_ptr<StreamHandle> const& stream) {
    for (std::uint64_t offset = 0;;) {
        if (pool_.stopping())
            return false;
        if (pool_.freezing() && checkForFreeze_)
            checkForFreeze_();
        Batch& batch = batchWithRoom();
        std::uint32_t const left = batchSize_ - batch.used;
        std::uint32_t const room = left < blockSize ? left : left / blockSize * blockSize;
        // Zeros for what can't be read would give the digest of another content.
        auto const count = stream->readWhole(offset, batch.room + batch.used, room);
        offset += count.value_or(0);
        bool const last = !count || *count < room;
        batch.pieces.push_back(
            {stream, batch.used, count.value_or(0), last, count && offset == stream->length(), {}});
        batch.used += std::min(left, (count.value_or(0) + alignment - 1) / alignment * alignment);
        if (last)
            return true;
    }
}

DedupPass::Batch& DedupPass::batchWithRoom() {
    Batch& batch = batches_[handed_ % batches_.size()];
    if (batchSize_ - batch.used >= std::min(batchSize_, blockSize) &&
        batch.pieces.size() < mostPieces)
        return batch;
    handOn(true);
    return batches_[handed_ % batches_.size()];
}

/// Has the batch at hand hashed and finds another one; `more` when there is going to be more.
void DedupPass::handOn(bool more) {
    Batch& batch = batches_[handed_ % batches_.size()];
    batch.ended = added_;
    if (more && batches_.size() > 1 && !alone_ && !hasher_.joinable())
        startHashing();
    if (!hasher_.joinable()) {
        hash(batch);
        ++handed_;
        ++hashed_;
        settle();
        return;
    }
    {
        std::lock_guard const guard(lock_);
        ++handed_;
    }
    changed_.notify_one();
    // When all are full, half of them saves changes of threads.
    bool const full = handed_ - settled_ == batches_.size();
    settleHashed(full ? settled_ + batches_.size() / 2 : settled_);
}

void DedupPass::startHashing() {
    try {
        hasher_ = std::thread([this] { hashBatches(); });
    } catch (std::system_error const& error) {
        MORVA_TRACE(Always) << "Failed to start a thread that hashes" << error.what();
        alone_ = true;
    }
}

/// Enters what is hashed, once that are `atLeast` batches in all.
void DedupPass::settleHashed(std::uint64_t atLeast) {
    std::uint64_t hashed = 0;
    {
        std::unique_lock guard(lock_);
        wanted_ = atLeast;
        changed_.wait(guard, [this] { return hashed_ >= wanted_; });
        hashed = hashed_;
    }
    while (settled_ < hashed)
        settle();
}

void DedupPass::settle() {
    Batch& batch = batches_[settled_++ % batches_.size()];
    bool const goes = !pool_.stopping();
    OperationGate::Enter const gate;
    for (Piece const& piece : batch.pieces)
        if (goes && piece.last && piece.whole)
            piece.stream->setDigest(Digest::eRepDigestSha1, piece.digest.data(), statistics_);
    batch.pieces.clear();
    batch.used = 0;
    if (goes)
        done_ = batch.ended;
}

bool DedupPass::finish() {
    if (batchSize_ != 0 && !pool_.stopping()) {
        if (!batches_[handed_ % batches_.size()].pieces.empty())
            handOn(false);
        settleHashed(handed_);
    }
    if (pool_.stopping())
        return false;
    done_ = added_;
    return true;
}

void DedupPass::hash(Batch& batch) {
    for (Piece& piece : batch.pieces) {
        sha_.addData(batch.room + piece.at, piece.count);
        if (!piece.last)
            continue;
        std::memcpy(piece.digest.data(), sha_.result().data, piece.digest.size());
        sha_.reset();
    }
}

void DedupPass::hashBatches() {
    std::unique_lock guard(lock_);
    for (;;) {
        changed_.wait(guard, [this] { return quit_ || handed_ > hashed_; });
        if (quit_)
            return;
        Batch& batch = batches_[hashed_ % batches_.size()];
        guard.unlock();
        hash(batch);
        guard.lock();
        ++hashed_;
        if (hashed_ == wanted_)
            changed_.notify_one();
    }
}

} // namespace Replication
