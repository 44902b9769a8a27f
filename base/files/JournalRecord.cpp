#include "base/files/JournalRecord.h"

#include "base/values/LittleEndian.h"

#include <boost/crc.hpp>

#include <array>

namespace Morva {

namespace {

std::uint32_t checksum(char const* bytes, std::size_t count) {
    boost::crc_32_type sum;
    sum.process_bytes(bytes, count);
    return sum.checksum();
}

} // namespace

void JournalRecord::appendTo(QByteArray& bytes) const {
    std::array<char, fixedSize> fixed{};
    auto const names = static_cast<std::uint32_t>(name.size() + second.size());
    storeLittle<std::uint32_t>(fixed.data(), fixedSize - frameSize + names);
    storeLittle<std::uint32_t>(fixed.data() + 8, static_cast<std::uint32_t>(type));
    storeLittle<std::uint16_t>(fixed.data() + 12, static_cast<std::uint16_t>(name.size()));
    storeLittle<std::uint16_t>(fixed.data() + 14, static_cast<std::uint16_t>(second.size()));
    for (std::size_t i = 0; i < std::size(numbers); ++i)
        storeLittle<std::uint64_t>(fixed.data() + 16 + 8 * i, numbers[i]);
    qsizetype const start = bytes.size();
    bytes.append(fixed.data(), fixedSize);
    bytes += name;
    bytes += second;
    char* const record = bytes.data() + start;
    storeLittle<std::uint32_t>(
        record + 4, checksum(record + frameSize, fixedSize - frameSize + std::size_t{names}));
}

std::optional<JournalRecord> JournalRecord::take(QByteArray const& bytes, qsizetype& position) {
    qsizetype const left = bytes.size() - position;
    if (left < static_cast<qsizetype>(fixedSize))
        return std::nullopt;
    char const* const record = bytes.constData() + position;
    auto const size = loadLittle<std::uint32_t>(record);
    if (size < fixedSize - frameSize || size > left - frameSize ||
        loadLittle<std::uint32_t>(record + 4) != checksum(record + frameSize, size))
        return std::nullopt;
    auto const nameSize = loadLittle<std::uint16_t>(record + 12);
    auto const secondSize = loadLittle<std::uint16_t>(record + 14);
    if (size != fixedSize - frameSize + nameSize + secondSize)
        return std::nullopt;
    JournalRecord result;
    result.type = static_cast<Type>(loadLittle<std::uint32_t>(record + 8));
    for (std::size_t i = 0; i < std::size(result.numbers); ++i)
        result.numbers[i] = loadLittle<std::uint64_t>(record + 16 + 8 * i);
    result.name = QByteArray(record + fixedSize, nameSize);
    result.second = QByteArray(record + fixedSize + nameSize, secondSize);
    position += frameSize + size;
    return result;
}

} // namespace Morva
