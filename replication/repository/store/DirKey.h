#pragma once

#include "base/trees/BPlusTree.h"
#include "replication/common/values/Ids.h"

#include <QString>

#include <cstdint>
#include <optional>

namespace Replication {

/// A name in a directory of the live tree: the key of a store's directory tree, and with it all
/// that the tree knows of the name.
///
/// Stored form, little-endian, 2 * nameLength + 50 bytes:
///  off     size  field        meaning
///    0        8  position     byte offset of the entry in the directory's data stream
///    8        8  fileId       the object
///   16        4  linkId       which hard link of the object; 0 until the entry is made
///   20        4  type         low 16 bits: object type; bit 31: liveOnly
///   24        8  keyHash      hash of directory and name; the tree's second word
///   32        4  nameLength   characters
///   36        4  reserved     zero
///   40        8  directoryId  the directory that holds the name
///   48  2*n + 2  name         UTF-16 and a 0 terminator, in the store's normal form
///
/// Identity is offset 40 to the end. The key holds its fields, not the bytes, so that making one
/// for a look-up allocates nothing beyond the name's text, which is shared.
class DirKey : public Morva::BPlusTree::Key {
public:
    static constexpr std::uint32_t liveOnlyBit = 0x80000000U;
    static constexpr std::uint32_t typeMask = 0xFFFFU;
    static constexpr std::uint32_t fixedSize = 50;

    /// Names nothing; to be assigned to.
    DirKey() { rehash(); }
    /// `name` must be in the store's normal form (`Directories::key` sees to that). The link id is
    /// 1 if `type` isn't 0.
    DirKey(FileId directory, QString const& name, std::uint32_t type);
    /// The key that a stored form holds, with the hash as it stands there; nothing when the form's
    /// lengths don't fit each other.
    [[nodiscard]] static std::optional<DirKey> decode(Morva::Extent const& stored);
    /// The object of another key under another name.
    DirKey(DirKey const& other, FileId directory, QString const& name);
    DirKey(DirKey const&) = default;
    DirKey(DirKey&&) noexcept = default;
    DirKey& operator=(DirKey const&) = default;
    DirKey& operator=(DirKey&&) noexcept = default;
    ~DirKey() override = default;

    /// The key of a store's root, which stands in no directory: its own parent, without a name.
    [[nodiscard]] static DirKey root(FileId rootId);
    [[nodiscard]] bool isRoot() const { return name_.isEmpty() && fileId_ == directoryId_; }

    [[nodiscard]] std::uint64_t position() const { return position_; }
    void position(std::uint64_t value) { position_ = value; }
    [[nodiscard]] FileId fileId() const { return fileId_; }
    void fileId(FileId value) { fileId_ = value; }
    /// As stored; 0 is possible.
    [[nodiscard]] LinkId linkId() const { return linkId_; }
    /// The link id with 0 read as 1.
    [[nodiscard]] LinkId link() const { return linkId_ ? linkId_ : LinkId{1}; }
    void linkId(LinkId value) { linkId_ = value; }
    /// The object's type alone.
    [[nodiscard]] std::uint32_t type() const { return typeWord_ & typeMask; }
    /// Sets the object's type and keeps the liveOnly bit.
    void type(std::uint32_t value) { typeWord_ = (typeWord_ & liveOnlyBit) | (value & typeMask); }
    [[nodiscard]] std::uint32_t typeWord() const { return typeWord_; }
    [[nodiscard]] bool isDirectory() const { return type() == directoryType; }
    [[nodiscard]] bool liveOnly() const { return (typeWord_ & liveOnlyBit) != 0; }
    void liveOnly(bool value) { typeWord_ = type() | (value ? liveOnlyBit : 0); }
    [[nodiscard]] FileId directoryId() const { return directoryId_; }
    [[nodiscard]] QString const& name() const { return name_; }
    [[nodiscard]] bool sameName(DirKey const& other) const {
        return directoryId_ == other.directoryId_ && name_ == other.name_;
    }

    void hash(Morva::BPlusTree::KeyHash const& value) override { hash_ = value; }
    [[nodiscard]] Morva::BPlusTree::KeyHash const& hash() const override { return hash_; }
    [[nodiscard]] std::uint32_t size() const override {
        return fixedSize + 2 * static_cast<std::uint32_t>(name_.size());
    }
    /// False when the range is too small.
    [[nodiscard]] bool save(Morva::Extent& range) const override;
    /// Takes position, file id, link id, type and hash; false when the sizes differ.
    [[nodiscard]] bool restore(Morva::Extent const& stored) override;
    [[nodiscard]] bool equal(Morva::Extent const& stored) const override;
    void dump() const override;

private:
    void rehash();

    std::uint64_t position_ = 0;
    FileId fileId_;
    FileId directoryId_;
    LinkId linkId_;
    std::uint32_t typeWord_ = 0;
    Morva::BPlusTree::KeyHash hash_{};
    QString name_;
};

} // namespace Replication
