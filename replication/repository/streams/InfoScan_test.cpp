#include "replication/repository/streams/TestSupport.h"

#include <QFile>
#include <QFileInfo>

#include <set>

using namespace Replication;
using namespace Replication::Test;

namespace {

constexpr std::uint64_t blockSize = TreeParameters::blockSize;

/// The blocks of content that a stream tells of, in the order of the search.
std::set<std::uint64_t> found(StreamHandle& stream) {
    std::set<std::uint64_t> blocks;
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    for (; stream.findData(start, end); start = end) {
        EXPECT_LT(start, end);
        EXPECT_LE(end, stream.length());
        for (auto at = start / blockSize; at * blockSize < end; ++at)
            blocks.insert(at);
    }
    return blocks;
}

} // namespace

TEST(InfoScan, ContentIsFoundWhereItWasWritten) {
    Pool pool;
    auto const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    std::vector<std::uint8_t> const bytes(64 * blockSize, 0xa5);
    // Streams of each depth of the tree.
    for (std::uint64_t const size :
         {blockSize * 20, blockSize * 9000, blockSize * 5000000, blockSize * 2000000000}) {
        auto const stream = pool.make();
        ASSERT_TRUE(stream->truncate(size + 5));
        EXPECT_TRUE(found(*stream).empty());
        std::set<std::uint64_t> model;
        for (int step = 0; step < 60; ++step) {
            auto const first = random() % (size / blockSize);
            auto const count = std::min(random() % 64 + 1, size / blockSize - first);
            auto const erase = random() % 3 == 0;
            auto const from = first * blockSize;
            if (erase)
                ASSERT_TRUE(stream->zeroData(from, from + count * blockSize));
            else
                ASSERT_TRUE(stream->write(from, bytes.data(),
                                          static_cast<std::uint32_t>(count * blockSize)));
            for (auto at = first; at < first + count; ++at)
                erase ? (void)model.erase(at) : (void)model.insert(at);
        }
        EXPECT_EQ(found(*stream), model);
        // From the middle of a block on, and in its last, short one.
        if (!model.empty()) {
            std::uint64_t start = *model.begin() * blockSize + 7;
            std::uint64_t const from = start;
            std::uint64_t end = 0;
            EXPECT_TRUE(stream->findData(start, end));
            EXPECT_EQ(start, from);
        }
        ASSERT_TRUE(stream->write(size, bytes.data(), 5));
        std::uint64_t start = size + 1;
        std::uint64_t end = 0;
        EXPECT_TRUE(stream->findData(start, end));
        EXPECT_EQ(start, size + 1);
        EXPECT_EQ(end, size + 5);
        start = end;
        EXPECT_FALSE(stream->findData(start, end));
    }
}

TEST(InfoScan, ReadWholeTellsOfBlocksThatAreGone) {
    Pool pool(1);
    auto const whole = pool.make();
    std::vector<std::uint8_t> bytes(16 * blockSize, 1);
    ASSERT_TRUE(whole->write(0, bytes.data(), static_cast<std::uint32_t>(bytes.size())));
    auto const cut = pool.make();
    ASSERT_TRUE(cut->write(0, bytes.data(), static_cast<std::uint32_t>(bytes.size())));
    auto const data = pool.directory.path() + "/data/data.blocks";
    ASSERT_TRUE(QFile::resize(data, QFileInfo(data).size() - 2 * qint64{blockSize}));
    EXPECT_EQ(cut->readWhole(0, bytes.data(), 16 * blockSize), std::nullopt);
    // One failure doesn't stick.
    EXPECT_EQ(cut->readWhole(0, bytes.data(), blockSize), blockSize);
    EXPECT_EQ(whole->readWhole(0, bytes.data(), 16 * blockSize), 16 * blockSize);
    EXPECT_EQ(whole->readWhole(16 * blockSize, bytes.data(), 1), 0U);
}
