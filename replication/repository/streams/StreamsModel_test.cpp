#include "base/files/FaultyFiles.h"
#include "replication/repository/streams/TestSupport.h"

#include <atomic>
#include <thread>

using namespace Replication;
using namespace Replication::Test;

namespace {

/// Streams of a pool beside models of them. Several slots can name one stream.
class Play {
public:
    explicit Play(std::uint64_t seed) : random_(seed) {}

    Pool pool;
    std::vector<std::uint64_t> const empty = usage(*pool.streams);

    void step() {
        if (slots_.size() < 6) {
            slots_.push_back({pool.make(), Model(pool.streams->streamTree())});
            return;
        }
        Slot& slot = slots_[random_() % slots_.size()];
        switch (random_() % 14) {
        case 0:
            slot.stream->addReference();
            slots_.push_back(Slot(slot));
            break;
        case 1:
            drop(random_() % slots_.size());
            break;
        case 2:
            dedup(slot);
            break;
        case 3:
            useDedup(slot, slots_[random_() % slots_.size()]);
            break;
        default:
            change(slot);
        }
    }

    void compare() {
        for (Slot& slot : slots_) {
            ASSERT_EQ(slot.stream->length(), slot.model.length);
            for (auto const& [number, bytes] : slot.model.blocks())
                compare(slot, number * Model::blockSize, Model::blockSize);
            for (int i = 0; i < 10; ++i)
                compare(slot, randomOffset(random_, pool.streams->streamTree()), 30000);
        }
        ASSERT_EQ(Audit(*pool.streams).run(), "");
    }

    void reopen() {
        std::vector<StreamId> ids;
        for (Slot& slot : slots_) {
            ids.push_back(slot.stream->id());
            slot.stream.reset();
        }
        pool.reopen();
        for (std::size_t i = 0; i < ids.size(); ++i)
            slots_[i].stream = pool.streams->handle(ids[i], false);
    }

    void clear() {
        while (!slots_.empty())
            drop(0);
    }

private:
    struct Slot {
        std::shared_ptr<StreamHandle> stream;
        Model model;
    };

    void drop(std::size_t at) {
        slots_[at].stream->releaseReference();
        slots_.erase(slots_.begin() + static_cast<long>(at));
    }

    void change(Slot& slot) {
        std::shared_ptr<StreamHandle> copy;
        ASSERT_TRUE(slot.stream->copyOnWrite(copy));
        if (copy)
            slot.stream = copy;
        std::uint64_t const offset = randomOffset(random_, pool.streams->streamTree());
        switch (random_() % 8) {
        case 0:
            EXPECT_TRUE(slot.stream->truncate(offset));
            slot.model.truncate(offset);
            break;
        case 1: {
            std::uint64_t const end = offset + random_() % 200000;
            EXPECT_TRUE(slot.stream->zeroData(offset, end));
            slot.model.zero(offset, end);
            break;
        }
        case 2: {
            // Contents that meet again, for the index.
            std::vector<std::uint8_t> const data(random_() % 3 * 5000 + 100, 7);
            EXPECT_TRUE(slot.stream->truncate(0));
            slot.model.truncate(0);
            write(slot, 0, data, false);
            break;
        }
        default:
            write(slot, offset,
                  randomBytes(random_, random_() % (random_() % 10 ? 20000 : 1 << 20)),
                  random_() % 4 == 0);
        }
    }

    void write(Slot& slot, std::uint64_t offset, std::vector<std::uint8_t> const& data,
               bool noExtend) {
        EXPECT_TRUE(slot.stream->write(offset, data.data(), static_cast<std::uint32_t>(data.size()),
                                       noExtend));
        slot.model.write(offset, data.data(), data.size(), noExtend);
    }

    void dedup(Slot& slot) {
        if (slot.model.length > 10'000'000)
            return;
        Morva::Extent buffer(room_.data(), static_cast<std::uint32_t>(room_.size()));
        EXPECT_TRUE(pool.streams->dedupStream({}, slot.stream->id(), statistics_, buffer));
    }

    void useDedup(Slot& slot, Slot const& from) {
        StreamInfo info;
        from.stream->info(info);
        if (info.indexed && slot.stream->useDedup(info.length, info.digest))
            slot.model = Model(from.model);
    }

    void compare(Slot& slot, std::uint64_t offset, std::uint32_t count) {
        std::vector<std::uint8_t> got(count, 0xee);
        got.resize(slot.stream->read(offset, got.data(), count));
        auto const expected = slot.model.read(offset, count);
        ASSERT_EQ(got == expected, true) << "at " << offset;
        ASSERT_EQ(slot.stream->isZero(offset, offset + got.size()),
                  offset + got.size() <= slot.model.length &&
                      allZero(expected.data(), expected.size()));
    }

    std::mt19937_64 random_;
    std::vector<Slot> slots_;
    std::vector<std::uint8_t> room_ = std::vector<std::uint8_t>(1 << 16);
    DedupStatistics statistics_;
};

} // namespace

TEST(StreamsModel, RandomHistoriesMatchTheirModels) {
    std::uint64_t const seed = newSeed();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Play play(seed);
    for (int batch = 0; batch < 30; ++batch) {
        SCOPED_TRACE("batch " + std::to_string(batch));
        for (int i = 0; i < 40; ++i)
            play.step();
        ASSERT_NO_FATAL_FAILURE(play.compare());
        if (batch % 3 == 0) {
            ASSERT_TRUE(play.pool.cleanup->drain());
        }
        if (batch % 7 == 6)
            play.reopen();
    }
    EXPECT_EQ(play.pool.streams->failures(), 0u);
    play.clear();
    ASSERT_TRUE(play.pool.cleanup->drain());
    EXPECT_EQ(Audit(*play.pool.streams).run(), "");
    EXPECT_EQ(usage(*play.pool.streams), play.empty);
}

namespace {

/// One history with a fault in it: whatever failed was counted, and what was reported as good
/// before the fault is still there.
void playFault(std::function<void(Morva::FaultyFiles&)> const& order) {
    Morva::FaultyFiles disk;
    Pool pool;
    ASSERT_TRUE(static_cast<bool>(*pool.streams));
    std::mt19937_64 random(5);
    auto kept = pool.make();
    auto const before = randomBytes(random, 300000);
    kept->write(0, before.data(), 300000);
    ASSERT_TRUE(pool.streams->flush());
    ASSERT_EQ(pool.streams->failures(), 0u);

    auto fresh = pool.make();
    kept->addReference();
    std::shared_ptr<StreamHandle> copy;
    ASSERT_TRUE(kept->copyOnWrite(copy));
    auto const after = randomBytes(random, 3 << 20);
    order(disk);
    fresh->write(0, after.data(), 3 << 20);
    copy->write(1000, after.data(), 250000);
    copy->truncate(94000);
    copy->truncate(150);
    bool const counted = pool.streams->failures() != 0;
    disk.heal();
    if (!counted) {
        std::vector<std::uint8_t> got(3 << 20);
        EXPECT_EQ(fresh->read(0, got.data(), 3 << 20), 3u << 20);
        EXPECT_EQ(got, after);
        EXPECT_EQ(copy->length(), 150u);
    } else {
        std::vector<std::uint8_t> got(fresh->length());
        EXPECT_EQ(fresh->read(0, got.data(), static_cast<std::uint32_t>(got.size())), got.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), after.begin()))
            << "the length covers what was written and no more";
    }
    std::vector<std::uint8_t> got(300000);
    EXPECT_EQ(kept->read(0, got.data(), 300000), 300000u);
    EXPECT_EQ(got, before) << "the other owner of shared blocks sees nothing of it";
    EXPECT_EQ(Audit(*pool.streams).run(), "");
    for (auto* stream : {&kept, &fresh, &copy}) {
        (*stream)->releaseReference();
        stream->reset();
    }
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(Audit(*pool.streams).run(), "");
    pool.close();
}

} // namespace

TEST(StreamsFaults, FailedWritesAreCountedAndLeaveWholeTrees) {
    for (std::uint64_t n = 1; n < 40; n += 2) {
        SCOPED_TRACE(n);
        playFault([n](Morva::FaultyFiles& disk) {
            disk.onlyNamesEndingWith("data.blocks");
            disk.failWrite(n);
        });
        playFault([n](Morva::FaultyFiles& disk) {
            disk.onlyNamesEndingWith("data.blocks");
            disk.shortWrite(n);
        });
        playFault([n](Morva::FaultyFiles& disk) {
            disk.onlyNamesEndingWith("data.blocks");
            disk.failWritesAfter(n);
        });
    }
}

TEST(StreamsFaults, FullDiskIsCountedAndLeavesWholeTrees) {
    for (std::uint64_t room : {0, 4096, 200000, 1 << 20, 2500000, 4 << 20}) {
        SCOPED_TRACE(room);
        playFault([room](Morva::FaultyFiles& disk) { disk.diskBudget(room); });
    }
}

TEST(StreamsFaults, UnreadableBlocksGiveZerosAndAreCounted) {
    Morva::FaultyFiles disk;
    Pool pool;
    std::mt19937_64 random(6);
    auto stream = pool.make();
    auto const data = randomBytes(random, 200000);
    stream->write(0, data.data(), 200000);
    disk.onlyNamesEndingWith("data.blocks");
    disk.failReadsAfter(0);
    std::vector<std::uint8_t> got(200000, 1);
    EXPECT_EQ(stream->read(0, got.data(), 200000), 200000u);
    EXPECT_TRUE(allZero(got.data(), got.size()));
    EXPECT_GT(pool.streams->failures(), 0u);
    DedupStatistics statistics;
    Morva::Extent buffer(got.data(), 65536);
    EXPECT_TRUE(pool.streams->dedupStream({}, stream->id(), statistics, buffer));
    StreamInfo info;
    stream->info(info);
    EXPECT_EQ(info.digest.type, Digest::eRepDigestInvalid) << "no digest of what wasn't read";
    disk.heal();
    EXPECT_EQ(stream->read(0, got.data(), 200000), 200000u);
    EXPECT_EQ(got, data);
    stream.reset();
    pool.close();
}

TEST(StreamsFaults, PoolOpensOrRefusesAfterACrashAnywhere) {
    for (std::uint64_t n = 1;; n += 3) {
        SCOPED_TRACE(n);
        Morva::FaultyFiles disk;
        QTemporaryDir keep;
        disk.crashAtWrite(n);
        Pool pool;
        bool const made = static_cast<bool>(*pool.streams);
        if (made) {
            std::vector<std::uint8_t> const data(150000, 4);
            for (int i = 0; i < 4; ++i) {
                auto stream = pool.make();
                if (!stream)
                    continue;
                stream->write(static_cast<std::uint64_t>(i) << 26, data.data(), 150000);
                static_cast<void>(pool.streams->flush());
                stream->truncate(0);
            }
        }
        bool const crashed = disk.crashed();
        pool.close();
        disk.restart(Morva::FaultyFiles::Unsynced::Random, n);
        pool.open();
        if (static_cast<bool>(*pool.streams)) {
            std::vector<StreamId> ids;
            static_cast<void>(pool.streams->forEachStream(
                [&](StreamNode const& node) { ids.push_back(node.id()); }));
            std::vector<std::uint8_t> got(200000);
            for (StreamId id : ids) {
                if (auto stream = pool.streams->handle(id, true)) {
                    static_cast<void>(stream->read(0, got.data(), 200000));
                    stream->write(100, got.data(), 5000);
                    stream->truncate(0);
                }
            }
            static_cast<void>(pool.cleanup->drain());
        }
        pool.close();
        if (!crashed)
            break;
    }
}

TEST(StreamsThreads, WritersAndCleanupWorkSideBySide) {
    Pool pool;
    auto const empty = usage(*pool.streams);
    ASSERT_TRUE(pool.cleanup->start());
    std::atomic<int> faults = 0;
    auto const work = [&](std::uint64_t seed) {
        std::mt19937_64 random(seed);
        std::vector<std::uint8_t> got(200000);
        for (int i = 0; i < 30; ++i) {
            OperationGate::Enter gate;
            auto stream = pool.make();
            auto const data = randomBytes(random, 200000);
            stream->write(0, data.data(), 200000);
            stream->addReference();
            std::shared_ptr<StreamHandle> copy;
            if (!stream->copyOnWrite(copy) || !copy)
                ++faults;
            // The old stream is released in the background while its copy is written.
            stream->releaseReference();
            stream.reset();
            copy->write(100000, data.data(), 5000);
            copy->zeroData(150000, 160000);
            if (copy->read(0, got.data(), 100000) != 100000 ||
                !std::equal(got.begin(), got.begin() + 100000, data.begin()))
                ++faults;
            copy->releaseReference();
        }
        pool.streams->endThread();
    };
    std::vector<std::thread> threads;
    for (std::uint64_t seed = 1; seed <= 3; ++seed)
        threads.emplace_back(work, seed);
    for (int i = 0; i < 10; ++i) {
        OperationGate::EnterAlone alone;
        if (!pool.streams->flush(false))
            ++faults;
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(faults, 0);
    EXPECT_TRUE(pool.cleanup->drain());
    pool.cleanup->stop();
    EXPECT_EQ(pool.streams->failures(), 0u);
    EXPECT_EQ(Audit(*pool.streams).run(), "");
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST(OperationGate, AloneWaitsForSharersAndKeepsNewOnesOut) {
    OperationGate& gate = OperationGate::process();
    std::atomic<int> inside = 0;
    std::atomic<int> faults = 0;
    auto const share = [&] {
        for (int i = 0; i < 2000; ++i) {
            OperationGate::Enter outer(gate);
            ++inside;
            OperationGate::Enter inner(gate);
            --inside;
        }
    };
    std::thread one(share);
    std::thread two(share);
    for (int i = 0; i < 200; ++i) {
        OperationGate::EnterAlone alone(gate);
        OperationGate::Enter within(gate);
        if (inside != 0)
            ++faults;
    }
    one.join();
    two.join();
    EXPECT_EQ(faults, 0);
}
