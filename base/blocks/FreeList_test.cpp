#include "base/blocks/FreeList.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"

#include <set>

namespace Morva {
namespace {

using Testing::Random;

struct FreeListTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("x.free");
    FreeList list{2};

    std::set<std::uint64_t> numbers() const {
        std::set<std::uint64_t> all;
        EXPECT_TRUE(list.forEach([&](auto first, auto count) {
            for (auto n = first; n < first + count; ++n)
                EXPECT_TRUE(all.insert(n).second) << n;
            return true;
        }));
        return all;
    }
};

TEST_F(FreeListTest, GrownRunComesOutAscending) {
    ASSERT_TRUE(list.create(path, ~0ull >> 16));
    ASSERT_TRUE(list.grow(1, 20479));
    EXPECT_EQ(list.count(), 20479u);
    std::uint64_t number = 0;
    for (std::uint64_t n = 1; n < 100; ++n) {
        ASSERT_TRUE(*list.get(number));
        EXPECT_EQ(number, n);
    }
    ASSERT_TRUE(list.close());
    ASSERT_TRUE(list.open(path, ~0ull >> 16));
    ASSERT_TRUE(*list.get(number));
    EXPECT_EQ(number, 100u);
}

TEST_F(FreeListTest, NeighboursJoin) {
    ASSERT_TRUE(list.create(path, 1000));
    for (std::uint64_t n : {9, 3, 5, 4, 6})
        ASSERT_TRUE(list.put(n));
    std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;
    ASSERT_TRUE(list.forEach([&](auto f, auto c) { return runs.emplace_back(f, c), true; }));
    EXPECT_EQ(runs, (decltype(runs){{3, 4}, {9, 1}}));
}

TEST_F(FreeListTest, NumbersOutOfRangeAreRefused) {
    ASSERT_TRUE(list.create(path, 100));
    EXPECT_FALSE(list.put(0));
    EXPECT_FALSE(list.put(101));
    EXPECT_FALSE(list.grow(100, 2));
    EXPECT_FALSE(list.grow(2, ~0ull));
    EXPECT_TRUE(list.grow(1, 100));
    EXPECT_FALSE(list.put(50));
    EXPECT_EQ(list.count(), 100u);
}

TEST_F(FreeListTest, RandomWorkAgreesWithASet) {
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        Random random(seed);
        std::set<std::uint64_t> model;
        ASSERT_TRUE(list.create(path, 1000000));
        for (int step = 0; step < 20000; ++step) {
            std::uint64_t number = 1 + random.below(100000);
            std::uint64_t const what = random.below(1000);
            bool const filling = step / 5000 % 2 == 0;
            if (what < 2) {
                ASSERT_TRUE(what == 0 ? list.flush() : list.close());
                if (what == 1) {
                    ASSERT_TRUE(list.open(path, 1000000));
                }
            } else if (what < (filling ? 800 : 200)) {
                if (model.insert(number).second) {
                    ASSERT_TRUE(list.put(number));
                }
            } else {
                ASSERT_EQ(*list.get(number), !model.empty());
                ASSERT_TRUE(model.empty() || model.erase(number) == 1) << number;
            }
            ASSERT_EQ(list.count(), model.size());
        }
        EXPECT_EQ(numbers(), model);
    }
}

TEST_F(FreeListTest, DamagedFilesAreToldApart) {
    ASSERT_TRUE(list.create(path, 100));
    ASSERT_TRUE(list.put(3) && list.put(7));
    ASSERT_TRUE(list.close());
    EXPECT_FALSE(list.open(path, 99));
    QByteArray const sound = Testing::contents(path);
    for (int offset = 0; offset < 48; ++offset) {
        Testing::damage(path, offset, QByteArray(1, static_cast<char>(sound[offset] ^ 0x81)));
        EXPECT_FALSE(list.open(path, 100)) << offset;
        Testing::damage(path, offset, sound.mid(offset, 1));
    }
    Testing::damage(path, 4096 + 16, QByteArray(8, '\xFF')); // the run of 7
    ASSERT_TRUE(list.open(path, 100));
    EXPECT_FALSE(list.forEach([](auto, auto) { return true; }));
    std::uint64_t number = 0;
    EXPECT_TRUE(*list.get(number));
    EXPECT_EQ(number, 3u);
    EXPECT_FALSE(*list.get(number));
    EXPECT_EQ(list.count(), 0u);
}

TEST_F(FreeListTest, NumbersThatCannotBeArePassedOverInOneStep) {
    std::uint64_t const limit = ~0ull >> 16;
    ASSERT_TRUE(list.create(path, limit));
    ASSERT_TRUE(list.put(3) && list.grow(90, limit / 2) && list.grow(limit - 7, 8));
    std::uint64_t number = 0;
    for (std::uint64_t wanted : {90, 91, 92, 93, 94, 95, 96, 97, 98, 99, 3}) {
        ASSERT_TRUE(*list.get(number, 100));
        EXPECT_EQ(number, wanted);
    }
    EXPECT_FALSE(*list.get(number, 100));
    EXPECT_EQ(list.count(), 0u);
}

TEST_F(FreeListTest, FailedReadIsNotAnEmptySet) {
    ASSERT_TRUE(list.create(path, 1000000));
    for (std::uint64_t n = 2; n < 3000; n += 2)
        ASSERT_TRUE(list.put(n));
    ASSERT_TRUE(list.close());
    FaultyFiles files;
    ASSERT_TRUE(list.open(path, 1000000));
    files.failReadsAfter(0);
    std::uint64_t number = 77;
    EXPECT_EQ(list.get(number).code(), Status::Code::IoError);
    EXPECT_EQ(list.put(5001).code(), Status::Code::IoError);
    EXPECT_EQ(number, 77u);
    files.heal();
    EXPECT_EQ(numbers().size(), 1499u);
}

TEST_F(FreeListTest, FullDiskAndFailedWritesLoseNothing) {
    FaultyFiles files;
    files.diskBudget(4096 * 3);
    ASSERT_TRUE(list.create(path, 100000));
    std::set<std::uint64_t> model;
    std::uint64_t number = 2;
    for (; list.put(number); number += 2)
        model.insert(number);
    EXPECT_EQ(model.size(), 512u);
    EXPECT_EQ(list.count(), 512u);
    EXPECT_TRUE(list.flush());
    ASSERT_TRUE(*list.get(number));
    model.erase(number);
    files.failWritesAfter(0);
    EXPECT_FALSE(list.flush());
    files.heal();
    EXPECT_TRUE(list.close());
    std::uint64_t const written = files.writes();
    ASSERT_TRUE(list.open(path, 100000));
    EXPECT_EQ(numbers(), model);
    ASSERT_TRUE(list.close());
    EXPECT_EQ(files.writes(), written);
}

} // namespace
} // namespace Morva
