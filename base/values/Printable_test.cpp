#include "base/values/PosixText.h"
#include "base/values/Printable.h"

#include <gtest/gtest.h>

namespace {

using Morva::decodePosixText;
using Morva::printable;
using Morva::printableLines;

TEST(Printable, EscapesWhatRulesATerminalAndLeavesTheRest) {
    struct Case {
        char const* bytes;
        char const* shown;
    };
    for (auto const& [bytes, shown] : {
             Case{"plain name.txt", "plain name.txt"},
             Case{"gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2 \xf0\x9f\x98\x80",
                  "gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2 \xf0\x9f\x98\x80"},
             Case{"a\nb\tc\x1b[31m\x7f", "a\\x0ab\\x09c\\x1b[31m\\x7f"},
             Case{"\xc2\x9b"
                  "2J",
                  "\\x9b2J"},                // a C1 control as UTF-8
             Case{"\x9b\xff", "\\x9b\\xff"}, // and as a byte of its own
             Case{"exe.\xe2\x80\xaegpj", "exe.\\u202egpj"},
             Case{"\xe2\x81\xa6x\xe2\x81\xa9\xe2\x80\x8f\xd8\x9c", "\\u2066x\\u2069\\u200f\\u061c"},
             Case{"\xe2\x80\xa8\xef\xbb\xbf", "\\u2028\\ufeff"},
             Case{"\xf3\xa0\x81\x81", "\\udb40\\udc41"},
             Case{"back\\slash", "back\\slash"},
         }) {
        auto const once = printable(decodePosixText(bytes));
        EXPECT_EQ(once.toStdString(), shown);
        EXPECT_EQ(printable(once), once);
    }
}

TEST(Printable, LinesKeepTheirEndsAlone) {
    EXPECT_EQ(printableLines(u"a\nb\r\x1b").toStdString(), "a\nb\\x0d\\x1b");
}

} // namespace
