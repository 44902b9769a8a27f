#include "replication/common/values/PosixObject.h"

#include <gtest/gtest.h>

#include <limits>

namespace Replication {
namespace {

using Morva::Extent;

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();

TEST(FileTime, WordsAreClampedAndTextIsExact) {
    struct {
        FileTime time;
        std::uint32_t word;
        char const* text;
    } const cases[] = {
        {{0, 0}, 0, "0.000000000"},
        {{0, 1}, 0, "0.000000001"},
        {{1, 999'999'999}, 1, "1.999999999"},
        {{-1, 0}, 0, "-1.000000000"},
        {{-1, 999'999'999}, 0, "-0.000000001"},
        {{-2, 500'000'000}, 0, "-1.500000000"},
        {{0x7FFFFFFF, 1}, 0x7FFFFFFF, "2147483647.000000001"},
        {{0x80000000, 0}, 0x80000000, "2147483648.000000000"},
        {{0xFFFFFFFF, 1}, 0xFFFFFFFF, "4294967295.000000001"},
        {{0x100000000, 0}, 0xFFFFFFFF, "4294967296.000000000"},
        {{most, 999'999'999}, 0xFFFFFFFF, "9223372036854775807.999999999"},
        {{least, 0}, 0, "-9223372036854775808.000000000"},
        {{least, 1}, 0, "-9223372036854775807.999999999"},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(each.text);
        EXPECT_EQ(each.time.word(), each.word);
        EXPECT_EQ(each.time.text(), each.text);
        EXPECT_EQ(each.time.resolved(each.word), each.time);
        EXPECT_EQ(each.time.resolved(each.word ^ 1), FileTime::wholeSeconds(each.word ^ 1));
        FileTimes const times{each.time, {}, each.time};
        std::uint8_t bytes[FileTimes::packedSize];
        times.pack(bytes);
        EXPECT_EQ(FileTimes::unpack({bytes, sizeof bytes}), times);
        EXPECT_FALSE(FileTimes::unpack({bytes, sizeof bytes - 1}));
    }
    // What isn't known, or is no count of nanoseconds, never counts.
    for (auto const nanoseconds : {FileTime::unknown, FileTime::nanosecondsPerSecond}) {
        FileTime const time{5, nanoseconds};
        EXPECT_EQ(time.resolved(5), FileTime::wholeSeconds(5));
        EXPECT_EQ(time.text(), "unknown");
    }
}

TEST(PosixSecurity, HasTimesInItsSecondVersion) {
    PosixSecurity security{0100644, 1000, 100, 0x0102030405060708, {}};
    auto const plain = QByteArray::fromHex("01000000"
                                           "a4810000"
                                           "e8030000"
                                           "64000000"
                                           "0807060504030201");
    EXPECT_EQ(security.encode(), plain);
    EXPECT_EQ(PosixSecurity::decode(Extent(plain)), security);

    security.times = {{-1, 999'999'999}, {0x123456789, 1}, {}};
    auto const timed = QByteArray::fromHex("02000000"
                                           "a4810000"
                                           "e8030000"
                                           "64000000"
                                           "0807060504030201"
                                           "ffffffffffffffffffc99a3b"
                                           "896745230100000001000000"
                                           "0000000000000000ffffffff");
    EXPECT_EQ(security.encode(), timed);
    EXPECT_EQ(PosixSecurity::decode(Extent(timed)), security);

    for (qsizetype size = 0; size < timed.size(); ++size)
        EXPECT_FALSE(PosixSecurity::decode(Extent(timed.first(size)))) << size;
    for (qsizetype size = 0; size < plain.size(); ++size)
        EXPECT_FALSE(PosixSecurity::decode(Extent(plain.first(size)))) << size;
    auto unknown = timed;
    unknown[0] = 3;
    EXPECT_FALSE(PosixSecurity::decode(Extent(unknown)));
}

} // namespace
} // namespace Replication
