#include "replication/repository/streams/Info.h"

#include "replication/repository/streams/TestSupport.h"

using namespace Replication;
using namespace Replication::Test;

namespace {

/// Trees on records in memory, over the block stores of a pool.
struct InfoTrees : testing::Test {
    Pool pool;
    std::vector<std::uint64_t> const empty = usage(*pool.streams);

    struct Tree {
        explicit Tree(TreeParameters& tree) : parameters(tree), info(&tree, record()) {}
        TreeRecord record() { return TreeRecord(bytes.data()); }

        TreeParameters& parameters;
        alignas(8) std::array<std::uint8_t, TreeRecord::nodeSize> bytes{};
        Info info;
    };

    std::string audit(std::initializer_list<Tree*> trees) {
        Audit audit(*pool.streams);
        for (Tree* tree : trees)
            audit.add(tree->parameters, tree->record());
        return audit.run();
    }
    std::uint64_t dataUsed() { return pool.streams->data().blocksUsed(nullptr) - empty[0]; }
    std::uint64_t indirectUsed() { return pool.streams->indirect().blocksUsed(nullptr) - empty[1]; }
};

std::vector<std::uint8_t> bytesOf(Info& info, std::uint64_t offset, std::uint32_t count) {
    std::vector<std::uint8_t> bytes(count, 0xee);
    bytes.resize(info.read(offset, bytes.data(), count));
    return bytes;
}

} // namespace

TEST_F(InfoTrees, LimitsFollowFromTheEntries) {
    TreeParameters const& streams = pool.streams->streamTree();
    TreeParameters const& nodes = pool.streams->nodeTree();
    EXPECT_EQ(streams.recordSize(), 200u);
    EXPECT_EQ(nodes.recordSize(), 960u);
    std::uint64_t const expected[] = {184, 94208, 48234496, 24696061952, 12644383719424};
    for (std::uint32_t depth = 0; depth <= 4; ++depth) {
        EXPECT_EQ(streams.maximum(depth), expected[depth]);
        EXPECT_EQ(nodes.maximum(depth), expected[depth] / 23 * 118);
    }
    EXPECT_EQ(streams.coverage(1), 4095u);
    EXPECT_EQ(streams.coverage(5), 281474976710655u);
    EXPECT_FALSE(static_cast<bool>(TreeParameters(4120, {}, {}, {}, {})));
}

TEST_F(InfoTrees, DepthAndBlocksFollowTheLargestOffset) {
    struct {
        std::uint64_t offset;
        std::uint32_t depth, data, indirect;
    } const cases[] = {{183, 0, 0, 0},         {184, 1, 1, 0},         {94207, 1, 1, 0},
                       {94208, 2, 1, 1},       {48234495, 2, 1, 1},    {48234496, 3, 1, 2},
                       {24696061951, 3, 1, 2}, {24696061952, 4, 1, 3}, {12644383719423, 4, 1, 3}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.offset);
        Tree tree(pool.streams->streamTree());
        EXPECT_TRUE(tree.info.write(c.offset, "x", 1, false));
        EXPECT_EQ(tree.record().depth(), c.depth);
        EXPECT_EQ(dataUsed(), c.data);
        EXPECT_EQ(indirectUsed(), c.indirect);
        EXPECT_EQ(tree.info.length(), c.offset + 1);
        EXPECT_EQ(bytesOf(tree.info, c.offset, 10), std::vector<std::uint8_t>{'x'});
        EXPECT_TRUE(tree.info.isZero(0, c.offset));
        EXPECT_FALSE(tree.info.isZero(0, c.offset + 1));
        EXPECT_FALSE(tree.info.isZero(0, c.offset + 2)) << "behind the length";
        EXPECT_EQ(audit({&tree}), "");
        tree.info.release();
        EXPECT_EQ(usage(*pool.streams), empty);
    }
}

TEST_F(InfoTrees, WriteBeyondTheDeepestTreeIsRefused) {
    Tree tree(pool.streams->streamTree());
    std::uint64_t const end = tree.parameters.maximum(4);
    EXPECT_FALSE(tree.info.write(end, "x", 1, false));
    EXPECT_FALSE(tree.info.write(~std::uint64_t{1}, "xxx", 3, false)) << "wraps";
    EXPECT_FALSE(tree.info.truncate(end + 1));
    EXPECT_EQ(pool.streams->failures(), 3u);
    EXPECT_TRUE(tree.info.truncate(end));
    EXPECT_TRUE(tree.info.write(end - 1, "xy", 2, true)) << "clipped at the length";
    EXPECT_EQ(bytesOf(tree.info, end - 1, 2), std::vector<std::uint8_t>{'x'});
    EXPECT_EQ(bytesOf(tree.info, end, 2).size(), 0u);
}

TEST_F(InfoTrees, TruncateLowersTheDepthAndKeepsNoBlockBehindTheEnd) {
    Tree tree(pool.streams->streamTree());
    std::vector<std::uint8_t> const data(100000, 5);
    tree.info.write(0, data.data(), 100000, false);
    EXPECT_EQ(tree.record().depth(), 2u);
    EXPECT_TRUE(tree.info.truncate(90000));
    EXPECT_EQ(tree.record().depth(), 1u);
    EXPECT_EQ(bytesOf(tree.info, 0, 100000), std::vector<std::uint8_t>(90000, 5));
    EXPECT_EQ(dataUsed(), 22u);
    EXPECT_EQ(indirectUsed(), 0u);
    EXPECT_EQ(audit({&tree}), "");
    EXPECT_TRUE(tree.info.truncate(100));
    EXPECT_EQ(tree.record().depth(), 0u);
    EXPECT_EQ(usage(*pool.streams), empty);
    EXPECT_TRUE(tree.info.truncate(200));
    EXPECT_TRUE(tree.info.isZero(100, 200));
    tree.info.release();
}

TEST_F(InfoTrees, TruncateToZeroLeavesTheBlocksToTheCleanup) {
    Tree tree(pool.streams->streamTree());
    std::vector<std::uint8_t> const data(100000, 5);
    tree.info.write(0, data.data(), 100000, false);
    EXPECT_TRUE(tree.info.truncate(0));
    EXPECT_EQ(tree.record().depth(), 0u);
    EXPECT_EQ(dataUsed(), 25u);
    EXPECT_EQ(audit({&tree}), "") << "the waiting request names them";
    EXPECT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(InfoTrees, CopiesShareUntilOneIsWritten) {
    Tree one(pool.streams->streamTree());
    Tree two(pool.streams->streamTree());
    std::vector<std::uint8_t> const data(100000, 5);
    std::uint64_t const far = 48234496;
    one.info.write(0, data.data(), 100000, false);
    one.info.write(far, data.data(), 4096, false);
    std::uint64_t const dataBefore = dataUsed();
    std::uint64_t const indirectBefore = indirectUsed();
    ASSERT_TRUE(one.parameters.takeCopy(two.record(), one.record()));
    EXPECT_EQ(dataUsed(), dataBefore);
    EXPECT_EQ(audit({&one, &two}), "");
    two.info.write(5000, "z", 1, false);
    EXPECT_EQ(dataUsed(), dataBefore + 1);
    EXPECT_EQ(indirectUsed(), indirectBefore + 2) << "each block of the path once";
    EXPECT_EQ(bytesOf(one.info, 5000, 1)[0], 5);
    EXPECT_EQ(bytesOf(two.info, 5000, 1)[0], 'z');
    EXPECT_EQ(audit({&one, &two}), "");
    // The lower half of a shared path is pulled up, while the other tree keeps it.
    EXPECT_TRUE(two.info.truncate(far));
    EXPECT_EQ(two.record().depth(), 2u);
    EXPECT_EQ(audit({&one, &two}), "");
    one.info.release();
    EXPECT_EQ(bytesOf(two.info, 99999, 9).size(), 9u);
    EXPECT_EQ(bytesOf(two.info, 99999, 1)[0], 5);
    EXPECT_EQ(audit({&one, &two}), "");
    two.info.release();
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(InfoTrees, PullingUpASharedBlockCountsItsChildren) {
    Tree one(pool.streams->streamTree());
    Tree two(pool.streams->streamTree());
    std::vector<std::uint8_t> const data(8192, 5);
    one.info.write(2097152, data.data(), 8192, false);
    one.info.truncate(60'000'000);
    ASSERT_TRUE(one.parameters.takeCopy(two.record(), one.record()));
    // The cut falls into a hole, so that nothing on the path was made private before.
    EXPECT_TRUE(two.info.truncate(48234496));
    EXPECT_EQ(two.record().depth(), 2u);
    EXPECT_EQ(audit({&one, &two}), "");
    two.info.release();
    EXPECT_EQ(bytesOf(one.info, 2097152, 8192), data);
    one.info.release();
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(InfoTrees, ReleaseCanBeDoneInSlicesAndBegunAgain) {
    Tree one(pool.streams->nodeTree());
    Tree two(pool.streams->nodeTree());
    std::vector<std::uint8_t> const data(1 << 20, 5);
    for (std::uint64_t offset : {0ull, 48234496ull, 200ull << 20, 3ull << 40})
        one.info.write(offset, data.data(), 1 << 20, false);
    ASSERT_TRUE(one.parameters.takeCopy(two.record(), one.record()));
    two.info.write(0, "q", 1, false);
    int slices = 0;
    for (bool done = false; !done; ++slices) {
        // As a restart would: the record as it was asked for, not as the last slice left it.
        Tree again(pool.streams->nodeTree());
        again.bytes = one.bytes;
        done = again.info.releaseSlice(100);
        if (!done) {
            EXPECT_EQ(audit({&one, &two}), "");
        }
    }
    EXPECT_GT(slices, 1);
    EXPECT_EQ(audit({&two}), "");
    EXPECT_EQ(bytesOf(two.info, (3ull << 40) + 5, 1)[0], 5);
    two.info.release();
    EXPECT_EQ(usage(*pool.streams), empty);
}

TEST_F(InfoTrees, DamagedRecordsAreCountedAndCrashNothing) {
    for (std::uint32_t depth : {0u, 1u, 2u, 4u, 5u, 0xffffffffu}) {
        SCOPED_TRACE(depth);
        Tree tree(pool.streams->streamTree());
        std::memset(tree.bytes.data(), 0x7b, TreeRecord::streamSize);
        tree.record().depth(depth);
        std::uint64_t const before = pool.streams->failures();
        std::vector<std::uint8_t> got(10000, 0xee);
        EXPECT_EQ(tree.info.read(1000, got.data(), 10000), 10000u);
        EXPECT_TRUE(allZero(got.data(), 10000));
        static_cast<void>(tree.info.isZero(0, 100000));
        tree.info.truncate(10000);
        tree.info.zeroData(0, 9000);
        tree.info.write(0, got.data(), 5000, false);
        tree.info.release();
        EXPECT_GT(pool.streams->failures(), before);
        TreeParameters::Visitor const visit = [](auto, auto) {
            return TreeParameters::Visit::Enter;
        };
        static_cast<void>(tree.parameters.walk(tree.record(), visit));
    }
    EXPECT_EQ(audit({}), "");
}

TEST_F(InfoTrees, BlocksThatNameThemselvesEndARelease) {
    Tree tree(pool.streams->streamTree());
    tree.info.write(24696061952, "x", 1, false);
    // The first block below the record names itself throughout.
    std::uint64_t const block = tree.record().entry(0);
    ASSERT_NE(block, 0u);
    auto* entries = static_cast<std::uint8_t*>(pool.streams->indirect().getBlock(block));
    for (std::uint32_t i = 0; i < 512; ++i)
        Morva::storeLittle(entries + i * 8, block);
    ASSERT_TRUE(pool.streams->indirect().returnBlock(entries, true));
    tree.info.release();
}

TEST_F(InfoTrees, NodeRecordsHoldWhatAModelHolds) {
    std::uint64_t const seed = newSeed();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    TreeParameters& parameters = pool.streams->nodeTree();
    Tree one(parameters);
    Tree two(parameters);
    Model models[2] = {Model(parameters), Model(parameters)};
    for (int step = 0; step < 600; ++step) {
        std::size_t const which = random() % 2;
        Tree& tree = which == 0 ? one : two;
        Model& model = models[which];
        std::uint64_t const offset = randomOffset(random, parameters);
        switch (random() % 6) {
        case 0:
            tree.info.truncate(offset);
            model.truncate(offset);
            break;
        case 1: {
            std::uint64_t const end = offset + random() % 100000;
            tree.info.zeroData(offset, end);
            model.zero(offset, end);
            break;
        }
        case 2:
            if (random() % 8 == 0) {
                Tree& from = which == 0 ? two : one;
                tree.info.release();
                ASSERT_TRUE(parameters.takeCopy(tree.record(), from.record()));
                model = models[1 - which];
            }
            break;
        default: {
            auto const data = randomBytes(random, random() % 30000 + 1);
            bool const noExtend = random() % 4 == 0;
            tree.info.write(offset, data.data(), static_cast<std::uint32_t>(data.size()), noExtend);
            model.write(offset, data.data(), data.size(), noExtend);
        }
        }
        ASSERT_EQ(tree.info.length(), model.length) << step;
        ASSERT_EQ(tree.record().depth(), model.depth()) << step;
        std::uint64_t const probe = randomOffset(random, parameters);
        ASSERT_EQ(bytesOf(tree.info, probe, 20000), model.read(probe, 20000)) << step;
        if (step % 50 == 0) {
            ASSERT_EQ(audit({&one, &two}), "") << step;
        }
    }
    one.info.release();
    two.info.release();
    ASSERT_TRUE(pool.cleanup->drain());
    EXPECT_EQ(usage(*pool.streams), empty);
    EXPECT_EQ(pool.streams->failures(), 0u);
}
