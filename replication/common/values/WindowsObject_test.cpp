#include "replication/common/values/WindowsObject.h"

#include <gtest/gtest.h>

namespace Replication {
namespace {

using Morva::Extent;

TEST(WindowsAttributes, ListsThatLieAboutTheirSizesAreRefused) {
    auto const golden = QByteArray::fromHex("04000000"
                                            "03000000"
                                            "80000000"
                                            "4e616d65"
                                            "010203"
                                            "00"
                                            "01000000"
                                            "00000000"
                                            "00000000"
                                            "78");
    WindowsAttributes list;
    list.append({"Name", QByteArray::fromHex("010203"), 0x80});
    list.append({"x", {}, 0});
    EXPECT_EQ(list.encode(), golden);
    std::uint32_t left = 1;
    auto const whole = WindowsAttributes::decode(Extent(golden), left);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->all(), list.all());
    EXPECT_EQ(left, 0U);
    for (qsizetype size = 1; size < golden.size(); ++size) {
        auto const cut = golden.first(size);
        // At the end of an entry, and of what is aligned behind it, a list is whole.
        EXPECT_EQ(WindowsAttributes::decode(Extent(cut), left).has_value(),
                  size == 19 || size == 20)
            << size;
    }
    EXPECT_FALSE(WindowsAttributes::decode(Extent(golden.first(30)), left));
    EXPECT_EQ(left, 11U);
    for (auto const at : {0, 4}) {
        for (auto const byte : {'\x7f', '\xff'}) {
            auto damaged = golden;
            damaged[at + 1] = byte;
            EXPECT_FALSE(WindowsAttributes::decode(Extent(damaged), left)) << at << +byte;
        }
    }
    auto nameless = golden;
    nameless[0] = 0;
    EXPECT_FALSE(WindowsAttributes::decode(Extent(nameless), left));
    EXPECT_FALSE(WindowsAttributes::decode(
        Extent(QByteArray(WindowsAttributes::maximumList + 1, '\1')), left));
}

/// Owner and group Administrators, a list with one entry for everyone, and an audit list.
QByteArray descriptor() {
    return QByteArray::fromHex("0100149414000000240000003400000050000000"
                               "01020000000000052000000020020000"
                               "01020000000000052000000021020000"
                               "02001c0001000000"
                               "02401400ff011f00010100000000000100000000"
                               "02001c0001000000"
                               "00001400ff011f00010100000000000100000000");
}

TEST(WindowsSecurity, DescriptorsCutShortAreRefused) {
    auto const whole = descriptor();
    EXPECT_TRUE(WindowsSecurity::valid(Extent(whole)));
    for (qsizetype size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(WindowsSecurity::valid(Extent(whole.first(size)))) << size;
    for (auto const at : {4, 8, 12, 16}) {
        for (auto const byte : {'\x01', '\x13', '\x7f'}) {
            auto damaged = whole;
            damaged[at] = byte;
            EXPECT_FALSE(WindowsSecurity::valid(Extent(damaged))) << at << +byte;
        }
    }
    EXPECT_TRUE(WindowsSecurity::validSid(Extent(whole.sliced(20, 16))));
    EXPECT_FALSE(WindowsSecurity::validSid(Extent(whole.sliced(20, 15))));
    EXPECT_FALSE(WindowsSecurity::validSid(Extent(whole.sliced(20, 17))));
}

TEST(WindowsSecurity, OnlyThePartsThatWereSetChange) {
    auto const present = descriptor();
    auto given = present;
    given[20 + 12] = 0x25; // another owner
    given[36 + 12] = 0x26;
    EXPECT_EQ(WindowsSecurity::merged(Extent(present), Extent(given), 0), present);
    EXPECT_EQ(WindowsSecurity::merged(Extent(present), Extent(given), 0x7f), given);
    auto owned = present;
    owned[20 + 12] = 0x25;
    EXPECT_EQ(WindowsSecurity::merged(Extent(present), Extent(given), WindowsSecurity::ownerPart),
              owned);
    auto const group = WindowsSecurity::merged(Extent(), Extent(given), WindowsSecurity::groupPart);
    EXPECT_EQ(group, QByteArray::fromHex("0100008000000000140000000000000000000000"
                                         "01020000000000052000000026020000"));
}

} // namespace
} // namespace Replication
