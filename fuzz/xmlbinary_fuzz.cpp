// The binary form of a list, from damaged bytes and from those with a good check word.

#include "base/messages/XmlList.h"
#include "base/values/LittleEndian.h"
#include "fuzz/Input.h"

#include <boost/crc.hpp>

#include <vector>

using Morva::Extent;
using Morva::XmlList;
using Morva::XmlListIterator;
using Morva::Fuzzing::require;

namespace {

std::size_t readAll(XmlList const& list) {
    std::size_t sum = 0;
    for (XmlListIterator value(list); value; ++value) {
        sum += static_cast<std::size_t>(value.name().size()) + value.getBool() + value.getUint32() +
               value.getUint64() + static_cast<std::size_t>(value.getString().size()) +
               static_cast<std::size_t>(value.getBuffer().size());
        (void)value.getMachine();
        (void)value.getInt32();
        sum += readAll(value.getXmlList());
    }
    return sum;
}

/// The bytes with the size and the check word that they should have, or no mutation would get far.
std::vector<std::uint8_t> mended(std::uint8_t const* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    if (size < 12)
        return bytes;
    boost::crc_32_type check;
    check.process_bytes(bytes.data() + 12, size - 12);
    Morva::storeLittle(bytes.data() + 4, static_cast<std::uint32_t>(size - 12));
    Morva::storeLittle(bytes.data() + 8, static_cast<std::uint32_t>(check.checksum()));
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const bytes = mended(data, size);
    auto const whole = Extent(bytes.data(), static_cast<std::uint32_t>(size));
    auto const asGiven = XmlList::fromBinary(Extent(data, static_cast<std::uint32_t>(size)));
    auto const list = XmlList::fromBinary(whole);
    require(list || !asGiven, "a good check word harms nothing");
    if (!list)
        return 0;
    auto const sum = readAll(*list);
    auto const again = XmlList::fromBinary(list->toBinary());
    require(again && *again == *list, "what was read comes back");
    return static_cast<int>(sum & 0);
}
