#include "base/values/DataSize.h"
#include "base/values/Sha1.h"
#include "base/values/StringHash.h"

using namespace Morva;

namespace {

QByteArray sha1(QByteArray const& bytes) {
    Sha1 sum;
    sum.addData(Extent(bytes));
    return sum.result().toByteArray().toHex();
}

} // namespace

// The messages and digests of FIPS 180-2, appendix A, and RFC 3174.
TEST(Sha1, GivesThePublishedDigests) {
    EXPECT_EQ(sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(sha1(QByteArray(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, TakesPiecesAndCanBeginAnew) {
    Sha1 sum;
    sum.addData("ab", 2);
    sum.addData(nullptr, 0);
    sum.addData("c", 1);
    QByteArray const abc = sum.result().toByteArray();
    EXPECT_EQ(abc.toHex(), "a9993e364706816aba3e25717850c26c9cd0d89d");
    sum.addData("d", 1);
    EXPECT_EQ(sum.result().toByteArray(), abc);
    EXPECT_EQ(sum.result().size, Sha1::digestSize);
    sum.reset();
    EXPECT_EQ(sum.result().toByteArray().toHex(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(DataSize, NormaliseKeepsTheNumberAtOrAboveOne) {
    struct Case {
        std::uint64_t bytes;
        char const* plain;
        char const* normal;
    };
    for (Case const& c : std::vector<Case>{
             {0, "0 bytes", "0 bytes"},
             {1, "1 byte", "1 byte"},
             {1023, "1023 bytes", "1023 bytes"},
             {1024, "1024 bytes", "1 KiB"},
             {1536, "1536 bytes", "1.5 KiB"},
             {1024 * 1024 - 1, "1048575 bytes", "1023.9 KiB"},
             {1024 * 1024, "1048576 bytes", "1 MiB"},
             {std::uint64_t{5} << 40, "5497558138880 bytes", "5 TiB"},
             {~std::uint64_t{0}, "18446744073709551615 bytes", "15.9 EiB"},
         }) {
        ConvertableDataSize size(c.bytes);
        EXPECT_EQ(size.toString(), QLatin1String(c.plain));
        size.normalise();
        EXPECT_EQ(size.toString(), QLatin1String(c.normal));
        size.normalise();
        EXPECT_EQ(size.toString(), QLatin1String(c.normal));
    }
}

// Computed apart from this code, from the definition; the values stand in files.
TEST(StringHash, StoredValuesNeverChange) {
    EXPECT_EQ(stringHash(QString()), 0U);
    EXPECT_EQ(stringHash(u"a"), 0x61U);
    EXPECT_EQ(stringHash(u"abcdefg"), 0x0789AB07U);
    EXPECT_EQ(stringHash(QStringLiteral("Documents and Settings")), 0x00E70FE3U);
    char16_t const wide[] = {0x20AC, 0xFFFF, 0xDC80, 0xFEFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 1};
    EXPECT_EQ(stringHash(QStringView(wide, 9)), 0x009DDC11U);

    std::uint8_t bytes[20];
    for (int i = 0; i < 20; ++i)
        bytes[i] = static_cast<std::uint8_t>(236 + i);
    EXPECT_EQ(byteHash(bytes, sizeof bytes), 0x0D1CB93FU);
    EXPECT_EQ(byteHash(reinterpret_cast<std::uint8_t const*>("abcdefg"), 7), 0x0789AB07U);

    EXPECT_EQ(idHash(0), 0U);
    EXPECT_EQ(idHash(5), 5U);
    EXPECT_EQ(idHash(0x8000000000000001U), 1U);
    EXPECT_EQ(idHash(0x0000000380000000U), 0x80000007U);
}
