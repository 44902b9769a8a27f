#pragma once

#include "base/trees/BPlusTree.h"
#include "replication/common/values/Digest.h"
#include "replication/repository/streams/TreeRecord.h"

#include <array>
#include <cstdint>

namespace Replication {

/// Key of the deduplication index: one content that streams share. Stored form, 264 bytes,
/// little-endian:
///
///  off  size  field           meaning
///    0     8  length          of the streams, bytes
///    8     4  digestType      as in a stream's node
///   12    32  digest          as in a stream's node
///   44     4  reserved        zero
///   48     8  keyHash         the low half is the hash, the high half is chosen by the tree
///   56     4  referenceCount  streams that now share this content
///   60     4  reserved        zero
///   64   200  tree record     a copy of the record of the first stream with this content
///
/// Two keys are equal when their first 48 bytes are. The key owns no reference to any block: it
/// stands in the index only while a stream that owns them does.
class DedupKey : public Morva::BPlusTree::Key {
public:
    static constexpr std::uint32_t storedSize = 264;
    static constexpr std::uint32_t comparedSize = 48;

    DedupKey(std::uint64_t length, Digest const& digest);
    /// For visiting the index: any stored form restores into it.
    DedupKey();

    [[nodiscard]] std::uint64_t length() const;
    [[nodiscard]] Digest digest() const;
    [[nodiscard]] std::uint32_t referenceCount() const;
    void referenceCount(std::uint32_t value);
    /// A view into the key.
    [[nodiscard]] TreeRecord record();

    void hash(Morva::BPlusTree::KeyHash const& value) override;
    [[nodiscard]] Morva::BPlusTree::KeyHash const& hash() const override;
    [[nodiscard]] std::uint32_t size() const override { return storedSize; }
    [[nodiscard]] bool save(Morva::Extent& out) const override;
    /// A form of another size clears the key and is false.
    [[nodiscard]] bool restore(Morva::Extent const& stored) override;
    [[nodiscard]] bool equal(Morva::Extent const& stored) const override;

    /// The hash of a length and a digest. It is stored, and so must never change.
    [[nodiscard]] static std::uint32_t hashOf(std::uint64_t length, Digest const& digest);

private:
    static constexpr std::uint32_t lengthAt = 0;
    static constexpr std::uint32_t digestTypeAt = 8;
    static constexpr std::uint32_t digestAt = 12;
    static constexpr std::uint32_t keyHashAt = 48;
    static constexpr std::uint32_t referenceCountAt = 56;
    static constexpr std::uint32_t recordAt = 64;

    alignas(8) std::array<std::uint8_t, storedSize> bytes_{};
    Morva::BPlusTree::KeyHash keyHash_{};
};

} // namespace Replication
