#include "replication/repository/streams/Streams.h"

#include "base/blocks/Blocks.h"
#include "base/blocks/Failures.h"
#include "base/trace/Trace.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/DedupPass.h"
#include "replication/repository/streams/Info.h"

#include <cstring>

namespace Replication {

using Morva::TracedLock;

namespace {

/// Blocks that one slice of a deletion frees before others get the gate.
constexpr std::uint32_t sliceBlocks = 4096;

} // namespace

bool Streams::dedupStream(std::function<void()> const& checkForFreeze, StreamId id,
                          DedupStatistics& statistics, Morva::Extent& buffer) {
    MORVA_METHOD("dedupStream");
    DedupPass pass(*this, checkForFreeze, statistics, buffer);
    bool const added = pass.add(id);
    return scope.result(pass.finish() && added);
}

bool Streams::findDedup(std::uint64_t length, Digest const& digest) {
    DedupKey key(length, digest);
    TracedLock lock(dedupLock_);
    auto const found = dedup_->find(key);
    return found.ok() && *found;
}

bool Streams::addDedup(StreamNode node, DedupStatistics& statistics) {
    // A key has no room for any other digest: it would join contents that differ.
    if (node.digestType() != Digest::eRepDigestSha1 || node.record().depth() == 0)
        return false;
    std::uint64_t const length = node.record().length();
    TracedLock lock(dedupLock_);
    DedupKey key(length, node.digest());
    auto const found = dedup_->find(key);
    if (!found.ok()) {
        streamTree_->failed();
        return false;
    }
    if (*found) {
        if (!joinKey(key, node))
            return false;
    } else {
        key.referenceCount(1);
        std::memcpy(key.record().bytes(), node.record().bytes(), TreeRecord::streamSize);
        if (!dedup_->insert(key)) {
            streamTree_->failed();
            return false;
        }
        control_.addUnique(length);
        statistics.uniqueStreams += 1;
        statistics.uniqueSize += length;
    }
    control_.addIndexed(length);
    statistics.streams += 1;
    statistics.dedupedSize += length;
    updateControl();
    node.indexed(true);
    return true;
}

// The references come before the old tree goes: both can be the same tree.
bool Streams::joinKey(DedupKey& key, StreamNode node) {
    if (!streamTree_->incrementEntry(key.record()))
        return false;
    streamTree_->decrementEntry(node.record());
    std::memcpy(node.record().bytes(), key.record().bytes(), TreeRecord::streamSize);
    key.referenceCount(key.referenceCount() + 1);
    updateKey(key);
    return true;
}

void Streams::updateKey(DedupKey const& key) {
    if (!dedup_->update(key))
        streamTree_->failed();
}

bool Streams::useDedup(StreamNode node, std::uint64_t length, Digest const& digest) {
    MORVA_METHOD("useDedup");
    TracedLock lock(dedupLock_);
    DedupKey key(length, digest);
    if (auto const found = dedup_->find(key); !found.ok() || !*found)
        return scope.result(false);
    if (node.indexed() && node.record().length() == length && node.digest() == key.digest())
        return scope.result(true);
    bool const wasIndexed = node.indexed();
    std::uint64_t const oldLength = node.record().length();
    Digest const oldDigest = node.digest();
    if (wasIndexed) {
        // Nothing is begun when the key that is to be left can't be read.
        DedupKey old(oldLength, oldDigest);
        if (!dedup_->find(old).ok())
            return scope.result(false);
    }
    if (!joinKey(key, node))
        return scope.result(false);
    // The old tree may be going already, but nobody can find its key meanwhile.
    if (wasIndexed && !leaveKey(oldLength, oldDigest, "Dedup key not found"))
        streamTree_->failed();
    control_.addIndexed(length);
    node.digest(key.digest());
    node.indexed(true);
    node.frozen(true);
    updateControl();
    update(node);
    return scope.result(true);
}

bool Streams::leaveKey(std::uint64_t length, Digest const& digest, char const* missing) {
    DedupKey key(length, digest);
    // A key that can't be read stays, and with it the stream: its blocks would be given to others
    // while the key still leads there.
    auto const found = dedup_->find(key);
    if (!found.ok())
        return false;
    if (*found) {
        std::uint32_t const left = key.referenceCount() == 0 ? 0 : key.referenceCount() - 1;
        key.referenceCount(left);
        if (!(left != 0 ? dedup_->update(key) : dedup_->remove(key)))
            return false;
        if (left == 0)
            control_.removeUnique(length);
    } else {
        MORVA_CHECK(false, "bKeyFound");
        MORVA_TRACE(Always) << missing;
    }
    control_.removeIndexed(length);
    updateControl();
    return true;
}

bool Streams::requestDeleteStream(StreamId id) {
    if (CleanupRequest::deleteStream(*cleanupQueue_, id))
        return true;
    failures_->fetch_add(1, std::memory_order_relaxed);
    TracedLock lock(nodesLock_);
    deferredDeletes_.push_back(id); // the next flush asks again
    return false;
}

bool Streams::claimForDeletion(StreamId id, StreamNode& node) {
    TracedLock open(openLock_);
    if (open_.contains(id) || deleting_.contains(id) || isSaved(id))
        return false;
    Morva::Failures::Watch const watch;
    node = loadNode(id);
    if (!node && watch.any()) {
        TracedLock nodes(nodesLock_);
        deferredDeletes_.push_back(id); // the next flush asks again
    }
    if (!node)
        return false;
    if (node.referenceCount() != 0) {
        TracedLock nodes(nodesLock_);
        nodes_->returnBlock(node.block(), false);
        return false;
    }
    deleting_.insert(id);
    return true;
}

void Streams::endDeletion(StreamId id, StreamNode node, bool done) {
    TracedLock open(openLock_);
    deleting_.erase(id);
    TracedLock nodes(nodesLock_);
    if (!done)
        nodes_->returnBlock(node.block(), false);
    else if (!nodes_->freeBlock(node.block()))
        streamTree_->failed();
}

// Before the stream's tree goes, so that nobody joins a key whose blocks are gone.
bool Streams::leaveIndex(StreamNode node) {
    TracedLock lock(dedupLock_);
    if (!leaveKey(node.record().length(), node.digest(), "Dedup Key not found"))
        return false;
    node.indexed(false);
    update(node);
    return true;
}

bool Streams::deleteStream(StreamId id, std::function<void()> const& done) {
    MORVA_METHOD("deleteStream");
    if (stopping())
        return scope.result(false);
    StreamNode node;
    for (bool finished = false; !finished;) {
        OperationGate::Enter gate;
        if (!node) {
            finished = !claimForDeletion(id, node);
            if (!finished && node.indexed() && !leaveIndex(node)) {
                endDeletion(id, node, false);
                node = StreamNode();
                TracedLock lock(nodesLock_);
                deferredDeletes_.push_back(id); // the next flush asks again
                finished = true;
            }
        }
        if (node && !finished) {
            Info info(streamTree_.get(), node.record());
            finished = info.releaseSlice(sliceBlocks);
            if (finished || stopping())
                endDeletion(id, node, finished);
        }
        if (finished && done)
            done();
        if (!finished && stopping())
            return scope.result(false);
    }
    return scope.result(true);
}

bool Streams::deleteInfo(Morva::Extent const& record, std::function<void()> const& done) {
    MORVA_METHOD("deleteInfo");
    if (stopping())
        return scope.result(false);
    alignas(8) std::array<std::uint8_t, TreeRecord::nodeSize> copy;
    bool const known = record.size == TreeRecord::streamSize || record.size == TreeRecord::nodeSize;
    if (known)
        std::memcpy(copy.data(), record.data, record.size);
    TreeParameters const& tree = record.size == TreeRecord::nodeSize ? *nodeTree_ : *streamTree_;
    Info info(&tree, TreeRecord(copy.data()));
    for (bool finished = !known;;) {
        OperationGate::Enter gate;
        finished = finished || info.releaseSlice(sliceBlocks);
        if (finished) {
            if (done)
                done();
            return scope.result(true);
        }
        if (stopping())
            return scope.result(false);
    }
}

} // namespace Replication
