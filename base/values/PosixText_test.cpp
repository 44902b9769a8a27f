#include "base/values/PosixText.h"

#include <set>

using namespace Morva;

namespace {

QString text(std::vector<char16_t> const& units) {
    return QString(reinterpret_cast<QChar const*>(units.data()),
                   static_cast<qsizetype>(units.size()));
}

} // namespace

TEST(PosixText, DecodesGoodAndBadSequences) {
    struct Case {
        QByteArray bytes;
        std::vector<char16_t> units;
    };
    for (Case const& c : std::vector<Case>{
             {"plain ascii name",
              {'p', 'l', 'a', 'i', 'n', ' ', 'a', 's', 'c', 'i', 'i', ' ', 'n', 'a', 'm', 'e'}},
             {"", {}},
             {"\xC3\xA9", {0xE9}},
             {"abcdefgh\xE2\x82\xAC", {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0x20AC}},
             {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
             {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
             {"\xEF\xBB\xBFx", {0xFEFF, 'x'}},
             {"\x80", {0xDC80}},
             {"a\xFFz", {'a', 0xDCFF, 'z'}},
             // overlong forms
             {"\xC0\xAF", {0xDCC0, 0xDCAF}},
             {"\xC1\xBF", {0xDCC1, 0xDCBF}},
             {"\xE0\x9F\xBF", {0xDCE0, 0xDC9F, 0xDCBF}},
             {"\xF0\x8F\xBF\xBF", {0xDCF0, 0xDC8F, 0xDCBF, 0xDCBF}},
             // encoded surrogates, among them the escape itself
             {"\xED\xA0\x80", {0xDCED, 0xDCA0, 0xDC80}},
             {"\xED\xB2\x80", {0xDCED, 0xDCB2, 0xDC80}},
             {"\xED\x9F\xBF\xEE\x80\x80", {0xD7FF, 0xE000}},
             // above the largest number
             {"\xF4\x90\x80\x80", {0xDCF4, 0xDC90, 0xDC80, 0xDC80}},
             {"\xF5\x80", {0xDCF5, 0xDC80}},
             // cut sequences, and one that begins inside another
             {"\xC3", {0xDCC3}},
             {"\xE2\x82", {0xDCE2, 0xDC82}},
             {"\xF0\x9F\x98", {0xDCF0, 0xDC9F, 0xDC98}},
             {"\xE2\xC3\xA9", {0xDCE2, 0xE9}},
             {"\xF0\x9F\x41", {0xDCF0, 0xDC9F, 'A'}},
         }) {
        EXPECT_EQ(decodePosixText(c.bytes), text(c.units)) << c.bytes.toHex().toStdString();
        EXPECT_EQ(encodePosixText(text(c.units)), c.bytes) << c.bytes.toHex().toStdString();
    }
}

TEST(PosixText, EveryByteStringComesBackAndNoTwoAreAlike) {
    std::set<QString> seen;
    for (int a = 0; a < 256; ++a)
        for (int b = 0; b < 256; ++b) {
            char const pair[] = {static_cast<char>(a), static_cast<char>(b)};
            QByteArray const bytes(pair, 2);
            QString const decoded = decodePosixText(bytes);
            ASSERT_EQ(encodePosixText(decoded), bytes) << bytes.toHex().toStdString();
            ASSERT_TRUE(seen.insert(decoded).second) << bytes.toHex().toStdString();
        }

    unsigned const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    // Mostly bytes at which the rules turn.
    static constexpr unsigned char turning[] = {0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF,
                                                0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xED, 0xEF,
                                                0xF0, 0xF4, 0xF5, 0xFF, 'a',  0x00};
    for (int round = 0; round < 200000; ++round) {
        QByteArray bytes(static_cast<qsizetype>(random() % 20), Qt::Uninitialized);
        for (char& byte : bytes)
            byte = static_cast<char>(random() % 8 ? turning[random() % sizeof turning] : random());
        QString const decoded = decodePosixText(bytes);
        ASSERT_EQ(encodePosixText(decoded), bytes) << bytes.toHex().toStdString();
        if (QByteArrayView(bytes).isValidUtf8()) {
            ASSERT_EQ(decoded.toUtf8(), bytes) << bytes.toHex().toStdString();
        }
    }
}

TEST(PosixText, SurrogatesThatDecodingNeverMakesStillHaveBytes) {
    EXPECT_EQ(encodePosixText(text({'a', 0xD800, 'b'})), "a\xED\xA0\x80"
                                                         "b");
    EXPECT_EQ(encodePosixText(text({0xDC7F})), "\xED\xB1\xBF");
    EXPECT_EQ(encodePosixText(text({0xD83D, 0xDE00, 0xDC80})), "\xF0\x9F\x98\x80\x80");
}
