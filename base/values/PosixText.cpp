#include "base/values/PosixText.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Morva {

namespace {

constexpr char16_t escapeBase = 0xDC00;

qsizetype asciiPrefix(std::uint8_t const* bytes, qsizetype size) {
    qsizetype i = 0;
    for (std::uint64_t word = 0; i + 8 <= size; i += 8) {
        std::memcpy(&word, bytes + i, sizeof word);
        if (word & 0x8080808080808080U)
            break;
    }
    while (i < size && bytes[i] < 0x80)
        ++i;
    return i;
}

bool isTail(std::uint8_t byte) {
    return (byte & 0xC0) == 0x80;
}

/// Length of the well-formed sequence of two to four bytes at `at`, and its number; 0 if there is
/// none. The bounds of the second byte are those of RFC 3629, section 4.
unsigned sequence(std::uint8_t const* at, std::uint8_t const* end, char32_t& number) {
    std::uint8_t const lead = *at;
    auto const left = end - at;
    if (lead < 0xC2 || lead > 0xF4 || left < 2)
        return 0;
    if (lead < 0xE0) {
        number = (lead & 0x1FU) << 6 | (at[1] & 0x3FU);
        return isTail(at[1]) ? 2 : 0;
    }
    std::uint8_t const low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    std::uint8_t const high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (at[1] < low || at[1] > high || left < 3 || !isTail(at[2]))
        return 0;
    if (lead < 0xF0) {
        number = (lead & 0x0FU) << 12 | (at[1] & 0x3FU) << 6 | (at[2] & 0x3FU);
        return 3;
    }
    if (left < 4 || !isTail(at[3]))
        return 0;
    number = (lead & 0x07U) << 18 | (at[1] & 0x3FU) << 12 | (at[2] & 0x3FU) << 6 | (at[3] & 0x3FU);
    return 4;
}

char* encodeNumber(char* to, char32_t number) {
    auto tail = [](char32_t bits) { return static_cast<char>(0x80 | (bits & 0x3F)); };
    if (number < 0x80) {
        *to++ = static_cast<char>(number);
    } else if (number < 0x800) {
        *to++ = static_cast<char>(0xC0 | number >> 6);
        *to++ = tail(number);
    } else if (number < 0x10000) {
        *to++ = static_cast<char>(0xE0 | number >> 12);
        *to++ = tail(number >> 6);
        *to++ = tail(number);
    } else {
        *to++ = static_cast<char>(0xF0 | number >> 18);
        *to++ = tail(number >> 12);
        *to++ = tail(number >> 6);
        *to++ = tail(number);
    }
    return to;
}

} // namespace

QString decodePosixText(QByteArrayView bytes) {
    auto const* at = reinterpret_cast<std::uint8_t const*>(bytes.data());
    auto const* const end = at + bytes.size();
    qsizetype const plain = asciiPrefix(at, bytes.size());
    if (plain == bytes.size())
        return QString::fromLatin1(bytes);

    // No sequence gives more units than it has bytes.
    QString text(bytes.size(), Qt::Uninitialized);
    auto* to = reinterpret_cast<char16_t*>(text.data());
    auto* const start = to;
    to = std::copy(at, at + plain, to);
    at += plain;
    while (at < end) {
        char32_t number = *at;
        if (number < 0x80) {
            *to++ = static_cast<char16_t>(number);
            ++at;
        } else if (unsigned const length = sequence(at, end, number)) {
            if (number >= 0x10000) {
                *to++ = QChar::highSurrogate(number);
                *to++ = QChar::lowSurrogate(number);
            } else {
                *to++ = static_cast<char16_t>(number);
            }
            at += length;
        } else {
            *to++ = static_cast<char16_t>(escapeBase + *at++);
        }
    }
    text.resize(to - start);
    return text;
}

QByteArray encodePosixText(QStringView text) {
    auto const* at = text.utf16();
    auto const* const end = at + text.size();
    if (std::all_of(at, end, [](char16_t unit) { return unit < 0x80; }))
        return text.toLatin1();

    // A unit gives three bytes at most: a pair of them gives four.
    QByteArray bytes(text.size() * 3, Qt::Uninitialized);
    char* const start = bytes.data();
    char* to = start;
    while (at < end) {
        char16_t const unit = *at++;
        if (QChar::isHighSurrogate(unit) && at < end && QChar::isLowSurrogate(*at))
            to = encodeNumber(to, QChar::surrogateToUcs4(unit, *at++));
        else if (unit >= escapeBase + 0x80 && unit <= escapeBase + 0xFF)
            *to++ = static_cast<char>(unit - escapeBase);
        else
            to = encodeNumber(to, unit);
    }
    bytes.resize(to - start);
    return bytes;
}

} // namespace Morva
