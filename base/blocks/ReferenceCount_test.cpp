#include "base/blocks/ReferenceCount.h"

#include "base/blocks/TestSupport.h"
#include "base/files/FaultyFiles.h"

#include <map>

namespace Morva {
namespace {

using Testing::Random;

struct ReferenceCountTest : testing::Test {
    QTemporaryDir dir;
    QString path = dir.filePath("x.refs");
    ReferenceCount refs{2};

    std::map<std::uint64_t, std::uint32_t> all() const {
        std::map<std::uint64_t, std::uint32_t> counts;
        EXPECT_TRUE(refs.forEach([&](auto n, auto c) { return counts.emplace(n, c).second; }));
        return counts;
    }
};

TEST_F(ReferenceCountTest, CountsRunFromNewIdToRelease) {
    ASSERT_TRUE(refs.create(path, 1u << 20, 0));
    std::uint32_t count = 77;
    EXPECT_TRUE(refs.count(count, 5));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(refs.increment(count, 5).code(), Status::Code::Corruption);
    ASSERT_TRUE(refs.newId(5));
    EXPECT_EQ(refs.newId(5).code(), Status::Code::Busy);
    EXPECT_TRUE(refs.increment(count, 5));
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(refs.decrement(count, 5) && refs.decrement(count, 5));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(refs.decrement(count, 5).code(), Status::Code::Corruption);
    EXPECT_TRUE(refs.releaseId(5));
    EXPECT_TRUE(refs.newId(5));
}

TEST_F(ReferenceCountTest, LimitAndLargestCountHold) {
    ASSERT_TRUE(refs.create(path, 3000, 100));
    std::uint32_t count = 0;
    EXPECT_TRUE(refs.newId(3000));
    EXPECT_FALSE(refs.newId(3001));
    EXPECT_FALSE(refs.count(count, 3001));
    EXPECT_FALSE(refs.releaseId(3001));
    ASSERT_TRUE(refs.close());
    EXPECT_EQ(QFileInfo(path).size(), 4 * 4096);
    EXPECT_FALSE(refs.open(path, 3001, 100));
    Testing::damage(path, 4096 + 3000 * 4, QByteArray(4, '\xFF'));
    ASSERT_TRUE(refs.open(path, 3000, 100));
    EXPECT_FALSE(refs.increment(count, 3000));
    EXPECT_TRUE(refs.count(count, 3000));
    EXPECT_EQ(count, 0xFFFFFFFFu);
}

TEST_F(ReferenceCountTest, RandomWorkAgreesWithAMap) {
    Random random(11);
    std::map<std::uint64_t, std::uint32_t> model;
    ASSERT_TRUE(refs.create(path, ~0ull >> 16, 5000));
    for (int step = 0; step < 30000; ++step) {
        std::uint64_t const number = random.below(20000);
        std::uint64_t const what = random.below(1000);
        auto at = model.find(number);
        std::uint32_t count = 0;
        if (what == 0) {
            ASSERT_TRUE(refs.close());
            ASSERT_TRUE(refs.open(path, ~0ull >> 16, 5000));
        } else if (what < 500) {
            ASSERT_EQ(refs.newId(number).ok(), at == model.end());
            model.emplace(number, 1);
        } else if (at != model.end() && what < 700) {
            ASSERT_TRUE(refs.increment(count, number));
            ASSERT_EQ(count, ++at->second);
        } else if (at != model.end()) {
            ASSERT_TRUE(refs.decrement(count, number));
            ASSERT_EQ(count, --at->second);
            if (count == 0) {
                ASSERT_TRUE(refs.releaseId(number));
                model.erase(at);
            }
        }
    }
    EXPECT_EQ(all(), model);
    EXPECT_LE(refs.cacheSize(), 4u);
}

TEST_F(ReferenceCountTest, DamagedHeadersDoNotOpen) {
    ASSERT_TRUE(refs.create(path, 1000, 0));
    ASSERT_TRUE(refs.newId(1));
    ASSERT_TRUE(refs.close());
    QByteArray const sound = Testing::contents(path);
    for (int offset = 0; offset < 40; ++offset) {
        Testing::damage(path, offset, QByteArray(1, static_cast<char>(sound[offset] ^ 0x81)));
        EXPECT_FALSE(refs.open(path, 1000, 0)) << offset;
        Testing::damage(path, offset, sound.mid(offset, 1));
    }
    ASSERT_TRUE(QFile::resize(path, 4096));
    EXPECT_FALSE(refs.open(path, 1000, 0));
}

TEST_F(ReferenceCountTest, FullDiskAndFailedWritesLoseNothing) {
    FaultyFiles files;
    files.diskBudget(4096 * 3);
    ASSERT_TRUE(refs.create(path, ~0ull, 0));
    EXPECT_TRUE(refs.newId(2047));
    EXPECT_EQ(refs.newId(2048).code(), Status::Code::NoSpace);
    EXPECT_FALSE(refs.newId(~0ull));
    files.failWritesAfter(0);
    EXPECT_FALSE(refs.flush());
    files.heal();
    EXPECT_TRUE(refs.close());
    std::uint64_t const written = files.writes();
    ASSERT_TRUE(refs.open(path, ~0ull, 0));
    files.failReadsAfter(0);
    std::uint32_t count = 5;
    EXPECT_EQ(refs.count(count, 2047).code(), Status::Code::IoError);
    EXPECT_EQ(refs.decrement(count, 2047).code(), Status::Code::IoError);
    EXPECT_EQ(refs.newId(2046).code(), Status::Code::IoError);
    EXPECT_EQ(count, 5u);
    files.heal();
    EXPECT_EQ(all(), (std::map<std::uint64_t, std::uint32_t>{{2047, 1}}));
    ASSERT_TRUE(refs.close());
    EXPECT_EQ(files.writes(), written);
}

} // namespace
} // namespace Morva
