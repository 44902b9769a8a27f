#include "replication/repository/streams/Streams.h"

#include "base/blocks/Blocks.h"
#include "base/messages/XmlList.h"
#include "base/trees/BPlusTree.h"
#include "base/trees/PagedQueue.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"
#include "replication/repository/streams/StatisticsRow.h"

namespace Replication {

using Morva::Status;
using Morva::TracedLock;

struct Streams::Statistic {
    char const* key;
    char const* row;
    std::uint64_t value;
};

std::vector<Streams::Statistic> Streams::collectStatistics() {
    std::vector<Statistic> all;
    if (!valid_)
        return all;
    auto const add = [&all](char const* key, char const* row, std::uint64_t value) {
        all.push_back({key, row, value});
    };
    {
        TracedLock lock(nodesLock_);
        std::uint64_t const total = nodes_->blockCount();
        std::uint64_t const used = total - nodes_->freeCount();
        add("NodeCount", "Total Streams", used);
        add("TotalNodeData", "Total Stream Node Data", total * StreamNode::size);
        add("UsedNodeData", "Used Stream Node Data", used * StreamNode::size);
        add("StreamsNodeCacheHits", "Node Cache Hits", nodes_->hits());
        add("StreamsNodeCacheMisses", "Node Cache Misses", nodes_->misses());
        add("StreamsNodeCacheSize", "Node Cache Size", nodes_->size());
    }
    {
        TracedLock lock(dedupLock_);
        add("StreamsIndexedStreams", "Indexed Streams", control_.indexedStreams());
        add("StreamsUniqueStreams", "Unique Streams", control_.uniqueStreams());
        add("StreamsIndexedData", "Indexed Data", control_.indexedData());
        add("StreamsUniqueData", "Unique Data", control_.uniqueData());
        Morva::BlockCache const* cache = dedup_->cache();
        add("StreamsDedupCacheHits", "Dedup Cache Hits", cache ? cache->hits() : 0);
        add("StreamsDedupCacheMisses", "Dedup Cache Misses", cache ? cache->misses() : 0);
        add("StreamsDedupCacheSize", "Dedup Cache Size", cache ? cache->size() : 0);
    }
    std::uint64_t total = 0;
    std::uint64_t used = data_->blocksUsed(&total);
    add("StreamsTotalStreamData", "Total Stream Data", total * TreeParameters::blockSize);
    add("StreamsUsedStreamData", "Used Stream Data", used * TreeParameters::blockSize);
    add("StreamsRefCountCacheHits", "Stream Reference Count Cache Hits", data_->cacheHits());
    add("StreamsRefCountCacheMisses", "Stream Reference Count Cache Misses", data_->cacheMisses());
    add("StreamsRefCountCacheSize", "Stream Reference Count Cache Size", data_->cacheSize());
    used = indirect_->blocksUsed(&total);
    add("StreamsIndirectTotalSize", "Total Stream Indirect Data",
        total * TreeParameters::blockSize);
    add("StreamsIndirectUsedSize", "Used Stream Indirect Data", used * TreeParameters::blockSize);
    add("StreamsIndirectBlockCacheHits", "Stream Indirect Block Cache Hits",
        indirect_->cacheHits());
    add("StreamsIndirectBlockCacheMisses", "Stream Indirect Block Cache Misses",
        indirect_->cacheMisses());
    add("StreamsIndirectBlockCacheSize", "Stream Indirect Block Cache Size",
        indirect_->cacheSize());
    add("StreamsIndirectRefCountCacheHits", "Stream Indirect Reference Count Cache Hits",
        indirect_->refCacheHits());
    add("StreamsIndirectRefCountCacheMisses", "Stream Indirect Reference Count Cache Misses",
        indirect_->refCacheMisses());
    add("StreamsIndirectRefCountCacheSize", "Stream Indirect Reference Count Cache Size",
        indirect_->refCacheSize());
    std::uint64_t waiting = 0;
    if (dedupQueue_->available(waiting))
        add("StreamsDedupQueueLength", "Dedup Queue Length", waiting);
    if (cleanupQueue_->available(waiting))
        add("StreamsCleanupQueueLength", "Cleanup Queue Length", waiting);
    return all;
}

void Streams::statistics(Morva::XmlList& result) {
    Morva::XmlList list;
    for (Statistic const& statistic : collectStatistics())
        list.set(statistic.key, statistic.value);
    result.set("Streams", list);
}

void Streams::report(QStringList& lines) {
    lines << "<H2>Repository Streams</H2>"
          << "<TABLE>";
    for (Statistic const& statistic : collectStatistics())
        lines << statisticsRow(QString::fromLatin1(statistic.row),
                               QString::number(statistic.value));
    lines << "</TABLE>";
}

bool Streams::forEachStream(std::function<void(StreamNode const&)> const& visit) const {
    TracedLock lock(nodesLock_);
    bool whole = true;
    for (std::uint64_t number = Morva::Blocks::firstBlock() + 1; number < nodes_->blockCount();
         ++number) {
        auto const block = nodes_->getBlock(number);
        if (!block) {
            whole = false;
            continue;
        }
        StreamNode const node(*block);
        if (node.id() == StreamId{number})
            visit(node);
        nodes_->returnBlock(*block, false);
    }
    return whole;
}

bool Streams::forEachFreeNode(std::function<bool(std::uint64_t number)> const& visit) const {
    TracedLock lock(nodesLock_);
    return nodes_->forEachFree(visit).ok();
}

bool Streams::forEachKey(std::function<void(DedupKey&)> const& visit) const {
    TracedLock lock(dedupLock_);
    bool whole = true;
    Status const reached = dedup_->forEach([&](Morva::Extent const& stored) {
        DedupKey key;
        if (key.restore(stored))
            visit(key);
        else
            whole = false;
        return true;
    });
    return reached.ok() && whole;
}

QByteArray Streams::controlRecord() const {
    TracedLock dedup(dedupLock_);
    TracedLock nodes(nodesLock_);
    return {static_cast<char const*>(control_.block()), PoolControl::size};
}

} // namespace Replication
