#include "replication/repository/store/ControlBlock.h"

#include <gtest/gtest.h>

namespace Replication {
namespace {

struct Written {
    int count = 0;
    bool fail = false;
    ControlBlock::Image last{};

    ControlBlock::Writer writer() {
        return [this](ControlBlock::Image const& image) {
            ++count;
            last = image;
            return fail ? Morva::Status::fromErrno(EIO, "write", "files") : Morva::Status();
        };
    }
};

TEST(ControlBlock, FieldsLieAtTheirOffsets) {
    Written file;
    ControlBlock block(file.writer());
    ASSERT_TRUE(block.update([](ControlFields& fields) {
        fields.version(3);
        fields.instance(Instance{0x11});
        fields.validateInstance(Instance{0x12});
        fields.deleteValidateInstance(true);
        fields.lastInstance(Instance{0x13});
        fields.deleteLastInstance(true);
        fields.storeId(StoreId{0x1122334455667788});
        fields.replayId(ReplayId{0x14});
        fields.sequence(0x15);
        fields.caseSensitive(true);
        fields.directories(0x16);
        fields.files(0x17);
        fields.dirtyFiles(0x18);
        fields.filterType(2);
        fields.lastSequence(0x19);
        fields.active(true);
        fields.markedForDeletion(true);
        fields.deletionSent(true);
        fields.openMark(true);
        fields.batch(true);
    }));
    ControlBlock::Image golden{};
    auto const words = {std::pair{0, 3},     {4, 0x11},  {8, 0x12},  {12, 1},     {16, 0x13},
                        std::pair{20, 1},    {32, 0x14}, {36, 0x15}, {40, 1},     {48, 0x16},
                        std::pair{56, 0x17}, {64, 0x18}, {112, 2},   {120, 0x19}, {164, 1},
                        std::pair{165, 1},   {166, 1},   {167, 1},   {168, 1}};
    for (auto const& [offset, value] : words)
        golden[static_cast<std::size_t>(offset)] = static_cast<std::uint8_t>(value);
    for (int i = 0; i < 8; ++i)
        golden[static_cast<std::size_t>(24 + i)] = static_cast<std::uint8_t>(0x88 - 0x11 * i);
    EXPECT_EQ(golden, file.last);
    EXPECT_EQ(QStringLiteral("BatchExchange"), block.type());
    EXPECT_TRUE(block.markedForDeletion());
}

TEST(ControlBlock, OldVersionsAreUpgraded) {
    struct Case {
        std::uint32_t version, filterType;
        std::uint8_t byte40;
        QString type;
    };
    for (Case const& test : {Case{0, 1, 0, "Filesystem"}, Case{1, 1, 1, "BatchFilesystem"},
                             Case{2, 2, 0, "Exchange"}, Case{2, 2, 1, "BatchExchange"}}) {
        ControlBlock::Image image;
        image.fill(0xEE); // what lies behind the old fields must not shine through
        ControlFields old(image.data());
        old.version(test.version);
        old.storeId(StoreId{5});
        old.files(77);
        image[40] = test.byte40;
        Written file;
        ControlBlock block(file.writer());
        EXPECT_EQ(ControlBlock::Loaded::Upgraded, block.load(image));
        ControlBlock::Image result = block.image();
        ControlFields fields(result.data());
        EXPECT_EQ(3u, fields.version());
        EXPECT_EQ(test.filterType, fields.filterType());
        EXPECT_EQ(test.byte40 != 0, fields.batch());
        EXPECT_EQ(test.type, block.type());
        EXPECT_EQ(77u, fields.files());
        EXPECT_FALSE(fields.active());
        EXPECT_FALSE(fields.markedForDeletion());
        EXPECT_FALSE(fields.openMark());
        EXPECT_EQ(0u, result[1023]);
    }
}

TEST(ControlBlock, CountersCostNoWriteAndGoAlongWithTheNext) {
    Written file;
    ControlBlock block(file.writer());
    ASSERT_TRUE(block.update([](ControlFields& fields) { fields.storeId(StoreId{1}); }));
    block.countName(directoryType, false); // stops at 0
    for (int i = 0; i < 1000; ++i)
        block.countName(i % 4 == 0 ? directoryType : fileType, true);
    block.countName(fileType, false);
    block.countDirty();
    EXPECT_EQ(1, file.count);
    EXPECT_TRUE(block.write());
    EXPECT_TRUE(block.write()); // nothing new
    EXPECT_EQ(2, file.count);
    ControlFields const fields(file.last.data());
    EXPECT_EQ(250u, fields.directories());
    EXPECT_EQ(749u, fields.files());
    EXPECT_EQ(1u, fields.dirtyFiles());
}

TEST(ControlBlock, AChangeThatCantBeWrittenIsTakenBack) {
    Written file;
    ControlBlock block(file.writer());
    ASSERT_TRUE(block.update([](ControlFields& fields) { fields.storeId(StoreId{1}); }));
    block.countName(fileType, true);
    file.fail = true;
    EXPECT_FALSE(block.update([](ControlFields& fields) {
        fields.active(true);
        fields.markedForDeletion(true);
    }));
    EXPECT_FALSE(block.active());
    EXPECT_FALSE(block.markedForDeletion());
    EXPECT_FALSE(block.write());
    file.fail = false;
    EXPECT_TRUE(block.write()); // brings back what the file may have lost
    EXPECT_FALSE(ControlFields(file.last.data()).active());
    EXPECT_EQ(1u, ControlFields(file.last.data()).files());
    EXPECT_EQ(4, file.count);
}

TEST(ControlBlock, StoreZeroKeepsNoCounters) {
    Written file;
    ControlBlock block(file.writer());
    block.countName(fileType, true);
    EXPECT_EQ(0u, block.counters()[1]);
}

} // namespace
} // namespace Replication
