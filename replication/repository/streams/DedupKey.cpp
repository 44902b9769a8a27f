#include "replication/repository/streams/DedupKey.h"

#include "base/values/LittleEndian.h"

#include <cstring>

namespace Replication {

using Morva::BPlusTree;
using Morva::Extent;
using Morva::loadLittle;
using Morva::storeLittle;

DedupKey::DedupKey() {
    hash({});
}

DedupKey::DedupKey(std::uint64_t length, Digest const& digest) {
    storeLittle(&bytes_[lengthAt], length);
    storeLittle(&bytes_[digestTypeAt], digest.type);
    if (digest.type == Digest::eRepDigestSha1)
        std::memcpy(&bytes_[digestAt], digest.value.data(), Digest::sha1Size);
    hash({hashOf(length, digest), 0});
}

std::uint32_t DedupKey::hashOf(std::uint64_t length, Digest const& digest) {
    std::array<std::uint8_t, 32> value{};
    if (digest.type == Digest::eRepDigestSha1)
        std::memcpy(value.data(), digest.value.data(), Digest::sha1Size);
    std::uint32_t h = 0;
    for (std::uint8_t const byte : value) {
        std::uint32_t t = h * 16 + byte;
        std::uint32_t const g = t & 0xF0000000;
        if (g != 0)
            t ^= g >> 23;
        h = t & ~g;
    }
    return static_cast<std::uint32_t>((length >> 31) ^ length) ^ h;
}

std::uint64_t DedupKey::length() const {
    return loadLittle<std::uint64_t>(&bytes_[lengthAt]);
}

Digest DedupKey::digest() const {
    Digest result;
    result.type = loadLittle<std::uint32_t>(&bytes_[digestTypeAt]);
    std::memcpy(result.value.data(), &bytes_[digestAt], result.value.size());
    return result;
}

std::uint32_t DedupKey::referenceCount() const {
    return loadLittle<std::uint32_t>(&bytes_[referenceCountAt]);
}

void DedupKey::referenceCount(std::uint32_t value) {
    storeLittle(&bytes_[referenceCountAt], value);
}

TreeRecord DedupKey::record() {
    return TreeRecord(&bytes_[recordAt]);
}

void DedupKey::hash(BPlusTree::KeyHash const& value) {
    keyHash_ = value;
    storeLittle(&bytes_[keyHashAt], value.first);
    storeLittle(&bytes_[keyHashAt + 4], value.second);
}

BPlusTree::KeyHash const& DedupKey::hash() const {
    return keyHash_;
}

bool DedupKey::save(Extent& out) const {
    if (out.size < storedSize)
        return false;
    std::memcpy(out.data, bytes_.data(), storedSize);
    return true;
}

bool DedupKey::restore(Extent const& stored) {
    bool const fits = stored.size == storedSize;
    if (fits)
        std::memcpy(bytes_.data(), stored.data, storedSize);
    else
        bytes_.fill(0);
    keyHash_.first = loadLittle<std::uint32_t>(&bytes_[keyHashAt]);
    keyHash_.second = loadLittle<std::uint32_t>(&bytes_[keyHashAt + 4]);
    return fits;
}

bool DedupKey::equal(Extent const& stored) const {
    return stored.size == storedSize && std::memcmp(stored.data, bytes_.data(), comparedSize) == 0;
}

} // namespace Replication
