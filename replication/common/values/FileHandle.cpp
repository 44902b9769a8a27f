#include "replication/common/values/FileHandle.h"

#include "base/values/LittleEndian.h"

namespace Replication {

using Morva::loadLittle;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t idAt = 0;
constexpr std::uint32_t storeAt = 8;
constexpr std::uint32_t kindAt = 16;
constexpr std::uint32_t instanceAt = 20;
constexpr std::uint32_t linkAt = 24;
constexpr std::uint32_t reservedAt = 28;

} // namespace

std::array<std::uint8_t, FileHandle::packedSize> FileHandle::encode() const {
    std::array<std::uint8_t, packedSize> bytes{};
    storeLittle(&bytes[idAt], id);
    storeLittle(&bytes[storeAt], store.value);
    storeLittle(&bytes[kindAt], kind);
    storeLittle(&bytes[instanceAt], instance.value);
    storeLittle(&bytes[linkAt], link.value);
    storeLittle(&bytes[reservedAt], reserved);
    return bytes;
}

bool FileHandle::decode(Morva::Extent const& bytes) {
    if (bytes.size < packedSize)
        return false;
    std::uint8_t const* from = bytes.bytes();
    id = loadLittle<std::uint64_t>(from + idAt);
    store.value = loadLittle<std::uint64_t>(from + storeAt);
    kind = loadLittle<std::uint32_t>(from + kindAt);
    instance.value = loadLittle<std::uint32_t>(from + instanceAt);
    link.value = loadLittle<std::uint32_t>(from + linkAt);
    reserved = loadLittle<std::uint32_t>(from + reservedAt);
    return true;
}

} // namespace Replication
