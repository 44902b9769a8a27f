#include "replication/repository/streams/RefCountedBlocks.h"

#include <QFile>
#include <QTemporaryDir>

using namespace Replication;
using Drop = RefCountedBlocks::Drop;

namespace {

struct IndirectBlocks : testing::Test {
    QTemporaryDir directory;
    QString const path = directory.path() + "/indirectdata";
    RefCountedBlocks blocks{8, 8};
};

} // namespace

TEST_F(IndirectBlocks, SharedBlockLosesOneReferenceAndStays) {
    ASSERT_TRUE(blocks.create(path, 4096, 16));
    std::uint64_t number = 0;
    auto* block = static_cast<std::uint8_t*>(blocks.newBlock(number));
    ASSERT_TRUE(block);
    block[0] = 7;
    ASSERT_TRUE(blocks.returnBlock(block, true));
    std::uint32_t count = 0;
    ASSERT_TRUE(blocks.increment(count, number));
    EXPECT_FALSE(blocks.unique(number));

    EXPECT_FALSE(blocks.freeBlock(blocks.getBlock(number)));
    EXPECT_TRUE(blocks.unique(number));
    EXPECT_TRUE(blocks.freeBlock(blocks.getBlock(number)));
    EXPECT_FALSE(blocks.freeBlock(nullptr));
    std::uint64_t again = 0;
    block = static_cast<std::uint8_t*>(blocks.newBlock(again));
    EXPECT_EQ(again, number);
    EXPECT_EQ(block[0], 0) << "a new block is zero";
    EXPECT_TRUE(blocks.returnBlock(block, false));
}

TEST_F(IndirectBlocks, DropSharedNeverDropsTheLast) {
    ASSERT_TRUE(blocks.create(path, 4096, 16));
    std::uint64_t number = 0;
    void* block = blocks.newBlock(number);
    EXPECT_EQ(blocks.dropShared(block), Drop::Sole);
    EXPECT_FALSE(blocks.decrement(number));
    std::uint32_t count = 0;
    ASSERT_TRUE(blocks.increment(count, number));
    EXPECT_EQ(blocks.dropShared(block), Drop::Done);
    EXPECT_TRUE(blocks.unique(number));
    EXPECT_TRUE(blocks.freeBlock(blocks.getBlock(number)));
    EXPECT_EQ(blocks.dropShared(blocks.getBlock(number)), Drop::Failed);
}

TEST_F(IndirectBlocks, MissingCountsCloseTheBlocksAgain) {
    ASSERT_TRUE(blocks.create(path, 4096, 16));
    EXPECT_TRUE(blocks.close());
    QFile::remove(path + ".refs");
    EXPECT_FALSE(blocks.open(path));
    EXPECT_FALSE(static_cast<bool>(blocks));
}
