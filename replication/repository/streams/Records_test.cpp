#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/DedupFile.h"
#include "replication/repository/streams/DedupKey.h"
#include "replication/repository/streams/DedupRequest.h"
#include "replication/repository/streams/StreamNode.h"

#include "base/trees/PagedQueue.h"

#include <QFile>
#include <QTemporaryDir>

#include <numeric>

using namespace Replication;
using Morva::Extent;

namespace {

Digest sampleDigest() {
    Digest digest;
    digest.type = Digest::eRepDigestSha1;
    std::iota(digest.value.begin(), digest.value.begin() + Digest::sha1Size, std::uint8_t{0xa0});
    return digest;
}

QByteArray digestHex() {
    return "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3" + QByteArray(24, '0');
}

} // namespace

TEST(StreamNode, LiesInItsBlockByteForByte) {
    alignas(8) std::array<std::uint8_t, StreamNode::size> bytes{};
    StreamNode node(bytes.data());
    node.id(StreamId{0x1122334455667788});
    node.referenceCount(3);
    node.digest(sampleDigest());
    node.indexed(true);
    node.frozen(true);
    node.record().length(0x12345);
    node.record().depth(2);
    node.record().entry(0, 5);
    node.record().entry(22, 6);
    QByteArray const golden = QByteArray::fromHex("8877665544332211"
                                                  "03000000"
                                                  "01000000" +
                                                  digestHex() +
                                                  "0101000000000000"
                                                  "4523010000000000"
                                                  "02000000"
                                                  "00000000"
                                                  "0500000000000000" +
                                                  QByteArray(21 * 16, '0') + "0600000000000000");
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(bytes.data()), bytes.size()), golden);
    EXPECT_EQ(node.digest(), sampleDigest());
}

TEST(DedupKey, StoredFormAndHashNeverChange) {
    DedupKey key(0x123456789abc, sampleDigest());
    key.hash({key.hash().first, 9});
    key.referenceCount(4);
    std::array<std::uint8_t, DedupKey::storedSize> bytes{};
    Extent range(bytes.data(), DedupKey::storedSize);
    ASSERT_TRUE(key.save(range));
    // The hash by an independent reading of its rule, from the 20 digest bytes and the length.
    std::uint32_t h = 0;
    for (int i = 0; i < 32; ++i) {
        h = (h << 4) + (i < 20 ? 0xa0u + static_cast<unsigned>(i) : 0u);
        std::uint32_t const g = h & 0xf0000000;
        h = (h ^ (g >> 23)) & ~g;
    }
    EXPECT_EQ(key.hash().first, h ^ 0x56789abcu ^ static_cast<std::uint32_t>(0x123456789abc >> 31));
    QByteArray const stored(reinterpret_cast<char*>(bytes.data()), bytes.size());
    EXPECT_EQ(stored.left(48).toHex(), "bc9a785634120000"
                                       "01000000" +
                                           digestHex() + "00000000");
    EXPECT_EQ(stored.mid(52, 12).toHex(), "090000000400000000000000");

    DedupKey found(0x123456789abc, sampleDigest());
    EXPECT_TRUE(found.equal(range));
    EXPECT_TRUE(found.restore(range));
    EXPECT_EQ(found.referenceCount(), 4u);
    EXPECT_EQ(found.hash().second, 9u);
    EXPECT_FALSE(DedupKey(0x123456789abd, sampleDigest()).equal(range));
    Extent const shorter(bytes.data(), DedupKey::storedSize - 1);
    EXPECT_FALSE(found.equal(shorter));
    EXPECT_FALSE(found.restore(shorter));
    EXPECT_EQ(found.length(), 0u);
}

TEST(Requests, KeepTheirBytesAndRefuseOtherSizes) {
    DedupRequest const request{DedupRequest::DeleteSnapshot, StoreId{0x0102030405060708}, 42};
    auto const bytes = request.encode();
    EXPECT_EQ(QByteArray(reinterpret_cast<char const*>(bytes.data()), bytes.size()).toHex(),
              "020000000000000008070605040302012a00000000000000");
    DedupRequest back;
    EXPECT_FALSE(back.decode(Extent(bytes.data(), 23)));
    EXPECT_TRUE(back.decode(Extent(bytes.data(), 24)));
    EXPECT_EQ(back, request);

    QTemporaryDir directory;
    Morva::PagedQueue queue(directory.path() + "/q", 1 << 20, 4);
    std::array<std::uint8_t, 1000> record{};
    record[0] = 0x5a;
    EXPECT_TRUE(CleanupRequest::deleteStream(queue, StreamId{77}));
    EXPECT_TRUE(CleanupRequest::deleteInfo(queue, Extent(record.data(), 200)));
    EXPECT_TRUE(CleanupRequest::deleteInfo(queue, Extent(record.data(), 960)));
    EXPECT_FALSE(CleanupRequest::deleteInfo(queue, Extent(record.data(), 208)));
    std::vector<QByteArray> entries;
    EXPECT_TRUE(queue.forEach([&](Extent const& entry) {
        entries.push_back(entry.toByteArray());
        return true;
    }));
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].toHex(), "01000000000000004d00000000000000");
    EXPECT_EQ(entries[1].left(9).toHex(), "02000000000000005a");
    CleanupRequest got;
    for (std::uint32_t size = 0; size <= 968; ++size) {
        bool const whole = size == 208 || size == 968;
        EXPECT_EQ(got.decode(Extent(entries[2].constData(), size)), whole) << size;
    }
    EXPECT_EQ(got.record.size, 960u);
}

TEST(DedupFile, ClosesAPeriodUnderItsInstance) {
    QTemporaryDir directory;
    QString const path = directory.path();
    DedupFile current(path);
    ASSERT_TRUE(current.openForAppend());
    for (std::uint64_t id = 1; id <= 5000; ++id)
        ASSERT_TRUE(current.append(StreamId{id}));
    ASSERT_TRUE(current.rename(Instance{42}));
    EXPECT_EQ(QFile(path + "/dedup0000000042").size(), 40000);
    EXPECT_EQ(QFile(path + "/dedup").size(), 0);
    EXPECT_FALSE(current.openForRead()) << "the current file is not for reading";

    // A torn last entry is not there, and the next one takes its place.
    QFile torn(path + "/dedup");
    ASSERT_TRUE(torn.open(QIODevice::WriteOnly));
    torn.write("12345678abc");
    torn.close();
    ASSERT_TRUE(current.openForAppend());
    ASSERT_TRUE(current.append(StreamId{6}));
    EXPECT_EQ(QFile(path + "/dedup").size(), 11) << "gathered";
    EXPECT_TRUE(current.flush());
    EXPECT_EQ(QFile(path + "/dedup").size(), 16);
    EXPECT_TRUE(current.empty());
    EXPECT_EQ(QFile(path + "/dedup").size(), 0);

    DedupFile closed(path, Instance{42});
    ASSERT_TRUE(closed.openForRead());
    StreamId id;
    ASSERT_TRUE(closed.setPosition(8 * 4998));
    EXPECT_TRUE(closed.read(id) && id == StreamId{4999});
    EXPECT_EQ(closed.position(), 8u * 4999);
    EXPECT_TRUE(closed.read(id));
    EXPECT_FALSE(closed.read(id));
    EXPECT_FALSE(closed.setPosition(3));
    EXPECT_TRUE(closed.remove());
    EXPECT_FALSE(closed.openForRead());
    EXPECT_TRUE(closed.remove());
}
