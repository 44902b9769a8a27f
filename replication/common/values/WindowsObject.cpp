#include "replication/common/values/WindowsObject.h"

#include "base/values/LittleEndian.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace Replication {

using Morva::Extent;
using Morva::loadLittle;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t listAlignment = 4;

constexpr std::size_t aligned(std::size_t size) {
    return (size + listAlignment - 1) & ~std::size_t{listAlignment - 1};
}

void appendWord(QByteArray& bytes, std::uint32_t value) {
    char word[sizeof value];
    storeLittle(word, value);
    bytes.append(word, sizeof word);
}

} // namespace

// --- extended attributes

void WindowsAttributes::set(Entry const& entry) {
    auto const known = std::find_if(entries_.begin(), entries_.end(), [&](Entry const& each) {
        return each.name.compare(entry.name, Qt::CaseInsensitive) == 0;
    });
    if (known == entries_.end()) {
        if (!entry.value.isEmpty())
            entries_.push_back(entry);
    } else if (entry.value.isEmpty()) {
        entries_.erase(known);
    } else {
        *known = entry;
    }
}

void WindowsAttributes::merge(WindowsAttributes const& other) {
    for (auto const& entry : other.entries_)
        set(entry);
}

QByteArray WindowsAttributes::encode() const {
    QByteArray result;
    for (auto const& entry : entries_) {
        result.resize(static_cast<qsizetype>(aligned(static_cast<std::size_t>(result.size()))),
                      '\0');
        appendWord(result, static_cast<std::uint32_t>(entry.name.size()));
        appendWord(result, static_cast<std::uint32_t>(entry.value.size()));
        appendWord(result, entry.flags);
        result += entry.name;
        result += entry.value;
    }
    return result;
}

std::optional<WindowsAttributes> WindowsAttributes::decode(Extent const& record,
                                                           std::uint32_t& left) {
    WindowsAttributes result;
    std::size_t at = 0;
    auto const* const bytes = record.bytes();
    left = record.size;
    if (record.size > maximumList)
        return std::nullopt;
    for (; left != 0; left = record.size - static_cast<std::uint32_t>(at)) {
        auto const head = aligned(at);
        // What a sender aligned behind the last entry holds nothing more.
        if (head >= record.size)
            break;
        if (record.size - head < headSize)
            return std::nullopt;
        auto const nameLength = loadLittle<std::uint32_t>(bytes + head);
        auto const valueLength = loadLittle<std::uint32_t>(bytes + head + 4);
        auto const content = record.size - head - headSize;
        if (nameLength == 0 || nameLength > maximumName || valueLength > maximumValue ||
            nameLength + valueLength > content)
            return std::nullopt;
        auto const* const text = reinterpret_cast<char const*>(bytes + head + headSize);
        result.entries_.push_back({QByteArray(text, nameLength),
                                   QByteArray(text + nameLength, valueLength),
                                   loadLittle<std::uint32_t>(bytes + head + 8)});
        at = head + headSize + nameLength + valueLength;
    }
    left = 0;
    return result;
}

// --- security

namespace {

using Bytes = std::span<std::uint8_t const>;

constexpr std::size_t headSize = 20;
constexpr std::size_t controlAt = 2;
constexpr std::size_t ownerAt = 4;
constexpr std::size_t groupAt = 8;
constexpr std::size_t saclAt = 12;
constexpr std::size_t daclAt = 16;
constexpr std::size_t sidHeadSize = 8;
constexpr std::size_t maximumSubAuthorities = 15;
constexpr std::size_t aclHeadSize = 8;
constexpr std::size_t aceHeadSize = 4;

constexpr std::uint16_t selfRelative = 0x8000;
/// The bits of the control word that belong to each part, beside the part itself.
constexpr std::uint16_t ownerControl = 0x0001;
constexpr std::uint16_t groupControl = 0x0002;
constexpr std::uint16_t daclControl = 0x0004 | 0x0008 | 0x0100 | 0x0400 | 0x1000;
constexpr std::uint16_t saclControl = 0x0010 | 0x0020 | 0x0200 | 0x0800 | 0x2000;
constexpr std::uint16_t daclPresent = 0x0004;
constexpr std::uint16_t saclPresent = 0x0010;

struct PartLayout {
    std::uint32_t info;
    std::size_t offsetAt;
    std::uint16_t control;
    std::uint16_t present; ///< 0: its offset alone tells
    bool isAcl;
};
constexpr PartLayout parts[] = {
    {WindowsSecurity::ownerPart, ownerAt, ownerControl, 0, false},
    {WindowsSecurity::groupPart, groupAt, groupControl, 0, false},
    {WindowsSecurity::saclParts, saclAt, saclControl, saclPresent, true},
    {WindowsSecurity::daclPart, daclAt, daclControl, daclPresent, true},
};

/// Bytes of the SID at the start of a range; 0 when there is none.
std::size_t sidSize(Bytes bytes) {
    if (bytes.size() < sidHeadSize || bytes[0] != 1 || bytes[1] > maximumSubAuthorities)
        return 0;
    auto const size = sidHeadSize + std::size_t{bytes[1]} * sizeof(std::uint32_t);
    return size <= bytes.size() ? size : 0;
}

std::size_t aclSize(Bytes bytes) {
    if (bytes.size() < aclHeadSize)
        return 0;
    std::size_t const size = loadLittle<std::uint16_t>(bytes.data() + 2);
    if (size < aclHeadSize || size > bytes.size())
        return 0;
    auto rest = bytes.subspan(aclHeadSize, size - aclHeadSize);
    for (auto left = loadLittle<std::uint16_t>(bytes.data() + 4); left > 0; --left) {
        if (rest.size() < aceHeadSize)
            return 0;
        std::size_t const entry = loadLittle<std::uint16_t>(rest.data() + 2);
        if (entry < aceHeadSize || entry > rest.size())
            return 0;
        rest = rest.subspan(entry);
    }
    return size;
}

/// The bytes of a part, empty when there is none. False when it is damaged.
bool partOf(Bytes descriptor, PartLayout const& part, Bytes& result) {
    result = {};
    auto const control = loadLittle<std::uint16_t>(descriptor.data() + controlAt);
    std::size_t const offset = loadLittle<std::uint32_t>(descriptor.data() + part.offsetAt);
    if (offset == 0 || (part.present != 0 && (control & part.present) == 0))
        return true;
    if (offset < headSize || offset > descriptor.size())
        return false;
    auto const from = descriptor.subspan(offset);
    auto const size = part.isAcl ? aclSize(from) : sidSize(from);
    result = from.first(size);
    return size != 0;
}

} // namespace

bool WindowsSecurity::valid(Extent const& descriptor) {
    Bytes const bytes(descriptor.bytes(), descriptor.size);
    if (bytes.size() < headSize || bytes[0] != 1 ||
        (loadLittle<std::uint16_t>(bytes.data() + controlAt) & selfRelative) == 0)
        return false;
    return std::all_of(std::begin(parts), std::end(parts), [&](PartLayout const& part) {
        Bytes found;
        return partOf(bytes, part, found);
    });
}

QByteArray WindowsSecurity::merged(Extent const& present, Extent const& given, std::uint32_t info) {
    QByteArray result(headSize, '\0');
    result[0] = 1;
    std::uint16_t control = selfRelative;
    for (auto const& part : parts) {
        auto const& from = (info & part.info) != 0 ? given : present;
        if (from.size < headSize)
            continue;
        Bytes const bytes(from.bytes(), from.size);
        Bytes found;
        if (!partOf(bytes, part, found))
            continue;
        control |= static_cast<std::uint16_t>(loadLittle<std::uint16_t>(bytes.data() + controlAt) &
                                              part.control);
        if (found.empty())
            continue;
        auto const offset = aligned(static_cast<std::size_t>(result.size()));
        result.resize(static_cast<qsizetype>(offset), '\0');
        result.append(reinterpret_cast<char const*>(found.data()),
                      static_cast<qsizetype>(found.size()));
        storeLittle(result.data() + part.offsetAt, static_cast<std::uint32_t>(offset));
    }
    storeLittle(result.data() + controlAt, control);
    return result;
}

bool WindowsSecurity::validSid(Extent const& sid) {
    return sid.size != 0 && sidSize({sid.bytes(), sid.size}) == sid.size;
}

} // namespace Replication
