#include "replication/repository/store/NodeInfo.h"

#include "replication/repository/store/EventSamples.h"

#include <gtest/gtest.h>

namespace Replication {
namespace {

using Morva::Extent;
using Morva::PackBuffer;

QByteArray packed(NodeInfo const& info) {
    PackBuffer buffer;
    info.pack(buffer);
    return buffer.extentWithoutSize().toByteArray();
}

NodeInfo sample(std::uint32_t type) {
    NodeInfo info(Qt::CaseSensitive, type);
    info.placeHolder = type == NodeInfo::Root;
    info.attributes = 0x1FF;
    info.owner = QStringLiteral("7");
    info.sourceMachine = QStringLiteral("m");
    info.name = QStringLiteral("st");
    info.addStream(QStringLiteral("Data"), StreamId{0x1234}, true, false, true);
    info.addStream(QStringLiteral("Ea"), StreamId{5}, false, true, false);
    return info;
}

QByteArray const fileRecord = QByteArray::fromHex("03000000"
                                                  "00"
                                                  "000000"
                                                  "ff010000"
                                                  "02000000"
                                                  "3700"
                                                  "0000"
                                                  "02000000"
                                                  "08000000"
                                                  "4400610074006100"
                                                  "00000000"
                                                  "3412000000000000"
                                                  "01"
                                                  "00"
                                                  "01"
                                                  "00"
                                                  "04000000"
                                                  "45006100"
                                                  "00000000"
                                                  "0500000000000000"
                                                  "00"
                                                  "01"
                                                  "00");
QByteArray const rootRecord = QByteArray::fromHex("01000000"
                                                  "01"
                                                  "000000"
                                                  "02000000"
                                                  "6d00"
                                                  "0000"
                                                  "04000000"
                                                  "73007400"
                                                  "02000000"
                                                  "08000000"
                                                  "4400610074006100"
                                                  "3412000000000000"
                                                  "01"
                                                  "00"
                                                  "0000"
                                                  "04000000"
                                                  "45006100"
                                                  "00000000"
                                                  "0500000000000000"
                                                  "00"
                                                  "01");

TEST(NodeInfo, RecordsHaveTheBytesOfTheirTablesAndComeBack) {
    for (auto const& [type, record] :
         {std::pair{NodeInfo::File, fileRecord}, {NodeInfo::Root, rootRecord}}) {
        EXPECT_EQ(packed(sample(type)).toHex(), record.toHex());
        NodeInfo const read(Qt::CaseSensitive, Extent(record));
        EXPECT_EQ(read.type(), type);
        EXPECT_EQ(packed(read).toHex(), record.toHex());
        EXPECT_TRUE(read.dirty(StreamId{0x1234}));
        EXPECT_EQ(read.sparse(StreamId{0x1234}), type == NodeInfo::File);
        EXPECT_EQ(read.streamName(StreamId{5}), QStringLiteral("Ea"));
    }
}

TEST(NodeInfo, OldFileRecordIsWrittenBackInTheNewForm) {
    QByteArray old = QByteArray::fromHex("02000000"
                                         "00"
                                         "000000"
                                         "ff010000"
                                         "00000000"
                                         "01000000"
                                         "08000000"
                                         "4400610074006100"
                                         "0000000000000000"
                                         "01"
                                         "00");
    old.replace(32, 8, QByteArray::fromHex("3412000000000000"));
    NodeInfo const info(Qt::CaseSensitive, Extent(old));
    ASSERT_EQ(info.type(), NodeInfo::File);
    ASSERT_EQ(info.streams().size(), 1U);
    EXPECT_FALSE(info.sparse(StreamId{0x1234}));
    QByteArray const again = packed(info);
    EXPECT_EQ(again.size(), old.size() + 1);
    EXPECT_EQ(again.left(4).toHex(), "03000000");
}

TEST(NodeInfo, EveryTruncationLeavesAnEmptyRecord) {
    for (QByteArray const& record : {fileRecord, rootRecord})
        for (int size = 0; size < record.size(); ++size) {
            NodeInfo const info(Qt::CaseSensitive, Extent(record.left(size)));
            EXPECT_EQ(info.type(), NodeInfo::Empty) << size;
            EXPECT_LE(info.streams().size(), 1U) << size;
        }
}

TEST(NodeInfo, UnknownTypesAndAbsurdCountsLeaveAnEmptyRecord) {
    QByteArray record = fileRecord;
    record[0] = 9;
    EXPECT_EQ(NodeInfo(Qt::CaseSensitive, Extent(record)).type(), NodeInfo::Empty);
    EXPECT_EQ(NodeInfo(Qt::CaseSensitive, Extent(QByteArray())).type(), NodeInfo::Empty);
    record = fileRecord;
    record.replace(20, 4, QByteArray::fromHex("ffffffff"));
    NodeInfo const info(Qt::CaseSensitive, Extent(record));
    EXPECT_EQ(info.type(), NodeInfo::Empty);
    EXPECT_EQ(info.streams().size(), 2U);
}

TEST(NodeInfo, StreamNamesFollowTheCaseOfTheStore) {
    for (auto cs : {Qt::CaseSensitive, Qt::CaseInsensitive}) {
        NodeInfo info(cs, Extent(fileRecord));
        EXPECT_EQ(info.exists(QStringLiteral("dATA")), cs == Qt::CaseInsensitive);
        EXPECT_TRUE(info.setDirty(StreamId{5}));
        EXPECT_FALSE(info.setDirty(StreamId{6}));
        EXPECT_FALSE(info.setSparse(StreamId{6}));
        EXPECT_EQ(info.idList(), (std::vector{StreamId{0x1234}, StreamId{5}}));
    }
}

TEST(Version, ReadsItsThreeFormsAndRefusesTheRest) {
    Version version = sampleVersion();
    version.weak = true;
    PackBuffer buffer;
    version.pack(buffer);
    QByteArray const record = buffer.extentWithoutSize().toByteArray();

    Version read;
    Morva::UnpackBuffer reader;
    reader.reset(Extent(record));
    ASSERT_TRUE(read.unpack(3, reader));
    EXPECT_EQ(read.fileNode, version.fileNode);
    EXPECT_EQ(read.link, version.link);
    EXPECT_EQ(read.prevLink, version.prevLink);
    EXPECT_EQ(read.path, version.path);
    EXPECT_TRUE(read.weak);
    EXPECT_EQ(read.rules, version.rules);

    PackBuffer old;
    for (std::uint64_t id : {11, 10, 256})
        old.append(id);
    old.append(QStringLiteral("/a//bc/"));
    old.append(QStringLiteral("u"));
    old.append(QString());
    old.append(false);
    old.append(true);
    for (std::uint32_t value : {0, 4, 1, 7})
        old.append(value);
    for (std::uint32_t form : {1U, 2U}) {
        reader.reset(old.extentWithoutSize());
        ASSERT_TRUE(read.unpack(form, reader)) << form;
        EXPECT_EQ(read.directory, version.directory);
        EXPECT_EQ(read.path, version.path);
        EXPECT_EQ(read.link, LinkId{1});
        EXPECT_EQ(read.rules, std::vector<std::uint32_t>{7});
    }
    for (std::uint32_t form : {0U, 4U}) {
        reader.reset(Extent(record));
        EXPECT_FALSE(read.unpack(form, reader)) << form;
    }
    for (int size = 0; size < record.size(); ++size) {
        reader.reset(Extent(record.left(size)));
        EXPECT_FALSE(read.unpack(3, reader)) << size;
    }
}

} // namespace
} // namespace Replication
