#pragma once

#include "base/values/LittleEndian.h"
#include "replication/common/values/Ids.h"
#include "replication/repository/streams/TreeRecord.h"

#include <QString>

#include <cstdint>
#include <cstring>
#include <utility>

namespace Replication {

class NodeFile;

/// The five times of a node, seconds since 1970.
struct NodeTimes {
    std::uint32_t access = 0; ///< reserved, never set
    std::uint32_t created = 0;
    std::uint32_t modified = 0;
    std::uint32_t createdSource = 0;
    std::uint32_t modifiedSource = 0;

    bool operator==(NodeTimes const&) const = default;
};

/// One stream of a file, as readers see it.
struct StreamRecord {
    StreamId id;
    std::uint64_t size = 0;
    QString name;
};

/// View of a node, a 1024-byte block of a store's "files", little-endian.
///
///  off  size  field           meaning
///    0     8  number          the block's own number; anything else: the block is no node
///    8     4  reserved        zero
///   12     4  linkCount       names that the file has in directories, or had when it ended
///   16     4  referenceCount  snapshot and live claims on this version; 1 when made
///   20     4  versionCount    claims by retained versions
///   24     4  type and flags  low 16 bits: file type (2 = directory); bit 31: live-only
///   28     4  instance        in which the node was made, or last left live-only state
///   32     4  nextLink        next link number to give; 2 when made
///   36     4  access time     reserved
///   40     4  created         seconds since 1970, by the repository's clock
///   44     4  modified        seconds since 1970, by the repository's clock
///   48     4  createdSource   seconds since 1970, the source's time
///   52     4  modifiedSource  seconds since 1970, the source's time
///   56     1  versioned       set when a version claim was taken or the last one dropped
///   57     1  ended           set when the file lost its last name; the count stays, since a
///                            snapshot that sees the version shows it
///   58     6  reserved        zero
///   64   960  record          tree record (118 entries) that holds the packed `NodeInfo`
///
/// The view owns nothing; who may use it, and under which lock, its user says.
class NodeBlock {
public:
    static constexpr std::uint32_t size = 1024;
    static constexpr std::uint32_t recordAt = 64;
    static_assert(recordAt + TreeRecord::nodeSize == size);
    static constexpr std::uint32_t liveOnlyBit = 0x80000000u;
    static constexpr std::uint32_t firstLink = 2;

    explicit NodeBlock(void* block = nullptr) : bytes_(static_cast<std::uint8_t*>(block)) {}
    [[nodiscard]] static NodeBlock readOnly(void const* block) {
        return NodeBlock(const_cast<void*>(block));
    }
    [[nodiscard]] explicit operator bool() const { return bytes_ != nullptr; }
    [[nodiscard]] void* block() const { return bytes_; }

    [[nodiscard]] NodeNumber number() const {
        return NodeNumber{Morva::loadLittle<std::uint64_t>(bytes_)};
    }
    void number(NodeNumber value) { Morva::storeLittle(bytes_, value.value); }
    [[nodiscard]] std::uint32_t linkCount() const { return load(linkCountAt); }
    void linkCount(std::uint32_t value) { store(linkCountAt, value); }
    /// The names that the file has now: none once it has ended. Older programs set the count to 0
    /// instead.
    [[nodiscard]] std::uint32_t names() const { return ended() ? 0 : linkCount(); }
    [[nodiscard]] bool ended() const { return bytes_[endedAt] != 0; }
    void ended(bool value) { bytes_[endedAt] = value ? 1 : 0; }
    [[nodiscard]] std::uint32_t referenceCount() const { return load(referenceCountAt); }
    void referenceCount(std::uint32_t value) { store(referenceCountAt, value); }
    [[nodiscard]] std::uint32_t versionCount() const { return load(versionCountAt); }
    void versionCount(std::uint32_t value) { store(versionCountAt, value); }
    /// The whole word at 24.
    [[nodiscard]] std::uint32_t typeWord() const { return load(typeWordAt); }
    void typeWord(std::uint32_t value) { store(typeWordAt, value); }
    [[nodiscard]] std::uint32_t type() const { return typeWord() & 0xFFFF; }
    [[nodiscard]] bool liveOnly() const { return (typeWord() & liveOnlyBit) != 0; }
    [[nodiscard]] Instance instance() const { return Instance{load(instanceAt)}; }
    void instance(Instance value) { store(instanceAt, value.value); }
    [[nodiscard]] std::uint32_t nextLink() const { return load(nextLinkAt); }
    void nextLink(std::uint32_t value) { store(nextLinkAt, value); }
    [[nodiscard]] NodeTimes times() const {
        return {load(timesAt), load(timesAt + 4), load(timesAt + 8), load(timesAt + 12),
                load(timesAt + 16)};
    }
    void times(NodeTimes const& value) {
        store(timesAt, value.access);
        store(timesAt + 4, value.created);
        store(timesAt + 8, value.modified);
        store(timesAt + 12, value.createdSource);
        store(timesAt + 16, value.modifiedSource);
    }
    [[nodiscard]] bool versioned() const { return bytes_[versionedAt] != 0; }
    void versioned(bool value) { bytes_[versionedAt] = value ? 1 : 0; }
    [[nodiscard]] TreeRecord record() const { return TreeRecord(bytes_ + recordAt); }

    /// `referenceCount` and `versionCount` together: 0 means that the node is to be freed.
    [[nodiscard]] std::uint64_t claims() const {
        return std::uint64_t{referenceCount()} + versionCount();
    }

private:
    static constexpr std::uint32_t linkCountAt = 12;
    static constexpr std::uint32_t referenceCountAt = 16;
    static constexpr std::uint32_t versionCountAt = 20;
    static constexpr std::uint32_t typeWordAt = 24;
    static constexpr std::uint32_t instanceAt = 28;
    static constexpr std::uint32_t nextLinkAt = 32;
    static constexpr std::uint32_t timesAt = 36;
    static constexpr std::uint32_t versionedAt = 56;
    static constexpr std::uint32_t endedAt = 57;

    [[nodiscard]] std::uint32_t load(std::uint32_t at) const {
        return Morva::loadLittle<std::uint32_t>(bytes_ + at);
    }
    void store(std::uint32_t at, std::uint32_t value) { Morva::storeLittle(bytes_ + at, value); }

    std::uint8_t* bytes_;
};

/// Holds one pinned block of "files"; goes back through `NodeFile`, under its lock, at the end
/// unless `NodeFile::freeNode` took it. Move-only.
class NodePin {
public:
    NodePin() = default;
    NodePin(NodePin&& other) noexcept
        : file_(std::exchange(other.file_, nullptr)),
          block_(std::exchange(other.block_, nullptr)) {}
    NodePin& operator=(NodePin&& other) noexcept {
        if (this != &other) {
            reset();
            file_ = std::exchange(other.file_, nullptr);
            block_ = std::exchange(other.block_, nullptr);
        }
        return *this;
    }
    ~NodePin() { reset(); }
    NodePin(NodePin const&) = delete;
    NodePin& operator=(NodePin const&) = delete;

    [[nodiscard]] explicit operator bool() const { return block_ != nullptr; }
    [[nodiscard]] NodeBlock node() const { return NodeBlock(block_); }
    /// Gives the block back, unchanged, now.
    void reset();

private:
    friend class NodeFile;
    NodePin(NodeFile* file, void* block) : file_(file), block_(block) {}

    NodeFile* file_ = nullptr;
    void* block_ = nullptr;
};

} // namespace Replication
