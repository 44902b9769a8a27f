#include "base/blocks/Blocks.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"
#include "base/values/LittleEndian.h"

#include <algorithm>
#include <map>
#include <set>

namespace Morva {
namespace {

using Testing::Random;

constexpr auto mode = RawFile::Mode::ReadWrite;

struct BlocksTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("x.blocks");

    static std::uint64_t add(Blocks& blocks, std::uint8_t fill) {
        std::uint64_t number = 0;
        auto pin = BlockPin::make(blocks, number);
        if (pin) {
            std::memset(pin.bytes(), fill, blocks.blockSize());
            pin.changed();
        }
        return number;
    }
    static std::set<std::uint64_t> freeNumbers(Blocks const& blocks, bool sound = true) {
        std::set<std::uint64_t> numbers;
        EXPECT_EQ(blocks.forEachFree([&](auto n) { return numbers.insert(n).second; }).ok(), sound);
        return numbers;
    }
};

TEST_F(BlocksTest, MissingFilesAndUnusableSizesAreRefused) {
    Blocks blocks(4);
    EXPECT_EQ(blocks.open(path, 0, mode).code(), Status::Code::NotFound);
    EXPECT_FALSE(blocks);
    for (auto [size, bits] : {std::pair{248u, 0u}, {260u, 0u}, {65536u, 0u}, {256u, 64u}})
        EXPECT_EQ(blocks.create(path, size, bits, 0, mode).code(), Status::Code::InvalidArgument)
            << size << ' ' << bits;
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(BlocksTest, UsedAndFreedBlockComesBackAsZeros) {
    Blocks blocks(2);
    ASSERT_TRUE(blocks.create(path, 512, 0, 0, mode));
    add(blocks, 1);
    std::uint64_t const number = add(blocks, 0xEE);
    ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(number)));
    EXPECT_TRUE(*blocks.isFree(number));
    {
        auto pin = BlockPin::get(blocks, number);
        ASSERT_TRUE(pin);
        EXPECT_EQ(loadLittle<std::uint64_t>(pin.bytes()), 0u);
    }
    std::uint64_t again = 0;
    auto pin = BlockPin::make(blocks, again);
    EXPECT_EQ(again, number);
    EXPECT_TRUE(std::all_of(pin.bytes(), pin.bytes() + 512, [](auto b) { return b == 0; }));
}

TEST_F(BlocksTest, MisuseIsRefused) {
    Blocks blocks(2);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    std::uint64_t const number = add(blocks, 1);
    for (std::uint64_t none : {std::uint64_t{0}, number + 1, ~std::uint64_t{0}})
        EXPECT_EQ(blocks.getBlock(none).code(), Status::Code::Corruption) << none;
    EXPECT_FALSE(blocks.returnBlock(nullptr, true));
    EXPECT_FALSE(blocks.updateBlock(nullptr));
    void* block = *blocks.getBlock(number);
    EXPECT_TRUE(blocks.returnBlock(block, false));
    EXPECT_FALSE(blocks.returnBlock(block, false));
    EXPECT_TRUE(blocks.freeBlock(*blocks.getBlock(number)));
    EXPECT_EQ(blocks.freeBlock(*blocks.getBlock(number)).code(), Status::Code::Corruption);
    EXPECT_EQ(freeNumbers(blocks), std::set<std::uint64_t>{number});
}

TEST_F(BlocksTest, PinsOutnumberTheCacheAndNest) {
    Blocks blocks(1);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    std::vector<void*> pins;
    for (std::uint8_t i = 0; i < 50; ++i)
        pins.push_back(*blocks.getBlock(add(blocks, i)));
    for (std::uint8_t i = 0; i < 50; ++i) {
        EXPECT_EQ(static_cast<std::uint8_t*>(pins[i])[255], i);
        EXPECT_EQ(*blocks.getBlock(i + 1), pins[i]);
        EXPECT_TRUE(blocks.returnBlock(pins[i], false));
        EXPECT_EQ(blocks.number(pins[i]), i + 1u);
        EXPECT_TRUE(blocks.returnBlock(pins[i], false));
    }
    EXPECT_GE(blocks.hits(), 50u);
}

TEST_F(BlocksTest, DiscardForgetsOnlyWhatNobodyToldOf) {
    Blocks blocks(4);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    std::uint64_t const number = add(blocks, 5);
    auto pin = BlockPin::get(blocks, number);
    ASSERT_TRUE(pin.discard()); // the fill was told of, and isn't in the file yet
    ASSERT_TRUE(blocks.flush());
    pin = BlockPin::get(blocks, number);
    EXPECT_EQ(pin.bytes()[100], 5);
    pin.bytes()[100] = 9;
    ASSERT_TRUE(pin.discard());
    EXPECT_EQ(BlockPin::get(blocks, number).bytes()[100], 5);
}

TEST_F(BlocksTest, NumbersEndAtTheMask) {
    Blocks blocks(4);
    ASSERT_TRUE(blocks.create(path, 256, 61, 0, mode));
    for (std::uint64_t n = 1; n <= 7; ++n)
        EXPECT_EQ(add(blocks, 1), n);
    EXPECT_EQ(blocks.mask(), 7u);
    EXPECT_EQ(add(blocks, 1), 0u);
    ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(4)));
    EXPECT_EQ(add(blocks, 1), 4u);
}

TEST_F(BlocksTest, RandomWorkAgreesWithAMap) {
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        Random random(seed);
        std::map<std::uint64_t, std::uint8_t> model;
        Blocks blocks(static_cast<std::uint32_t>(1 + random.below(20)));
        std::uint64_t const grow = random.below(2) * 5000;
        ASSERT_TRUE(blocks.create(path, 256 << random.below(3), 16, grow, mode));
        std::set<std::uint64_t> freed;
        for (int step = 0; step < 4000; ++step) {
            std::uint64_t const what = random.below(100);
            auto const fill = static_cast<std::uint8_t>(1 + random.below(255));
            auto at = model.empty() ? model.end() : model.lower_bound(random.below(300));
            if (what < 40 || at == model.end()) {
                std::uint64_t const number = add(blocks, fill);
                ASSERT_TRUE(model.emplace(number, fill).second);
                freed.erase(number);
            } else if (what < 70) {
                auto pin = BlockPin::get(blocks, at->first);
                ASSERT_TRUE(pin);
                ASSERT_EQ(pin.bytes()[0], at->second);
                ASSERT_EQ(pin.bytes()[blocks.blockSize() - 1], at->second);
                std::memset(pin.bytes(), fill, blocks.blockSize());
                pin.changed();
                at->second = fill;
            } else if (what < 98) {
                ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(at->first)));
                freed.insert(at->first);
                model.erase(at);
            } else {
                ASSERT_TRUE(what == 98 ? blocks.flush() : blocks.close());
                if (what == 99) {
                    ASSERT_TRUE(blocks.open(path, grow, mode));
                }
            }
        }
        ASSERT_EQ(freeNumbers(blocks), freed);
        ASSERT_EQ(blocks.blockCount(), 1 + freed.size() + model.size());
    }
}

TEST_F(BlocksTest, OpenAndCloseWithoutChangeWriteNothing) {
    Blocks blocks(4);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    add(blocks, 1);
    ASSERT_TRUE(blocks.close());
    FaultyFiles files;
    ASSERT_TRUE(blocks.open(path, 0, mode));
    EXPECT_TRUE(BlockPin::get(blocks, 1));
    ASSERT_TRUE(blocks.close());
    EXPECT_EQ(files.writes(), 0u);
}

TEST_F(BlocksTest, DamagedHeadersDoNotOpen) {
    Blocks blocks(4);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    add(blocks, 1);
    ASSERT_TRUE(blocks.close());
    QByteArray const sound = Testing::contents(path);
    for (int offset = 0; offset < 64; ++offset) {
        Testing::damage(path, offset, QByteArray(1, static_cast<char>(sound[offset] ^ 0x41)));
        EXPECT_EQ(blocks.open(path, 0, mode).code(), Status::Code::Corruption) << offset;
        Testing::damage(path, offset, sound.mid(offset, 1));
    }
    for (int length : {0, 63, 64, 511}) {
        ASSERT_TRUE(QFile::resize(path, length));
        EXPECT_EQ(blocks.open(path, 0, mode).code(), Status::Code::Corruption) << length;
    }
}

TEST_F(BlocksTest, DamagedChainOfFreeBlocksIsGivenUp) {
    Blocks blocks(4);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    for (int i = 0; i < 6; ++i)
        add(blocks, 1);
    for (std::uint64_t n : {2, 4, 5})
        ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(n)));
    ASSERT_TRUE(blocks.close());
    Testing::damage(path, 4 * 256 + 8, QByteArray("\x05\0\0\0\0\0\0\0", 8)); // 5 -> 4 -> 5
    ASSERT_TRUE(blocks.open(path, 0, mode));
    std::uint64_t calls = 0;
    EXPECT_EQ(blocks.forEachFree([&](auto) { return ++calls < 100; }).code(),
              Status::Code::Corruption);
    EXPECT_EQ(calls, 3u);
    EXPECT_EQ(add(blocks, 1), 5u);
    EXPECT_EQ(add(blocks, 1), 4u);
    EXPECT_EQ(add(blocks, 1), 7u); // 5 is in use by now
    EXPECT_EQ(blocks.freeCount(), 0u);
}

TEST_F(BlocksTest, FailedReadIsNeitherAFreeChainsEndNorANewBlock) {
    Blocks blocks(2);
    ASSERT_TRUE(blocks.create(path, 4096, 0, 0, mode));
    for (int i = 0; i < 6; ++i)
        add(blocks, 1);
    for (std::uint64_t n : {2, 4, 5})
        ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(n)));
    ASSERT_TRUE(blocks.close());
    FaultyFiles files;
    ASSERT_TRUE(blocks.open(path, 0, mode));
    files.failReadsAfter(0);
    std::uint64_t number = 0;
    EXPECT_EQ(blocks.newBlock(number).code(), Status::Code::IoError);
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(BlockPin::get(blocks, 3).status().code(), Status::Code::IoError);
    EXPECT_EQ(blocks.isFree(2).code(), Status::Code::IoError);
    files.heal();
    EXPECT_EQ(freeNumbers(blocks), (std::set<std::uint64_t>{2, 4, 5}));
    EXPECT_EQ(add(blocks, 1), 5u);
}

TEST_F(BlocksTest, FullDiskIsNoSpaceWithNothingChanged) {
    FaultyFiles files;
    files.diskBudget(300 * 256);
    Blocks blocks(8);
    ASSERT_TRUE(blocks.create(path, 256, 0, 64 * 256, mode));
    std::uint64_t made = 0;
    while (std::uint64_t number = add(blocks, static_cast<std::uint8_t>(made)))
        made = number;
    EXPECT_EQ(made, 299u); // to the last byte, though the step doesn't fit
    std::uint64_t number = 0;
    EXPECT_EQ(blocks.newBlock(number).code(), Status::Code::NoSpace);
    EXPECT_EQ(blocks.blockCount(), 300u);
    ASSERT_TRUE(blocks.close()); // every block had its space
    ASSERT_TRUE(blocks.open(path, 0, mode));
    ASSERT_TRUE(blocks.freeBlock(*blocks.getBlock(17)));
    EXPECT_EQ(add(blocks, 1), 17u);
}

TEST_F(BlocksTest, FailedWriteIsTriedAgainAndLosesNothing) {
    FaultyFiles files;
    Blocks blocks(2);
    ASSERT_TRUE(blocks.create(path, 256, 0, 0, mode));
    for (int i = 0; i < 3; ++i)
        add(blocks, 1);
    files.failWritesAfter(0);
    for (std::uint64_t n = 1; n <= 3; ++n) {
        auto pin = BlockPin::get(blocks, n);
        std::memset(pin.bytes(), 2, 256);
        pin.changed();
    }
    for (int i = 0; i < 10; ++i)
        EXPECT_NE(add(blocks, 3), 0u); // the space is there; the cache grows
    EXPECT_FALSE(blocks.flush());
    files.heal();
    EXPECT_TRUE(blocks.flush());
    ASSERT_TRUE(blocks.close());
    ASSERT_TRUE(blocks.open(path, 0, mode));
    for (std::uint64_t n = 1; n <= 13; ++n)
        EXPECT_EQ(BlockPin::get(blocks, n).bytes()[9], n <= 3 ? 2 : 3);
    files.failWritesAfter(0);
    EXPECT_EQ(add(blocks, 1), 0u); // the file can't be marked as in use
    files.heal();
    add(blocks, 1);
    files.failWritesAfter(0);
    EXPECT_FALSE(blocks.close());
}

TEST_F(BlocksTest, AfterACrashNoWrittenBlockIsHandedOutAgain) {
    for (std::uint64_t n = 1; n < 60; ++n) {
        FaultyFiles files;
        std::map<std::uint64_t, std::uint8_t> given;
        {
            Blocks blocks(2);
            bool made = blocks.create(path, 256, 0, 4096, mode).ok();
            files.crashAtWrite(n);
            for (std::uint8_t i = 1; made && i < 100 && !files.crashed(); ++i)
                given[add(blocks, i)] = i;
        }
        files.restart(FaultyFiles::Unsynced::Kept);
        Blocks blocks(2);
        ASSERT_TRUE(blocks.open(path, 4096, mode)) << n;
        std::uint64_t const next = add(blocks, 200);
        for (auto [number, fill] : given) {
            if (number == 0 || number >= next)
                continue;
            auto pin = BlockPin::get(blocks, number);
            ASSERT_TRUE(pin);
            EXPECT_TRUE(pin.bytes()[3] == fill || pin.bytes()[3] == 0) << n << ' ' << number;
        }
        std::uint64_t written = 0; // blocks at or past the next number must be untouched
        QByteArray const bytes = Testing::contents(path);
        for (qsizetype at = static_cast<qsizetype>(next + 1) * 256; at < bytes.size(); ++at)
            written += bytes[at] != 0;
        EXPECT_EQ(written, 0u) << n;
    }
}

TEST(PageCache, NeighboursOfAnEvictedPageAreWrittenInOneRun) {
    QTemporaryDir dir;
    FaultyFiles files;
    Blocks blocks(64);
    ASSERT_TRUE(blocks.create(dir.filePath("x"), 4096, 0, 0, RawFile::Mode::ReadWrite));
    std::uint64_t number = 0;
    std::uint64_t const before = files.writes();
    for (int i = 0; i < 1000; ++i)
        BlockPin::make(blocks, number).changed();
    EXPECT_LT(files.writes() - before, 40u);
    EXPECT_LE(blocks.size(), 70u);
}

} // namespace
} // namespace Morva
