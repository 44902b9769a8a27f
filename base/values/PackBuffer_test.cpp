#include "base/values/Buffer.h"
#include "base/values/PackBuffer.h"

using namespace Morva;

namespace {

QByteArray packedSample() {
    PackBuffer pack(4);
    pack.append(true);
    pack.append(std::int32_t{-2});
    pack.append(QString(QStringLiteral("aé")));
    pack.append(std::uint64_t{0x0102030405060708});
    pack.append("xyz", std::uint32_t{3});
    pack.append(std::uint32_t{7});
    return pack.extent().toByteArray();
}

} // namespace

TEST(PackBuffer, LaysValuesOutByTheirOwnSize) {
    EXPECT_EQ(packedSample().toHex(' '), "20 00 00 00 "
                                         "01 00 00 00 fe ff ff ff "
                                         "04 00 00 00 61 00 e9 00 "
                                         "08 07 06 05 04 03 02 01 "
                                         "78 79 7a 00 07 00 00 00");
}

TEST(PackBuffer, AlignsFromTheRecordAndNotFromTheCountWord) {
    PackBuffer pack;
    pack.append(std::uint64_t{1});
    EXPECT_EQ(pack.size(), 8U);
    EXPECT_EQ(pack.extent().size, 12U);
    EXPECT_EQ(pack.extentWithoutSize().size, 8U);
    std::uint32_t const two = 2;
    pack.patch(4, &two, sizeof two);
    EXPECT_EQ(pack.extentWithoutSize().toByteArray().toHex(), "0100000002000000");
    pack.patch(5, &two, sizeof two);
    EXPECT_EQ(pack.extentWithoutSize().toByteArray().toHex(), "0100000002000000");
    pack.reset();
    pack.append(false);
    EXPECT_EQ(pack.extent().toByteArray().toHex(), "0100000000");
}

TEST(UnpackBuffer, EveryTruncationStopsAtTheCutAndTakesNothing) {
    QByteArray const whole = packedSample().mid(4);
    for (int length = 0; length <= whole.size(); ++length) {
        QByteArray const cut = whole.left(length);
        UnpackBuffer unpack;
        if (length % 2)
            unpack.reset(Extent(cut));
        else
            unpack.fromRawData(Extent(cut));
        bool flag = false;
        std::int32_t number = 0;
        QString text;
        std::uint64_t wide = 0;
        char raw[3] = {};
        std::uint32_t last = 0;
        int taken = 0;
        std::uint32_t left = unpack.extent().size;
        auto step = [&](bool took) {
            if (took)
                ++taken;
            else
                EXPECT_EQ(unpack.extent().size, left) << length;
            left = unpack.extent().size;
            return took;
        };
        bool const all = step(unpack.take(flag)) && step(unpack.take(number)) &&
                         step(unpack.take(text)) && step(unpack.take(wide)) &&
                         step(unpack.take(raw, 3)) && step(unpack.take(last));
        int const expected = (length >= 1) + (length >= 8) + (length >= 16) + (length >= 24) +
                             (length >= 27) + (length >= 32);
        EXPECT_EQ(taken, expected) << length;
        if (all) {
            EXPECT_TRUE(flag);
            EXPECT_EQ(number, -2);
            EXPECT_EQ(text, QStringLiteral("aé"));
            EXPECT_EQ(wide, 0x0102030405060708U);
            EXPECT_EQ(QByteArray(raw, 3), "xyz");
            EXPECT_EQ(last, 7U);
        }
    }
}

TEST(UnpackBuffer, RefusesStringLengthsThatLie) {
    for (std::uint32_t length : {3U, 6U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        PackBuffer pack;
        pack.append(length);
        pack.append(std::uint32_t{0x00610061});
        UnpackBuffer unpack;
        unpack.fromRawData(pack.extentWithoutSize());
        QString text = QStringLiteral("before");
        EXPECT_FALSE(unpack.take(text)) << length;
        EXPECT_EQ(text, QStringLiteral("before"));
        std::uint32_t again = 0;
        EXPECT_TRUE(unpack.take(again));
        EXPECT_EQ(again, length);
        char raw[8];
        EXPECT_FALSE(unpack.take(raw, 0xFFFFFFFFU));
    }
}

TEST(UnpackBuffer, SizeCutsTheRecord) {
    QByteArray const bytes("abcdef");
    UnpackBuffer unpack;
    unpack.reset(Extent(bytes));
    unpack.size(100);
    char raw[4];
    EXPECT_TRUE(unpack.take(raw, 4));
    unpack.size(5);
    EXPECT_EQ(unpack.extent().toByteArray(), "e");
    unpack.size(2);
    EXPECT_EQ(unpack.extent().size, 0U);
    UnpackBuffer empty;
    EXPECT_EQ(empty.extent().size, 0U);
    EXPECT_FALSE(empty.take(raw, 1));
}

TEST(Buffer, GrowsByAppendsAndKeepsAZeroBehindItsEnd) {
    Buffer buffer;
    QByteArray model;
    for (int i = 0; i < 2000; ++i) {
        QByteArray const piece(i % 7, static_cast<char>('a' + i % 26));
        ASSERT_TRUE(buffer.append(piece.constData(), static_cast<std::uint32_t>(piece.size())));
        model += piece;
        ASSERT_EQ(buffer.data()[buffer.size()], 0);
    }
    EXPECT_EQ(buffer.writtenExtent().toByteArray(), model);
    EXPECT_EQ(buffer.extent().size - buffer.extent().available, model.size());
    EXPECT_LE(buffer.size(), 2 * model.size());

    // From itself, over a growth.
    std::uint32_t const before = buffer.written();
    ASSERT_TRUE(buffer.append(buffer.data(), before));
    EXPECT_EQ(buffer.writtenExtent().toByteArray(), model + model);
    EXPECT_FALSE(buffer.append(buffer.data(), 0xFFFFFFFFU - before));
    EXPECT_EQ(buffer.writtenExtent().toByteArray(), model + model);
}

TEST(Buffer, ResizeCutsTheWrittenPartOrAddsAvailableBytes) {
    Buffer buffer("hello", 5);
    EXPECT_EQ(buffer.available(), 0U);
    buffer.resize(8);
    EXPECT_EQ(buffer.available(), 3U);
    EXPECT_EQ(buffer.data()[8], 0);
    buffer.data()[5] = '!';
    buffer.available(2);
    Buffer copy(buffer);
    Buffer moved(std::move(buffer));
    EXPECT_EQ(buffer.size(), 0U); // NOLINT: a moved-from buffer is empty and whole
    EXPECT_EQ(buffer.data()[0], 0);
    moved.resize(2);
    EXPECT_EQ(moved.writtenExtent().toByteArray(), "he");
    EXPECT_EQ(moved.available(), 0U);
    EXPECT_EQ(copy.writtenExtent().toByteArray(), "hello!");
    EXPECT_EQ(copy.available(), 2U);
}
