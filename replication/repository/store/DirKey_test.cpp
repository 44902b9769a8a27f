#include "replication/repository/store/DirKey.h"

#include <QByteArray>

#include <gtest/gtest.h>

namespace Replication {
namespace {

using Morva::Extent;

QByteArray saved(DirKey const& key) {
    QByteArray bytes(key.size(), char(0x55));
    Extent range(bytes.data(), key.size());
    EXPECT_TRUE(key.save(range));
    return bytes;
}

TEST(DirKey, HasItsStoredForm) {
    DirKey key(FileId{0x0102030405060708}, QStringLiteral("ab"), directoryType);
    key.fileId(FileId{0x1122334455667788});
    key.position(0x2030);
    key.liveOnly(true);
    // 'a' 0x61, 'b' 0x62: (0x61 << 4) + 0x62 = 0x672; low words of the id and of the id >> 31.
    std::uint32_t const hash = 0x672 ^ 0x05060708 ^ 0x02040608;
    EXPECT_EQ(key.hash().first, hash);
    key.hash({hash, 7});
    QByteArray const golden = QByteArray::fromHex("3020000000000000" // position
                                                  "8877665544332211" // file id
                                                  "01000000"         // link id
                                                  "02000080"         // type, liveOnly
                                                  "72070207"         // hash
                                                  "07000000"         // second word
                                                  "02000000"         // characters
                                                  "00000000"         // reserved
                                                  "0807060504030201" // directory
                                                  "610062000000");   // name
    EXPECT_EQ(saved(key).toHex(), golden.toHex());
}

TEST(DirKey, RestoresWhatTheTreeKnowsAndKeepsItsName) {
    DirKey stored(FileId{5}, QStringLiteral("name"), 1);
    stored.fileId(FileId{77});
    stored.position(4096);
    stored.linkId(LinkId{3});
    stored.hash({stored.hash().first, 9});
    QByteArray const bytes = saved(stored);

    DirKey key(FileId{5}, QStringLiteral("name"), 0);
    EXPECT_EQ(key.linkId(), LinkId{});
    EXPECT_EQ(key.link(), LinkId{1});
    ASSERT_TRUE(key.equal(Extent(bytes)));
    ASSERT_TRUE(key.restore(Extent(bytes)));
    EXPECT_EQ(saved(key), bytes);

    EXPECT_FALSE(DirKey(FileId{6}, QStringLiteral("name"), 0).equal(Extent(bytes)));
    EXPECT_FALSE(DirKey(FileId{5}, QStringLiteral("nama"), 0).equal(Extent(bytes)));
    DirKey longer(FileId{5}, QStringLiteral("names"), 0);
    EXPECT_FALSE(longer.equal(Extent(bytes)));
    EXPECT_FALSE(longer.restore(Extent(bytes)));
    EXPECT_EQ(longer.fileId(), FileId{});
}

} // namespace
} // namespace Replication
