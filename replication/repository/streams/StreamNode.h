#pragma once

#include "replication/common/values/Digest.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/TreeRecord.h"

#include <cstring>

namespace Replication {

/// What a stream tells of itself to other rooms.
struct StreamInfo {
    std::uint64_t length = 0;
    bool indexed = false;
    Digest digest;
};

/// View of a stream's node, a 256-byte block of "nodes", little-endian. The stream's id is the
/// block's number.
///
///  off  size  field           meaning
///    0     8  id              the block's own number; anything else: the block is no stream
///    8     4  referenceCount  references from file versions
///   12     4  digestType      0 none, 1 SHA-1
///   16    32  digest          SHA-1 fills the first 20 bytes, the rest is zero
///   48     1  indexed         1: entered in the deduplication index
///   49     1  frozen          1: may no longer change, for deduplication
///   50     6  reserved        zero
///   56   200  tree record     see TreeRecord
///
/// The view owns nothing; whoever holds the pin of the block guards its use.
class StreamNode {
public:
    static constexpr std::uint32_t size = 256;
    static constexpr std::uint32_t recordAt = 56;
    static_assert(recordAt + TreeRecord::streamSize == size);

    explicit StreamNode(void* block = nullptr) : bytes_(static_cast<std::uint8_t*>(block)) {}

    [[nodiscard]] explicit operator bool() const { return bytes_ != nullptr; }
    [[nodiscard]] void* block() const { return bytes_; }

    [[nodiscard]] StreamId id() const { return StreamId{load<std::uint64_t>(idAt)}; }
    void id(StreamId value) { store(idAt, value.value); }
    [[nodiscard]] std::uint32_t referenceCount() const {
        return load<std::uint32_t>(referenceCountAt);
    }
    void referenceCount(std::uint32_t value) { store(referenceCountAt, value); }
    [[nodiscard]] std::uint32_t digestType() const { return load<std::uint32_t>(digestTypeAt); }
    [[nodiscard]] Digest digest() const {
        Digest result;
        result.type = digestType();
        std::memcpy(result.value.data(), bytes_ + digestAt, result.value.size());
        return result;
    }
    void digest(Digest const& value) {
        store(digestTypeAt, value.type);
        std::memcpy(bytes_ + digestAt, value.value.data(), value.value.size());
    }
    [[nodiscard]] bool indexed() const { return bytes_[indexedAt] != 0; }
    void indexed(bool value) { bytes_[indexedAt] = value; }
    [[nodiscard]] bool frozen() const { return bytes_[frozenAt] != 0; }
    void frozen(bool value) { bytes_[frozenAt] = value; }
    [[nodiscard]] TreeRecord record() const { return TreeRecord(bytes_ + recordAt); }

private:
    static constexpr std::uint32_t idAt = 0;
    static constexpr std::uint32_t referenceCountAt = 8;
    static constexpr std::uint32_t digestTypeAt = 12;
    static constexpr std::uint32_t digestAt = 16;
    static constexpr std::uint32_t indexedAt = 48;
    static constexpr std::uint32_t frozenAt = 49;

    template <class T> T load(std::uint32_t at) const { return Morva::loadLittle<T>(bytes_ + at); }
    template <class T> void store(std::uint32_t at, T value) {
        Morva::storeLittle(bytes_ + at, value);
    }

    std::uint8_t* bytes_;
};

/// View of the pool's control record, the 256-byte block at `firstBlock()` of "nodes",
/// little-endian.
///
///  off  size  field           meaning
///    0     4  instance        snapshot instance counter of the pool
///    4    12  reserved        zero
///   16     8  indexedStreams  streams entered in the deduplication index
///   24     8  uniqueStreams   keys in the index
///   32     8  indexedData     sum of the lengths of the indexed streams, bytes
///   40     8  uniqueData      sum of the lengths of the keys, bytes
///   48   208  reserved        zero
///
/// The reserved word at 4 keeps it from ever reading as a stream: a stream's first eight bytes
/// are its own block number, and that of this block is below the instance's 32 bits only by
/// chance, so `Streams` refuses the number itself.
class PoolControl {
public:
    static constexpr std::uint32_t size = 256;

    explicit PoolControl(void* block = nullptr) : bytes_(static_cast<std::uint8_t*>(block)) {}
    [[nodiscard]] explicit operator bool() const { return bytes_ != nullptr; }
    [[nodiscard]] void* block() const { return bytes_; }

    [[nodiscard]] std::uint32_t instance() const {
        return Morva::loadLittle<std::uint32_t>(bytes_);
    }
    void instance(std::uint32_t value) { Morva::storeLittle(bytes_, value); }
    [[nodiscard]] std::uint64_t indexedStreams() const { return load(indexedStreamsAt); }
    [[nodiscard]] std::uint64_t uniqueStreams() const { return load(uniqueStreamsAt); }
    [[nodiscard]] std::uint64_t indexedData() const { return load(indexedDataAt); }
    [[nodiscard]] std::uint64_t uniqueData() const { return load(uniqueDataAt); }

    /// A stream of this length enters or leaves the index.
    void addIndexed(std::uint64_t length) { add(indexedStreamsAt, indexedDataAt, length); }
    void removeIndexed(std::uint64_t length) { remove(indexedStreamsAt, indexedDataAt, length); }
    /// A key of this length enters or leaves the index.
    void addUnique(std::uint64_t length) { add(uniqueStreamsAt, uniqueDataAt, length); }
    void removeUnique(std::uint64_t length) { remove(uniqueStreamsAt, uniqueDataAt, length); }

private:
    static constexpr std::uint32_t indexedStreamsAt = 16;
    static constexpr std::uint32_t uniqueStreamsAt = 24;
    static constexpr std::uint32_t indexedDataAt = 32;
    static constexpr std::uint32_t uniqueDataAt = 40;

    [[nodiscard]] std::uint64_t load(std::uint32_t at) const {
        return Morva::loadLittle<std::uint64_t>(bytes_ + at);
    }
    void add(std::uint32_t countAt, std::uint32_t dataAt, std::uint64_t length) {
        Morva::storeLittle(bytes_ + countAt, load(countAt) + 1);
        Morva::storeLittle(bytes_ + dataAt, load(dataAt) + length);
    }
    void remove(std::uint32_t countAt, std::uint32_t dataAt, std::uint64_t length) {
        Morva::storeLittle(bytes_ + countAt, load(countAt) - 1);
        Morva::storeLittle(bytes_ + dataAt, load(dataAt) - length);
    }

    std::uint8_t* bytes_;
};

} // namespace Replication
