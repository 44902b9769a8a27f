#include "base/values/Printable.h"

#include <algorithm>

namespace Morva {

namespace {

bool isUndecodedByte(char16_t c) {
    return c >= 0xDC80 && c <= 0xDCFF;
}

/// Of a unit that isn't part of a surrogate pair.
bool isUnprintable(char16_t c) {
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F))
        return true;
    if (c < 0x061C)
        return c == 0xAD; // soft hyphen
    return c == 0x061C || (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF || (c >= 0xD800 && c <= 0xDFFF);
}

bool isPair(QStringView text, qsizetype at) {
    return text[at].isHighSurrogate() && at + 1 < text.size() && text[at + 1].isLowSurrogate();
}

/// The number of units at `at` that can be shown as they are.
qsizetype shownUnits(QStringView text, qsizetype at, bool lines) {
    if (isPair(text, at)) {
        // The tags of U+E0000 to U+E007F are invisible.
        auto const code = QChar::surrogateToUcs4(text[at], text[at + 1]);
        return code >= 0xE0000 && code <= 0xE007F ? 0 : 2;
    }
    auto const c = text[at].unicode();
    return !isUnprintable(c) || (lines && c == u'\n') ? 1 : 0;
}

QString escaped(QStringView text, bool lines) {
    QString result;
    result.reserve(text.size());
    for (qsizetype at = 0; at < text.size();) {
        if (auto const shown = shownUnits(text, at, lines)) {
            result += text.mid(at, shown);
            at += shown;
            continue;
        }
        auto const c = text[at++].unicode();
        if (isUndecodedByte(c) || c < 0x100)
            result += QStringLiteral("\\x%1").arg(c & 0xFF, 2, 16, QLatin1Char('0'));
        else
            result += QStringLiteral("\\u%1").arg(c, 4, 16, QLatin1Char('0'));
    }
    return result;
}

/// Nearly all names need nothing, and most of those are ASCII.
bool isPlain(QStringView text) {
    return std::all_of(text.begin(), text.end(),
                       [](QChar c) { return c.unicode() >= 0x20 && c.unicode() < 0x7F; });
}

} // namespace

QString printable(QStringView text) {
    return isPlain(text) ? text.toString() : escaped(text, false);
}

QString printableLines(QStringView text) {
    return isPlain(text) ? text.toString() : escaped(text, true);
}

} // namespace Morva
