#include "replication/repository/store/DirKey.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"
#include "base/values/StringHash.h"

#include <cstring>

namespace Replication {

using Morva::BPlusTree;
using Morva::Extent;
using Morva::loadLittle;
using Morva::storeLittle;

namespace {

constexpr std::uint32_t positionAt = 0;
constexpr std::uint32_t fileIdAt = 8;
constexpr std::uint32_t linkIdAt = 16;
constexpr std::uint32_t typeAt = 20;
constexpr std::uint32_t hashAt = 24;
constexpr std::uint32_t hashSecondAt = 28;
constexpr std::uint32_t nameLengthAt = 32;
constexpr std::uint32_t reservedAt = 36;
constexpr std::uint32_t directoryIdAt = 40;
constexpr std::uint32_t nameAt = 48;

} // namespace

DirKey::DirKey(FileId directory, QString const& name, std::uint32_t type)
    : directoryId_(directory), linkId_(type != 0 ? 1U : 0U), typeWord_(type), name_(name) {
    rehash();
}

DirKey::DirKey(DirKey const& other, FileId directory, QString const& name)
    : fileId_(other.fileId_),
      directoryId_(directory),
      linkId_(other.linkId_),
      typeWord_(other.typeWord_),
      name_(name) {
    rehash();
}

std::optional<DirKey> DirKey::decode(Extent const& stored) {
    if (stored.size < fixedSize)
        return std::nullopt;
    auto const* const bytes = stored.bytes();
    std::uint64_t const length = loadLittle<std::uint32_t>(bytes + nameLengthAt);
    if (fixedSize + 2 * length != stored.size)
        return std::nullopt;
    QString name(static_cast<qsizetype>(length), Qt::Uninitialized);
    std::memcpy(name.data(), bytes + nameAt, 2 * length);
    DirKey key(FileId{loadLittle<std::uint64_t>(bytes + directoryIdAt)}, name, 0);
    return key.restore(stored) ? std::optional(key) : std::nullopt;
}

DirKey DirKey::root(FileId rootId) {
    DirKey key(rootId, QString(), directoryType);
    key.fileId(rootId);
    return key;
}

void DirKey::rehash() {
    hash_ = {Morva::stringHash(name_) ^ Morva::idHash(directoryId_.value), 0};
}

bool DirKey::save(Extent& range) const {
    if (range.size < size())
        return false;
    auto* const bytes = range.bytes();
    auto const length = static_cast<std::uint32_t>(name_.size());
    storeLittle(bytes + positionAt, position_);
    storeLittle(bytes + fileIdAt, fileId_.value);
    storeLittle(bytes + linkIdAt, linkId_.value);
    storeLittle(bytes + typeAt, typeWord_);
    storeLittle(bytes + hashAt, hash_.first);
    storeLittle(bytes + hashSecondAt, hash_.second);
    storeLittle(bytes + nameLengthAt, length);
    storeLittle(bytes + reservedAt, std::uint32_t{0});
    storeLittle(bytes + directoryIdAt, directoryId_.value);
    std::memcpy(bytes + nameAt, name_.utf16(), 2 * length);
    storeLittle(bytes + nameAt + 2 * length, std::uint16_t{0});
    return true;
}

bool DirKey::restore(Extent const& stored) {
    if (stored.size != size())
        return false;
    auto const* const bytes = stored.bytes();
    position_ = loadLittle<std::uint64_t>(bytes + positionAt);
    fileId_ = FileId{loadLittle<std::uint64_t>(bytes + fileIdAt)};
    linkId_ = LinkId{loadLittle<std::uint32_t>(bytes + linkIdAt)};
    typeWord_ = loadLittle<std::uint32_t>(bytes + typeAt);
    hash_ = {loadLittle<std::uint32_t>(bytes + hashAt),
             loadLittle<std::uint32_t>(bytes + hashSecondAt)};
    return true;
}

bool DirKey::equal(Extent const& stored) const {
    return stored.size == size() &&
           loadLittle<std::uint64_t>(stored.bytes() + directoryIdAt) == directoryId_.value &&
           std::memcmp(stored.bytes() + nameAt, name_.utf16(),
                       2 * static_cast<std::size_t>(name_.size())) == 0;
}

void DirKey::dump() const {
    MORVA_TRACE(Debug) << "(Key Id" << Morva::hex << directoryId_ << "Name" << name_ << "Type"
                       << type() << "LiveOnly" << liveOnly() << "FileId" << fileId_ << "Pos"
                       << position_ << "Hash" << hash_.first << hash_.second << ")";
}

} // namespace Replication
