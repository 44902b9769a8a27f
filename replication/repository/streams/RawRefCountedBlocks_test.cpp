#include "replication/repository/streams/RawRefCountedBlocks.h"

#include "base/files/FaultyFiles.h"
#include "base/values/LittleEndian.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <thread>

using namespace Replication;

namespace {

struct RawBlocks : testing::Test {
    QTemporaryDir directory;
    QString const path = directory.path() + "/data";
    RawRefCountedBlocks blocks{16};

    std::uint64_t total() {
        std::uint64_t result = 0;
        static_cast<void>(blocks.blocksUsed(&result));
        return result;
    }
    QByteArray file() {
        QFile data(path + ".blocks");
        return data.open(QIODevice::ReadOnly) ? data.readAll() : QByteArray();
    }
};

} // namespace

TEST_F(RawBlocks, BlockSizeHoldsTheControlBlock) {
    EXPECT_FALSE(blocks.create(path, 31, 16, 0, false));
    EXPECT_TRUE(QDir(directory.path()).isEmpty());
    EXPECT_TRUE(blocks.create(path, 32, 16, 64, false));
}

TEST_F(RawBlocks, GrowSizeSetsTheStep) {
    struct {
        std::uint64_t growSize, total, free, length;
    } const cases[] = {
        {0, 20480, 20479, 83886080}, {4096, 1, 0, 32}, {100, 1, 0, 32}, {16384, 4, 3, 16384}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.growSize);
        ASSERT_TRUE(blocks.create(path, 4096, 16, c.growSize, false));
        EXPECT_EQ(total(), c.total);
        EXPECT_EQ(total() - blocks.blocksUsed(nullptr), c.free);
        EXPECT_EQ(static_cast<std::uint64_t>(QFile(path + ".blocks").size()), c.length);
    }
}

TEST_F(RawBlocks, ControlBlockIsWrittenWithEachStep) {
    ASSERT_TRUE(blocks.create(path, 64, 16, 64, true));
    EXPECT_EQ(blocks.newBlock(), 1u);
    EXPECT_EQ(blocks.newBlock(), 2u);
    QByteArray const golden = QByteArray::fromHex("0300000000000000"
                                                  "0000000000000000"
                                                  "ffffffffffff0000"
                                                  "4000000000000000");
    EXPECT_EQ(file().left(32), golden);
    EXPECT_TRUE(blocks.close());
    ASSERT_TRUE(blocks.open(path, 128, false));
    EXPECT_EQ(blocks.newBlock(), 3u);
    EXPECT_EQ(total(), 5u);
}

TEST_F(RawBlocks, ListsMergeRunsAndFillHoles) {
    ASSERT_TRUE(blocks.create(path, 64, 16, 64 * 16, false));
    std::vector<std::uint8_t> pattern(64 * 10);
    for (std::size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<std::uint8_t>(i * 5 + 1);
    std::uint64_t const five[] = {5, 6, 9};
    ASSERT_TRUE(blocks.write(five, 3, pattern.data(), 0, 192));

    std::uint64_t const list[] = {5, 6, 0, 9};
    std::vector<std::uint8_t> got(64 * 4 - 20, 0xee);
    std::vector<std::uint8_t> expected(pattern.begin() + 20, pattern.begin() + 128);
    expected.insert(expected.end(), 64, 0);
    expected.insert(expected.end(), pattern.begin() + 128, pattern.begin() + 192);
    ASSERT_TRUE(blocks.read(list, 4, got.data(), 20, static_cast<std::uint32_t>(got.size())));
    EXPECT_EQ(got, expected);

    std::vector<std::uint8_t> const other(256, 0x77);
    EXPECT_FALSE(blocks.write(list, 4, other.data(), 0, 256)) << "a hole ends a write";
    std::vector<std::uint8_t> one(64);
    ASSERT_TRUE(blocks.read(6, one.data(), 0, 64));
    EXPECT_EQ(one, std::vector<std::uint8_t>(64, 0x77)) << "what stood before it is written";
    ASSERT_TRUE(blocks.read(9, one.data(), 0, 64));
    EXPECT_EQ(one[0], pattern[128]);

    EXPECT_FALSE(blocks.write(0, one.data(), 0, 64)) << "the control block is nobody's";
    EXPECT_FALSE(blocks.write(16, one.data(), 0, 64)) << "outside the file";
    EXPECT_FALSE(blocks.read(99, one.data(), 0, 64));
    EXPECT_TRUE(blocks.read(99, nullptr, 0, 0)) << "nothing to read touches nothing";
}

TEST_F(RawBlocks, CountsDecideWhenABlockIsFree) {
    ASSERT_TRUE(blocks.create(path, 64, 16, 64 * 4, false));
    std::uint64_t const block = blocks.newBlock();
    std::uint32_t count = 0;
    EXPECT_TRUE(blocks.unique(block));
    ASSERT_TRUE(blocks.increment(count, block));
    EXPECT_EQ(count, 2u);
    EXPECT_FALSE(blocks.unique(block));
    EXPECT_FALSE(blocks.freeBlock(block));
    EXPECT_TRUE(blocks.freeBlock(block));
    EXPECT_FALSE(blocks.freeBlock(block)) << "it has no count any more";
    EXPECT_FALSE(blocks.unique(block));
    EXPECT_FALSE(blocks.increment(count, block));
    EXPECT_FALSE(blocks.freeBlock(0));
    EXPECT_EQ(blocks.newBlock(), block);
}

TEST_F(RawBlocks, FullNumberRangeWaitsForAFreedBlockAndForNothingAfterStop) {
    ASSERT_TRUE(blocks.create(path, 64, 61, 64, false)); // numbers 1 to 7
    for (std::uint64_t n = 1; n < 8; ++n)
        ASSERT_EQ(blocks.newBlock(), n);
    std::uint64_t got = 0;
    std::thread waiter([&] { got = blocks.newBlock(); });
    EXPECT_TRUE(blocks.freeBlock(3));
    waiter.join();
    EXPECT_EQ(got, 3u);
    std::thread stopped([&] { got = blocks.newBlock(); });
    blocks.stop();
    stopped.join();
    EXPECT_EQ(got, 0u);
}

TEST_F(RawBlocks, FullDiskGivesNoBlockAtOnceAndAgainSomeWhenThereIsRoom) {
    Morva::FaultyFiles files;
    ASSERT_TRUE(blocks.create(path, 4096, 16, 8192, false));
    EXPECT_NE(blocks.newBlock(), 0u);
    files.diskBudget(0);
    EXPECT_EQ(blocks.newBlock(), 0u);
    std::uint64_t const before = total();
    files.heal();
    std::array<std::uint64_t, 5> numbers{};
    EXPECT_EQ(blocks.newBlocks(numbers), 5u);
    EXPECT_GE(numbers[0], before);
    EXPECT_TRUE(blocks.close());
}

TEST_F(RawBlocks, DamagedControlBlockCutsNothingOff) {
    ASSERT_TRUE(blocks.create(path, 64, 16, 64 * 16, false));
    std::uint64_t last = 0;
    while (last < 16)
        last = blocks.newBlock();
    std::vector<std::uint8_t> const bytes(64, 0x55);
    ASSERT_TRUE(blocks.write(last, bytes.data(), 0, 64));
    EXPECT_TRUE(blocks.close());
    QByteArray const before = file();
    auto const damageNext = [this](char const* hex) {
        QFile control(path + ".blocks");
        ASSERT_TRUE(control.open(QIODevice::ReadWrite));
        control.write(QByteArray::fromHex(hex));
    };
    damageNext("0400000000000000");
    ASSERT_TRUE(blocks.open(path, 64 * 4, false));
    EXPECT_GT(blocks.newBlock(), last) << "what is in use is passed over";
    EXPECT_EQ(file().mid(32, before.size() - 32), before.mid(32));
    EXPECT_TRUE(blocks.close());
    damageNext("0000000000000100");
    EXPECT_TRUE(blocks.open(path, 64 * 4, false)) << "every number is taken";
    damageNext("0100000000000100");
    EXPECT_FALSE(blocks.open(path, 64 * 4, false)) << "more than there are numbers";
}

TEST_F(RawBlocks, MissingAndUnfinishedFilesAreTold) {
    EXPECT_FALSE(blocks.open(path, 0, false));
    EXPECT_FALSE(QFile::exists(path + ".blocks"));
    ASSERT_TRUE(blocks.create(path, 64, 16, 64, false));
    EXPECT_TRUE(blocks.close());
    QFile::remove(path + ".refs");
    EXPECT_FALSE(blocks.open(path, 64, false));
    EXPECT_FALSE(blocks.isOpen());
    QFile::resize(path + ".blocks", 31);
    EXPECT_FALSE(blocks.open(path, 64, false));
}
