#include "replication/repository/streams/DedupPass.h"

#include "base/values/Sha1.h"
#include "replication/repository/streams/TestSupport.h"

using namespace Replication;
using namespace Replication::Test;

namespace {

struct DedupPasses : testing::Test {
    std::uint64_t const seed = newSeed();
    std::mt19937_64 random{seed};
    Pool pool;
    DedupStatistics statistics;
    std::vector<std::uint8_t> room = std::vector<std::uint8_t>(2 << 20);
    std::vector<StreamId> ids;
    std::vector<Digest> digests;

    /// Streams of all lengths from nothing to several jobs; some have holes, some contents come
    /// twice.
    void fill(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t const most[] = {200, 200, 20000, 20000, 600000, 3000000};
            auto bytes = random() % 4 == 0 ? randomBytes(random, 5000 * (random() % 5))
                                           : randomBytes(random, random() % most[random() % 6]);
            auto const stream = pool.make();
            stream->write(0, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
            if (random() % 3 == 0) {
                std::size_t const start = random() % (bytes.size() + 1) / 4096 * 4096;
                std::size_t const end = start + random() % (bytes.size() - start + 1);
                std::fill(bytes.begin() + start, bytes.begin() + end, std::uint8_t{0});
                stream->zeroData(start, end);
            }
            Morva::Sha1 sha;
            sha.addData(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
            Digest digest;
            digest.type = Digest::eRepDigestSha1;
            std::memcpy(digest.value.data(), sha.result().data, Morva::Sha1::digestSize);
            ids.push_back(stream->id());
            digests.push_back(digest);
        }
    }
    Morva::Extent buffer(std::uint32_t size) {
        return Morva::Extent(static_cast<void*>(room.data()), size);
    }
    StreamInfo info(std::size_t stream) {
        StreamInfo result;
        pool.streams->handle(ids[stream], false)->info(result);
        return result;
    }
    void expectAllDone() {
        for (std::size_t i = 0; i < ids.size(); ++i) {
            EXPECT_EQ(info(i).digest, digests[i]) << "stream " << i << " of seed " << seed;
            EXPECT_EQ(info(i).indexed, info(i).length > 184) << info(i).length;
        }
        EXPECT_TRUE(pool.cleanup->drain());
        EXPECT_EQ(Audit(*pool.streams).run(), "") << "seed " << seed;
        EXPECT_EQ(pool.streams->openStreams(), 0u);
    }
};

} // namespace

TEST_F(DedupPasses, EveryStreamGetsItsDigestWhateverTheBuffer) {
    for (std::uint32_t const size : {1000u, 70000u, 130000u, 300001u, 2u << 20}) {
        SCOPED_TRACE(size);
        fill(60);
        DedupPass pass(*pool.streams, {}, statistics, buffer(size));
        for (StreamId const id : ids)
            ASSERT_TRUE(pass.add(id));
        ASSERT_TRUE(pass.add(StreamId{4711000})) << "not there";
        ASSERT_TRUE(pass.finish());
        EXPECT_EQ(pass.done(), ids.size() + 1);
        expectAllDone();
    }
}

TEST_F(DedupPasses, StoppedPassTellsWhereTheNextOneGoesOn) {
    fill(80);
    std::uint64_t done = 0;
    int reads = static_cast<int>(random() % 150);
    pool.streams->freezing(true);
    {
        auto const stopSoon = [&] {
            if (reads-- == 0)
                pool.streams->stop();
        };
        DedupPass pass(*pool.streams, stopSoon, statistics, buffer(300000));
        for (std::size_t i = 0; i < ids.size() && pass.add(ids[i]);)
            ++i;
        bool const finished = pass.finish();
        EXPECT_EQ(finished, !pool.streams->stopping());
        done = pass.done();
    }
    for (std::size_t i = 0; i < done; ++i)
        EXPECT_EQ(info(i).digest, digests[i]) << "stream " << i << " of seed " << seed;
    pool.reopen();
    DedupPass pass(*pool.streams, {}, statistics, buffer(300000));
    for (std::size_t i = done; i < ids.size(); ++i)
        ASSERT_TRUE(pass.add(ids[i]));
    EXPECT_TRUE(pass.finish());
    EXPECT_EQ(done + pass.done(), ids.size());
    expectAllDone();
}
