#include "replication/repository/streams/DedupPass.h"

#include "base/trace/Trace.h"
#include "replication/common/values/Digest.h"
#include "replication/repository/streams/OperationGate.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"

#include <system_error>

namespace Replication {

using Morva::Extent;

namespace {

/// A second thread has as much room as the first one, or there is none.
constexpr std::uint32_t smallestRoom = 65536;
/// A job is full when it has one of these; its results are entered in one hold of the gate.
constexpr std::uint64_t fullBytes = 262144;
constexpr std::size_t fullCount = 256;

} // namespace

DedupPass::DedupPass(Streams& pool, std::function<void()> checkForFreeze,
                     DedupStatistics& statistics, Extent const& buffer)
    : pool_(pool), checkForFreeze_(std::move(checkForFreeze)), statistics_(statistics) {
    if (buffer.size == 0)
        return;
    std::uint32_t const room = buffer.size >= 2 * smallestRoom ? buffer.size / 2 : buffer.size;
    auto* bytes = static_cast<std::uint8_t*>(buffer.data);
    ownHasher_ = std::make_unique<StreamHasher>(
        pool.data(), Extent(static_cast<void*>(bytes), room), [this] { return goOn(); });
    if (room < buffer.size)
        secondHasher_ = std::make_unique<StreamHasher>(
            pool.data(), Extent(static_cast<void*>(bytes + room), room),
            [&pool] { return !pool.stopping(); });
}

DedupPass::~DedupPass() {
    if (second_.joinable()) {
        {
            std::lock_guard const guard(lock_);
            quit_ = true;
        }
        changed_.notify_all();
        second_.join();
    }
    OperationGate::Enter const gate;
    for (Job& job : jobs_)
        job.items.clear();
}

bool DedupPass::goOn() {
    if (pool_.freezing() && !pool_.stopping() && checkForFreeze_)
        checkForFreeze_();
    return !pool_.stopping();
}

bool DedupPass::add(StreamId id) {
    if (!goOn())
        return false;
    if (std::shared_ptr<StreamHandle> stream = pool_.handle(id, true)) {
        OperationGate::Enter const gate;
        if (stream->prepareDedup(statistics_) && ownHasher_) {
            Job& gathering = job(handed_);
            std::uint64_t const length = stream->length();
            gathering.bytes += length;
            gathering.items.push_back({std::move(stream), length, false, {}});
        }
        stream.reset();
    }
    ++added_;
    if (Job const& gathering = job(handed_);
        gathering.bytes >= fullBytes || gathering.items.size() >= fullCount)
        handOn(true);
    return !pool_.stopping();
}

/// Has the job at hand worked off and finds another one; `more` when there is going to be more.
void DedupPass::handOn(bool more) {
    job(handed_).ended = added_;
    if (more && secondHasher_ && !second_.joinable())
        startSecond();
    {
        std::lock_guard const guard(lock_);
        ++handed_;
    }
    changed_.notify_one();
    if (handed_ - settled_ == mostJobs || !second_.joinable())
        helpUntilDone(settled_);
    settleDone();
}

void DedupPass::startSecond() {
    try {
        second_ = std::thread([this] { work(); });
    } catch (std::system_error const& error) {
        MORVA_TRACE(Always) << "Failed to start a thread that hashes" << error.what();
        secondHasher_.reset();
    }
}

void DedupPass::work() {
    pool_.beginThread();
    std::unique_lock guard(lock_);
    for (;;) {
        changed_.wait(guard, [this] { return quit_ || claimed_ < handed_; });
        if (quit_)
            break;
        std::uint64_t const number = claimed_++;
        guard.unlock();
        secondHasher_->hash(job(number).items);
        guard.lock();
        job(number).done = true;
        if (number == wanted_)
            changed_.notify_one();
    }
    guard.unlock();
    pool_.endThread();
}

void DedupPass::helpUntilDone(std::uint64_t number) {
    std::unique_lock guard(lock_);
    wanted_ = number;
    while (!job(number).done) {
        if (claimed_ == handed_) {
            changed_.wait(guard, [&] { return job(number).done; });
            return;
        }
        Job& claimed = job(claimed_++);
        guard.unlock();
        ownHasher_->hash(claimed.items);
        guard.lock();
        claimed.done = true;
    }
}

bool DedupPass::isDone(std::uint64_t number) {
    std::lock_guard const guard(lock_);
    return number < handed_ && job(number).done;
}

void DedupPass::settleDone() {
    while (isDone(settled_))
        settle(job(settled_++));
}

void DedupPass::settle(Job& job) {
    bool const goes = !pool_.stopping();
    OperationGate::Enter const gate;
    for (StreamHasher::Item const& item : job.items)
        if (goes && item.whole)
            item.stream->setDigest(Digest::eRepDigestSha1, item.digest.data(), statistics_);
    job.items.clear();
    job.bytes = 0;
    job.done = false;
    if (goes)
        done_ = job.ended;
}

bool DedupPass::finish() {
    if (!pool_.stopping()) {
        if (!job(handed_).items.empty())
            handOn(false);
        while (settled_ < handed_) {
            helpUntilDone(settled_);
            settleDone();
        }
    }
    if (pool_.stopping())
        return false;
    done_ = added_;
    return true;
}

} // namespace Replication
