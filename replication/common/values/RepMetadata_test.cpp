#include "replication/common/values/RepMetadata.h"

#include <gtest/gtest.h>

namespace Replication {
namespace {

using Morva::Extent;
using Morva::PackBuffer;
using Morva::UnpackBuffer;

RepMetadata sample(std::uint32_t kind) {
    RepMetadata data;
    data.kind = kind;
    data.type = 1;
    data.placeHolder = true;
    data.attributes = 2;
    data.createdHere = 3;
    data.modifiedHere = 4;
    data.createdSource = 5;
    data.modifiedSource = 6;
    data.owner = QStringLiteral("o");
    data.linkCount = 7;
    if (kind == RepMetadata::eSnapshot) {
        data.size = 8;
        data.deduped = true;
        data.digest.type = Digest::eRepDigestSha1;
        data.digest.value[0] = 0xAB;
    }
    return data;
}

QByteArray packed(RepMetadata const& data) {
    PackBuffer buffer;
    data.serialize(buffer);
    return buffer.extentWithoutSize().toByteArray();
}

QByteArray const common = QByteArrayLiteral("01000000"
                                            "01"
                                            "000000"
                                            "02000000"
                                            "03000000"
                                            "04000000"
                                            "05000000"
                                            "06000000"
                                            "02000000"
                                            "6f00"
                                            "0000"
                                            "00000000");

TEST(RepMetadata, KindsHaveTheirGoldenBytes) {
    EXPECT_EQ(QByteArray("00000000"), packed(RepMetadata{}).toHex());
    EXPECT_EQ(QByteArray("01000000") + common + "07000000" + "0800000000000000" + "01" + "000000" +
                  "01000000" + "ab" + QByteArray(62, '0'),
              packed(sample(RepMetadata::eSnapshot)).toHex());
    RepMetadata backup = sample(RepMetadata::eBackup);
    EXPECT_EQ(QByteArray("02000000") + common + "07000000", packed(backup).toHex());
    backup.streams.push_back({QStringLiteral("D"), 9, 10, false, {}});
    EXPECT_EQ(QByteArray("02000000") + common + "07000000" + "02000000" + "4400" + "0000" +
                  "0900000000000000" + "0a00000000000000" + "00" + "000000" + "00000000" +
                  QByteArray(64, '0'),
              packed(backup).toHex());
}

TEST(RepMetadata, RecordsComeBackAndEveryTruncationIsRefused) {
    RepMetadata backup = sample(RepMetadata::eBackup);
    backup.streams.push_back({QStringLiteral("Data"), 9, 10, true, {}});
    qsizetype const oneStream = packed(backup).size();
    qsizetype const noStream = packed(sample(RepMetadata::eBackup)).size();
    backup.streams.push_back({QStringLiteral("Ea"), 11, 12, false, {}});
    for (RepMetadata const& data : {RepMetadata{}, sample(RepMetadata::eSnapshot), backup}) {
        QByteArray const bytes = packed(data);
        Morva::Buffer reply;
        ASSERT_TRUE(data.serialize(reply));
        EXPECT_EQ(bytes, reply.writtenExtent().toByteArray());
        for (qsizetype size = 0; size <= bytes.size(); ++size) {
            QByteArray const cut = bytes.left(size);
            UnpackBuffer record;
            record.fromRawData(Extent(cut));
            RepMetadata read;
            // The list of streams has no other end than that of the record.
            bool const whole = size == bytes.size() || (data.kind == RepMetadata::eBackup &&
                                                        (size == oneStream || size == noStream));
            EXPECT_EQ(whole, read.deserialize(record)) << data.kind << " at " << size;
            if (size == bytes.size()) {
                EXPECT_EQ(data, read);
            }
        }
    }
}

TEST(RepMetadata, UnknownKindIsRefused) {
    PackBuffer buffer;
    buffer.append(std::uint32_t{3});
    UnpackBuffer record;
    record.fromRawData(buffer.extentWithoutSize());
    EXPECT_FALSE(RepMetadata().deserialize(record));
}

} // namespace
} // namespace Replication
