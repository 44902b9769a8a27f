#pragma once

#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/RawRefCountedBlocks.h"
#include "replication/repository/streams/RefCountedBlocks.h"
#include "replication/repository/streams/StreamHandle.h"
#include "replication/repository/streams/Streams.h"
#include "replication/repository/streams/ZeroBytes.h"

#include "base/trees/PagedQueue.h"
#include "base/values/LittleEndian.h"

#include <QTemporaryDir>

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Replication::Test {

/// A pool in a directory of its own, that can be closed and opened again.
struct Pool {
    explicit Pool(std::uint64_t growSize = 1 << 20) {
        configuration.dataGrowSize = growSize;
        configuration.nodeCacheSize = 16;
        configuration.referenceIndirectBlockCacheSize = 8;
        configuration.referenceCountCacheSize = 4;
        open();
    }
    void open() {
        streams = std::make_shared<Streams>(directory.path() + "/streams",
                                            directory.path() + "/data", configuration);
        cleanup = std::make_unique<CleanupWorker>(streams);
    }
    void close() {
        cleanup.reset();
        streams.reset();
    }
    void reopen() {
        close();
        open();
    }
    std::shared_ptr<StreamHandle> make() { return streams->handle(streams->newStream(), false); }

    QTemporaryDir directory;
    Streams::Configuration configuration;
    std::shared_ptr<Streams> streams;
    std::unique_ptr<CleanupWorker> cleanup;
};

/// Compares every count, free list and key of a pool with a walk of all its trees, and of those
/// that wait in the cleanup queue. `extra` are records that stand elsewhere.
class Audit {
public:
    explicit Audit(Streams& streams) : streams_(streams) {}

    void add(TreeParameters const& tree, TreeRecord record) {
        bool const whole = tree.walk(record, [&](std::uint32_t level, std::uint64_t block) {
            auto& counts = level == 0 ? data_ : indirect_;
            return ++counts[block] == 1 ? TreeParameters::Visit::Enter
                                        : TreeParameters::Visit::Skip;
        });
        if (!whole)
            fault("a tree can't be walked");
    }

    std::string run() {
        addStreams();
        addQueue();
        compareData();
        compareIndirect();
        compareKeys();
        return faults_;
    }

private:
    using Counts = std::map<std::uint64_t, std::uint32_t>;
    using KeyName = std::tuple<std::uint64_t, std::uint32_t, std::array<std::uint8_t, 32>>;

    void fault(std::string const& text) { faults_ += text + "\n"; }

    void addStreams() {
        bool const whole = streams_.forEachStream([&](StreamNode const& node) {
            ++nodes_;
            if (node.referenceCount() == 0)
                ++unused_;
            add(streams_.streamTree(), node.record());
            if (node.indexed()) {
                Digest const digest = node.digest();
                ++indexed_[{node.record().length(), digest.type, digest.value}];
                ++indexedCount_;
            }
        });
        if (!whole)
            fault("a node can't be read");
        std::uint64_t free = 0;
        if (!streams_.forEachFreeNode([&](std::uint64_t) { return ++free != 0; }))
            fault("the chain of free nodes is damaged");
    }

    void addQueue() {
        bool const whole =
            streams_.cleanupQueue()
                .forEach([&](Morva::Extent const& entry) {
                    CleanupRequest request;
                    if (!request.decode(entry)) {
                        fault("bad request");
                    } else if (request.type == CleanupRequest::DeleteInfo) {
                        add(request.record.size == TreeRecord::nodeSize ? streams_.nodeTree()
                                                                        : streams_.streamTree(),
                            TreeRecord::readOnly(request.record.data));
                    }
                    return true;
                })
                .ok();
        if (!whole)
            fault("a request can't be read");
    }

    void compareCounts(char const* name, Counts const& expected, Counts const& found) {
        for (auto const& [block, count] : expected) {
            auto const at = found.find(block);
            if (at == found.end() || at->second != count)
                fault(std::string(name) + " block " + std::to_string(block) + " is named " +
                      std::to_string(count) + " times and counted " +
                      std::to_string(at == found.end() ? 0 : at->second));
        }
        for (auto const& [block, count] : found) {
            if (!expected.contains(block))
                fault(std::string(name) + " block " + std::to_string(block) + " is counted " +
                      std::to_string(count) + " times and named by nobody");
        }
    }

    void compareData() {
        Counts found;
        bool good = streams_.data().forEachCount([&](std::uint64_t block, std::uint32_t count) {
            found[block] = count;
            return true;
        });
        compareCounts("data", data_, found);
        std::set<std::uint64_t> free;
        std::uint64_t runs = 0;
        good = streams_.data().forEachFree([&](std::uint64_t first, std::uint64_t count) {
            for (std::uint64_t block = first; block < first + count; ++block) {
                if (!free.insert(block).second || found.contains(block))
                    fault("data block " + std::to_string(block) + " is free and taken");
            }
            return ++runs != 0;
        }) && good;
        std::uint64_t total = 0;
        static_cast<void>(streams_.data().blocksUsed(&total));
        if (!good || free.size() + found.size() + 1 != total)
            fault("data blocks: " + std::to_string(free.size()) + " free, " +
                  std::to_string(found.size()) + " used, " + std::to_string(total) + " in all");
    }

    void compareIndirect() {
        Counts found;
        bool good = streams_.indirect().forEachCount([&](std::uint64_t block, std::uint32_t count) {
            found[block] = count;
            return true;
        });
        compareCounts("indirect", indirect_, found);
        std::uint64_t free = 0;
        good = streams_.indirect().forEachFree([&](std::uint64_t) { return ++free != 0; }) && good;
        std::uint64_t total = 0;
        static_cast<void>(streams_.indirect().blocksUsed(&total));
        if (!good || free + found.size() + 1 != total)
            fault("indirect blocks: " + std::to_string(free) + " free, " +
                  std::to_string(found.size()) + " used, " + std::to_string(total) + " in all");
    }

    void compareKeys() {
        std::uint64_t keys = 0;
        if (!streams_.forEachKey([&](DedupKey& key) {
                ++keys;
                Digest const digest = key.digest();
                KeyName const name{key.length(), digest.type, digest.value};
                if (!indexed_.contains(name) || indexed_[name] != key.referenceCount())
                    fault("a key counts " + std::to_string(key.referenceCount()) + " streams");
            }))
            fault("the index is damaged");
        QByteArray record = streams_.controlRecord();
        PoolControl const control(record.data());
        if (keys != indexed_.size() || control.uniqueStreams() != keys ||
            control.indexedStreams() != indexedCount_)
            fault("the counters of the index are wrong");
    }

    Streams& streams_;
    Counts data_;
    Counts indirect_;
    std::map<KeyName, std::uint32_t> indexed_;
    std::uint64_t indexedCount_ = 0;
    std::uint64_t nodes_ = 0;
    std::uint64_t unused_ = 0;
    std::string faults_;
};

/// All of a pool that a deletion must give back: data, indirect blocks, nodes, keys.
inline std::vector<std::uint64_t> usage(Streams& streams) {
    std::uint64_t nodes = 0;
    std::uint64_t keys = 0;
    static_cast<void>(streams.forEachStream([&](StreamNode const&) { ++nodes; }));
    static_cast<void>(streams.forEachKey([&](DedupKey&) { ++keys; }));
    return {streams.data().blocksUsed(nullptr), streams.indirect().blocksUsed(nullptr), nodes,
            keys};
}

/// What a stream should hold: a length, and blocks of bytes where there were writes.
class Model {
public:
    static constexpr std::uint64_t blockSize = TreeParameters::blockSize;

    explicit Model(TreeParameters const& tree) {
        for (std::uint32_t depth = 0; depth < maximum_.size(); ++depth)
            maximum_[depth] = tree.maximum(depth);
    }

    std::uint64_t length = 0;

    [[nodiscard]] std::uint32_t depth() const {
        std::uint32_t result = 0;
        while (maximum_[result] < length)
            ++result;
        return result;
    }
    void write(std::uint64_t offset, std::uint8_t const* data, std::uint64_t count, bool noExtend) {
        if (noExtend)
            count = offset >= length ? 0 : std::min(count, length - offset);
        eachBlock(
            offset, count,
            [&](std::uint64_t block, std::uint64_t within, std::uint64_t at, std::uint64_t chunk) {
                std::memcpy(&blocks_[block][within], data + at, chunk);
            });
        if (count != 0)
            length = std::max(length, offset + count);
    }
    void zero(std::uint64_t start, std::uint64_t end) {
        if (start == end)
            return;
        length = std::max(length, end);
        // From depth 1 on a start within a block clears that block to its end.
        if (depth() != 0 && start % blockSize != 0 && start < end)
            end = std::max(end, (start / blockSize + 1) * blockSize);
        clear(start, end);
    }
    void truncate(std::uint64_t newLength) {
        if (newLength < length)
            clear(newLength, ~std::uint64_t{0});
        length = newLength;
    }
    [[nodiscard]] std::vector<std::uint8_t> read(std::uint64_t offset, std::uint64_t count) const {
        count = offset >= length ? 0 : std::min(count, length - offset);
        std::vector<std::uint8_t> result(count);
        eachBlock(
            offset, count,
            [&](std::uint64_t block, std::uint64_t within, std::uint64_t at, std::uint64_t chunk) {
                auto const found = blocks_.find(block);
                if (found != blocks_.end())
                    std::memcpy(&result[at], &found->second[within], chunk);
            });
        return result;
    }
    [[nodiscard]] auto const& blocks() const { return blocks_; }

private:
    template <class Visit>
    static void eachBlock(std::uint64_t offset, std::uint64_t count, Visit const& visit) {
        for (std::uint64_t at = 0; at < count;) {
            std::uint64_t const within = (offset + at) % blockSize;
            std::uint64_t const chunk = std::min(count - at, blockSize - within);
            visit((offset + at) / blockSize, within, at, chunk);
            at += chunk;
        }
    }
    void clear(std::uint64_t start, std::uint64_t end) {
        auto block = blocks_.lower_bound(start / blockSize);
        while (block != blocks_.end() && block->first * blockSize < end) {
            std::uint64_t const base = block->first * blockSize;
            std::uint64_t const from = std::max(start, base) - base;
            std::uint64_t const to = std::min(end - base, blockSize);
            std::fill(block->second.begin() + static_cast<long>(from),
                      block->second.begin() + static_cast<long>(to), 0);
            block = from == 0 && to == blockSize ? blocks_.erase(block) : std::next(block);
        }
    }

    std::array<std::uint64_t, TreeParameters::maximumDepth + 1> maximum_{};
    std::map<std::uint64_t, std::array<std::uint8_t, blockSize>> blocks_;
};

/// A new seed, or the one in MORVA_SEED to repeat a run that failed.
inline std::uint64_t newSeed() {
    char const* given = std::getenv("MORVA_SEED");
    return given ? std::strtoull(given, nullptr, 10) : std::random_device{}();
}

/// Random offsets where trees change their shape.
inline std::uint64_t randomOffset(std::mt19937_64& random, TreeParameters const& tree) {
    std::uint64_t const edges[] = {0,
                                   tree.maximum(0),
                                   4096,
                                   tree.maximum(1),
                                   2097152,
                                   tree.maximum(2),
                                   1073741824,
                                   tree.maximum(3),
                                   549755813888,
                                   tree.maximum(4) - 2000000};
    // The low edges come more often, so that most trees stay small.
    std::uint64_t const edge = edges[std::min(random() % 10, random() % 10)];
    switch (random() % 3) {
    case 0:
        return edge;
    case 1:
        return edge + random() % 20000;
    default:
        return edge - std::min<std::uint64_t>(edge, random() % 20000);
    }
}

inline std::vector<std::uint8_t> randomBytes(std::mt19937_64& random, std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    auto const seed = static_cast<std::uint8_t>(random() | 1);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
    return bytes;
}

} // namespace Replication::Test
